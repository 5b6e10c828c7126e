#include "session/composite/Composite.h"

#include <cmath>
#include <memory>

#include <fmt/format.h>

#include "korimg/composite/CImgComposit.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/operations/Kernels.h"
#include "session/operations/Operation.h"
#include "session/picture/Images.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// As a call would be written with all that counts; without names of images that are no files.
std::string TextOf(const CompositeOptions& options, const fs::path& first, const fs::path& second) {
  std::string text = "composite";
  for (const fs::path& path : {first, second}) {
    if (!path.empty()) text += " " + path.string();
  }
  text +=
      fmt::format(" --mode {} --dx {} --dy {} --angle {} --kernel {}", NameOf(kCompositeModes, options.mode),
                  options.dx, options.dy, options.angle, NameOf(kKernels, options.kernel));
  if (options.centre) text += fmt::format(" --centre {},{}", options.centre->first, options.centre->second);
  const bool neighbour = options.mode == CompositeMode::Neighbour;
  if (options.mode == CompositeMode::Weight || neighbour) text += fmt::format(" --weight {}", options.weight);
  if (neighbour) text += fmt::format(" --threshold {} --radius {}", options.threshold, options.radius);
  if (options.level) text += " --level";
  if (options.cutMinus) text += " --cut-minus";
  if (const auto& rect = options.rect) {
    text += " --rect " + session::TextOf(*rect);
  }
  return text;
}

/// The second image in the kind of the first: a mono one serves colour, a colour one becomes its luminance.
std::unique_ptr<CVelImage> AsKindOf(const CVelImage& first, std::unique_ptr<CVelImage> second) {
  if (first.IsColor() || !second->IsColor()) return second;
  auto grey = std::make_unique<CVelImage>();
  if (!grey->Create(*second, nullptr) || !grey->ToGray(second.get(), 0)) {
    throw velora::CVmMemoryAllocationError("no room for the luminance of the second image");
  }
  return grey;
}

/// Puts the first image back where the second does not reach: there the library combines it with a value
/// that stands for nothing, a black strip or a white one. What reaches is what the kernel finds of ones.
void RestoreUnreached(CVelImage& result, CVelImage& first, const CVelImage& second,
                      const CompositeOptions& options, CRect* window) {
  const auto plane = [](const CVelImage& like) {
    return CVelImage(like.VmManager(), CImage::Float, like.GetWidth(), like.GetHeight(), 1, 1.0, 0.0, 1,
                     nullptr);
  };
  CVelImage nothing = plane(first), ones = plane(second);
  ones.Fill(0, 1);
  ones.SetStdCtr(second.GetStdCtr());
  CImgComposit reach;
  if (!reach.Create(nothing, nullptr)) throw velora::CVmMemoryAllocationError("no room for the result");
  reach.Do(&nothing, &ones, options.dx, options.dy, options.angle, 1, static_cast<int>(CompositeMode::Add),
           options.kernel, 1, 0, 0, 1, 1, window, 0, -1);
  constexpr float kAll = 0.9f;  // chosen: the weights of some kernels add up to a little less than 1
  for (int p = 0; p < result.GetPlanes(); ++p) {
    for (int y = 0; y < result.GetHeight(); ++y) {
      const float *found = reach.GetLine(0, y, 0), *own = first.GetLine(0, y, p);
      float* out = result.GetWritableLine(0, y, p);
      for (int x = 0; x < result.GetWidth(); ++x) {
        if (!(found[x] > kAll)) out[x] = own[x];
      }
    }
  }
}

void Check(const CompositeOptions& options) {
  for (const double number : {options.dx, options.dy, options.angle, options.weight, options.threshold}) {
    if (std::isnan(number))
      throw UsageError("composite: write numbers for --dx, --dy, --angle and the others");
  }
  if (options.mode == CompositeMode::Neighbour && std::abs(options.angle) >= 90) {
    throw UsageError("--mode neighbour turns by less than 90 degrees");
  }
}

void Combine(Job& job, Image& image, Image other, const CompositeOptions& options) {
  Check(options);
  if (files::LiesOverturned(image.Header(), other.Header())) TurnOver(other.Pixels());
  CVelImage& first = image.Pixels();
  const auto second = AsKindOf(first, std::move(other.Pointer()));
  // One centre for both paths, which would take the middle of an odd side differently.
  const auto [x, y] = options.centre.value_or(std::pair(second->GetWidth() * 0.5, second->GetHeight() * 0.5));
  second->SetStdCtr({x, y});
  if (options.mode == CompositeMode::Neighbour) {
    first.CalcMinMax();
    second->CalcMinMax();
  }
  CRect rect = options.rect.value_or(CRect());
  CRect* window = options.rect ? &rect : nullptr;
  auto result = std::make_unique<CImgComposit>();
  // Outside of a rectangle the target holds the first image: neighbours are looked at there.
  if (!(window ? result->CopyImage(first, nullptr, nullptr) : result->Create(first, nullptr))) {
    throw velora::CVmMemoryAllocationError("no room for the result");
  }
  result->SetProgressHandle(job.OperationWindow("composite"));
  result->Do(&first, second.get(), options.dx, options.dy, options.angle, 1, static_cast<int>(options.mode),
             options.kernel, options.weight, options.level, options.cutMinus, options.threshold,
             options.radius, window, 1, -1);
  job.EndProgress();
  if (options.mode != CompositeMode::Neighbour) RestoreUnreached(*result, first, *second, options, window);
  image.Header().AddHistory(
      fmt::format("korimg {} {}", Version(), TextOf(options, image.Info().path, other.Info().path)));
  if (window) {
    // A small rectangle may have been widened: only what was asked for goes back into the image.
    first.Paste(result.get(), window);
  } else {
    image.Pointer() = std::move(result);
  }
}

void Tell(Job& job, const CompositeFilesOptions& options) {
  const std::string text = TextOf(options, options.first, options.second);
  job.Tell(Dump({{"first", options.first.string()},
                 {"second", options.second.string()},
                 {"output", options.output.string()},
                 {"operation", text}}),
           fmt::format("{} -> {}", text, options.output.string()));
}

}  // namespace

void Composite(Job& job, Image& first, Image second, const CompositeOptions& options) {
  AtEdge([&] { Combine(job, first, std::move(second), options); });
}

void CompositeFiles(Job& job, const CompositeFilesOptions& options) {
  AtEdge([&] {
    Check(options);
    job.CheckOutput(options.output);
    const auto store = job.MakeStore(options.paged);
    Image first = Image::Open(job, store, options.first, {.hdu = options.hdu});
    Combine(job, first, Image::Open(job, store, options.second, {.hdu = options.hdu}), options);
    SaveImage(job, first.Pixels(), first.Header(), options.output, {.integers = options.integers});
    Tell(job, options);
  });
}

void PlanCompositeFiles(Job& job, const CompositeFilesOptions& options) {
  AtEdge([&] {
    Check(options);
    Tell(job, options);
  });
}

}  // namespace korimg::session
