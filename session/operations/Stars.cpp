// Filters that know stars from nebulae.
#include <algorithm>

#include <fmt/format.h>

#include "korimg/filters/CImgFilterSpecial.h"

#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

struct SharpenOptions {
  PerPlane radius = 2;
  std::optional<PerPlane> rank;
  PerPlane threshold = 0.1;
  bool keepPeak = true;
};

void Sharpen(Call& call, const SharpenOptions& options) {
  constexpr double kShare = 1.0 / 3;  // of the largest rank; chosen
  auto radii = Radii(call, options.radius);
  auto threshold = options.threshold.For(call.image->GetPlanes());
  std::vector<double> ranks;
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const int largest = CImgFilterSpecial().GetStarSharpFilterNum(radii[p]) - 1;
    ranks.push_back(options.rank ? (*options.rank)[p] : kShare * largest);
    if (ranks[p] > largest) {
      throw UsageError(fmt::format("star-sharpen: a disc of radius {} has the ranks 0 to {}, not {}",
                                   radii[p], largest, ranks[p]));
    }
  }
  call.Replace<CImgFilterSpecial>([&](CImgFilterSpecial& target) {
    target.StarSharpFilter(radii.data(), ranks.data(), threshold.data(), options.keepPeak, call.image.get(),
                           call.rect, kShow);
  });
}

struct EnhanceOptions {
  PerPlane sigma = 1.5, strength = 1, threshold = 0.2;
  bool showMask = false;
};

void Enhance(Call& call, const EnhanceOptions& options) {
  const int planes = call.image->GetPlanes();
  auto sigma = Sigmas(call, options.sigma), strength = options.strength.For(planes);
  auto threshold = options.threshold.For(planes);
  call.Replace<CImgFilterSpecial>([&](CImgFilterSpecial& target) {
    target.StarEnhanceFilter2(sigma.data(), strength.data(), threshold.data(), options.showMask,
                              call.image.get(), call.rect, kShow);
  });
}

struct MaskOptions {
  double sigma = 2, strength = 2, threshold = 0.2;
  bool blend = false;
};

void Mask(Call& call, const MaskOptions& options) {
  Sigmas(call, options.sigma);
  call.Replace<CImgFilterSpecial>([&](CImgFilterSpecial& target) {
    target.StaryMask(options.sigma, options.strength, options.threshold, options.blend, call.image.get(),
                     call.rect, kShow);
  });
}

struct SmoothOptions {
  PerPlane sigma = 2, threshold = 1, radius = 3;
  bool showMask = false;
};

void Smooth(Call& call, const SmoothOptions& options) {
  auto radii = Radii(call, options.radius), sigma = Sigmas(call, options.sigma);
  auto threshold = options.threshold.For(call.image->GetPlanes());
  call.Replace<CImgFilterSpecial>([&](CImgFilterSpecial& target) {
    target.NebularSmootherFilter(sigma.data(), threshold.data(), radii.data(), options.showMask,
                                 call.image.get(), call.rect, kShow);
  });
}

/// What all thresholds of the high pass are told by.
template <class O>
Describe<O>& TakesThreshold(Describe<O>& description) {
  return description.Takes("threshold", &O::threshold,
                           {"of the high pass, eight times a pixel less its neighbours, as a share of the "
                            "level range: lower finds fainter stars, and noise at last; pixels between black "
                            "and white never reach 8",
                            "", 0, 1000});
}

template <class O>
Describe<O>& TakesSigma(Describe<O>&& description, const std::string& help) {
  return description.Takes("sigma", &O::sigma, {help, "pixels", 0, 1000});
}

}  // namespace

std::vector<Operation> StarsOperations() {
  return {
      TakesThreshold(
          TakesSigma(Describe<EnhanceOptions>(
                         "star-enhance", "adds a smoothed map of the stars to the image",
                         "Gives the stars of a constellation or a cluster weight and a soft glow, "
                         "as a diffusing filter does. It is for wide fields: fine edges of nebulae "
                         "and of the moon pass for stars, and brightness is no measure afterwards."),
                     "of the glow"))
          .Takes("strength", &EnhanceOptions::strength, {"what the map is multiplied by", "", -1e6, 1e6})
          .Takes("show-mask", &EnhanceOptions::showMask, {"gives the map alone, above black"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("sigma=2 threshold=0.05 strength=0.5")
          .KeepsSource()
          .Runs(Enhance),
      TakesThreshold(
          TakesSigma(Describe<MaskOptions>(
                         "star-mask", "makes a mask of the stars: white on black",
                         "For --mask of other operations, so that they work on stars alone, or with "
                         "--mask-reverse on all but them. Fine edges of nebulae pass for stars; "
                         "look at the mask before use."),
                     "by which stars are widened"))
          .Takes("strength", &MaskOptions::strength, {"what the map is multiplied by", "", -1e6, 1e6})
          .Takes("blend", &MaskOptions::blend, {"gives the mean of mask and image instead"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .StoresAgree(std::nullopt)
          .Example("sigma=3 threshold=0.05")
          .KeepsSource()
          .Runs(Mask),
      TakesRadius(Describe<SharpenOptions>(
                      "star-sharpen", "makes stars smaller: a pixel of low rank of the disc about each pixel",
                      "Shrinks bloated stars, so that nebulae come forward, and leaves smooth ground alone. "
                      "The smallest stars are nearly all peak and stay. It is no remedy for trailed or "
                      "defocused stars, and star brightness is no measure afterwards."),
                  "of the disc; about that of the stars")
          .Takes(
              "rank", &SharpenOptions::rank,
              {"0: the smallest pixel; the largest is the number of pixels in the disc less 1; left out, a "
               "third of that",
               "", 0, 1e7})
          .Takes(
              "threshold", &SharpenOptions::threshold,
              {"pixels stay that would come closer to the largest of their disc than this share; 0 for none",
               "", 0, 1e6})
          .Takes("keep-peak", &SharpenOptions::keepPeak, {"keeps the largest pixel of each disc"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("radius=1.5 rank=2.5 threshold=0.05")
          .KeepsSource()
          .Runs(Sharpen),
      TakesThreshold(
          TakesSigma(Describe<SmoothOptions>(
                         "nebula-smooth", "smooths everything but the stars and their surroundings",
                         "Takes the grain off nebulae and sky and leaves stars sharp. The threshold "
                         "has to be above the noise, or every pixel is a star: see what is kept by "
                         "show-mask first. Fine structure of nebulae is smoothed with the noise."),
                     "of the Gaussian; 0 leaves the plane as it is"))
          .Takes("radius", &SmoothOptions::radius,
                 {"about a star within which pixels stay", "pixels", 0, 1000})
          .Takes("show-mask", &SmoothOptions::showMask,
                 {"gives white where pixels stay, and black elsewhere"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("sigma=1.5 threshold=4 radius=1")
          .KeepsSource()
          .Runs(Smooth),
  };
}

}  // namespace korimg::session
