#include "korimg/image/internal/Frame.h"

#include <string>

#include "korimg/platform/CKorSys.h"

namespace korimg {

bool HasVectors() {
  constexpr unsigned kFourLanes = 2;
  return (CKorSys::SIMD() & kFourLanes) != 0;
}

void MakeWorkImage(CVelImage& work, const CVelImage& like) {
  if (work.Create(like, nullptr)) return;
  throw velora::CVmMemoryAllocationError("no room for a work image of " + std::to_string(like.GetWidth()) +
                                         " x " + std::to_string(like.GetHeight()) + " x " +
                                         std::to_string(like.GetPlanes()) +
                                         " pixels; free memory, or space in the temporary directory");
}

TemporaryPlane::TemporaryPlane(CVmManager& contiguous, int width, int height)
    : store_(contiguous.shared_from_this(), width, height, 1, sizeof(float), nullptr),
      width_(width),
      height_(height) {}

StagedPlane::StagedPlane(CVelImage& image, int plane, CVmManager& contiguous)
    : copy_(IsContiguous(image)
                ? nullptr
                : std::make_unique<TemporaryPlane>(contiguous, image.GetWidth(), image.GetHeight())),
      buffer_(copy_ ? copy_->Buffer() : PlaneBuffer(image, plane)) {
  if (!copy_) return;
  const size_t width = image.GetWidth();
  float* pixels = copy_->Pixels();
  ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
    std::memcpy(pixels + y * width, image.GetLine(0, y, plane), width * sizeof(float));
  });
}

}  // namespace korimg
