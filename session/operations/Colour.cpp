// Operations between mono and colour.
#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

struct NoOptions {};

void ToGray(Call& call, const NoOptions&) {
  if (!call.image->IsColor()) return;
  call.Replace<CVelImage>([&](CVelImage& target) { return target.ToGray(call.image.get(), kShow); });
}

void ToColour(Call& call, const NoOptions&) {
  call.Replace<CVelImage>([&](CVelImage& target) { return target.ToColor(call.image.get(), kShow); });
}

}  // namespace

std::vector<Operation> ColourOperations() {
  return {
      Describe<NoOptions>("to-colour", "makes three planes of one",
                          "Gives a mono image three equal planes, so that it can be tinted, or combined with "
                          "images in colour. A mosaic gets no colours by this: develop it.")
          .Example("")
          .Runs(ToColour),
      Describe<NoOptions>("to-gray", "makes one plane of luminance",
                          "Weighs red, green and blue as the eye does, by their levels: a luminance for "
                          "sharpening or a mask. A mono image stays as it is.")
          .Header(HeaderEffect::DropsCounts)
          .Example("")
          .Runs(ToGray),
  };
}

}  // namespace korimg::session
