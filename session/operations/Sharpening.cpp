// Sharpeners.
#include "korimg/filters/CImgFilterSharp.h"

#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

struct SharpOptions : BandOptions {
  std::optional<PerPlane> brighter;

  bool IsConfined() const { return !IsOpen() || brighter; }
};

/// Calls plain(target, source, rectangle, show), or where a band or a limit was given
/// banded(target, limits of both ..., source, rectangle, show).
template <class Plain, class Banded>
void Sharpen(Call& call, const SharpOptions& options, Plain&& plain, Banded&& banded) {
  CheckBand(call, options);
  call.Replace<CImgFilterSharp>([&](CImgFilterSharp& target) {
    CVelImage* source = call.image.get();
    if (!options.IsConfined()) return plain(target, source, call.rect, kShow);
    OptionalValues brighter(options.brighter, source->GetPlanes());
    WithBand(call, options, [&](auto... band) {
      banded(target, band..., brighter.given.data(), brighter.values.data(), source, call.rect, kShow);
    });
  });
}

struct KernelOptions : SharpOptions {
  PerPlane radius = 1, strength = 0.2;
};

void Kernel(Call& call, const KernelOptions& options) {
  auto radii = Radii(call, options.radius), strength = options.strength.For(call.image->GetPlanes());
  const auto run = [&](CImgFilterSharp& target, auto... rest) {
    target.SharpFilter(radii.data(), strength.data(), rest...);
  };
  Sharpen(call, options, run, run);
}

struct EdgeOptions : SharpOptions {
  PerPlane radius = 1, strength = 1;
};

void KernelAtEdges(Call& call, const EdgeOptions& options) {
  auto radii = Radii(call, options.radius), strength = options.strength.For(call.image->GetPlanes());
  const auto run = [&](CImgFilterSharp& target, auto... rest) {
    target.SharpEdgeFilter(radii.data(), strength.data(), rest...);
  };
  Sharpen(call, options, run, run);
}

struct UnsharpOptions : SharpOptions {
  PerPlane sigma = 2, strength = 1;
  std::optional<PerPlane> threshold;
};

void Unsharp(Call& call, const UnsharpOptions& options) {
  if (options.threshold && options.IsConfined()) {
    throw UsageError(
        "unsharp: a threshold goes with neither a band nor brighter; leave out the threshold, or dark, "
        "highlight and brighter");
  }
  const int planes = call.image->GetPlanes();
  auto sigma = Sigmas(call, options.sigma), strength = options.strength.For(planes),
       threshold = options.threshold.value_or(PerPlane(0)).For(planes);
  Sharpen(
      call, options,
      [&](CImgFilterSharp& target, auto... rest) {
        target.UnSharpMask(sigma.data(), strength.data(), threshold.data(), rest...);
      },
      [&](CImgFilterSharp& target, auto... rest) {
        target.UnSharpMask(sigma.data(), strength.data(), rest...);
      });
}

/// What stacked deep-sky images take: the finest scale, which is noise, stays; the next ones, of stars and
/// filaments, come out most.
struct MultibandOptions : SharpOptions {
  PerPlane sigma1 = 1, sigma2 = 2, sigma3 = 4, sigma4 = 8, sigma5 = 16, sigma6 = 32;
  PerPlane weight1 = 0, weight2 = 1, weight3 = 1.5, weight4 = 1, weight5 = 0.5, weight6 = 0;
};

void Multiband(Call& call, const MultibandOptions& o) {
  const auto weights = [&](const PerPlane& weight) { return weight.For(call.image->GetPlanes()); };
  auto s1 = Sigmas(call, o.sigma1), s2 = Sigmas(call, o.sigma2), s3 = Sigmas(call, o.sigma3),
       s4 = Sigmas(call, o.sigma4), s5 = Sigmas(call, o.sigma5), s6 = Sigmas(call, o.sigma6);
  auto w1 = weights(o.weight1), w2 = weights(o.weight2), w3 = weights(o.weight3), w4 = weights(o.weight4),
       w5 = weights(o.weight5), w6 = weights(o.weight6);
  CheckBand(call, o);
  call.Replace<CImgFilterSharp>([&](CImgFilterSharp& target) {
    OptionalValues brighter(o.brighter, call.image->GetPlanes());
    WithBand(call, o, [&](auto... band) {
      target.SubBandUnSharpMask(s1.data(), w1.data(), s2.data(), w2.data(), s3.data(), w3.data(), s4.data(),
                                w4.data(), s5.data(), w5.data(), s6.data(), w6.data(), band...,
                                brighter.given.data(), brighter.values.data(), call.image.get(), call.rect,
                                kShow);
    });
  });
}

template <class O>
Describe<O>& TakesLimits(Describe<O>& description) {
  return TakesBand(description)
      .Takes("brighter", &O::brighter,
             {"percent of what a pixel was darkened that it gets back; 100 leaves no dark rings about stars",
              "%", 0, 100});
}

template <class O>
Describe<O>& TakesStrength(Describe<O>& description, const std::string& help) {
  return description.Takes("strength", &O::strength, {help, "", -1000, 1000});
}

}  // namespace

std::vector<Operation> SharpeningOperations() {
  Describe<UnsharpOptions> unsharp(
      "unsharp", "sharpens by the difference from a Gaussian: an unsharp mask",
      "Brings out detail about as large as the sigma: the bands of planets, filaments in nebulae. Keep it to "
      "bright parts by `dark`, since in the sky it sharpens noise, and give `brighter` where dark rings "
      "appear about stars. Measure stars before, not after.");
  unsharp.Takes("sigma", &UnsharpOptions::sigma,
                {"of the Gaussian; 0 leaves the plane as it is", "pixels", 0, 1000});
  TakesStrength(unsharp, "what the difference is multiplied by")
      .Takes("threshold", &UnsharpOptions::threshold,
             {"share by which a pixel must differ from the Gaussian; not with a band", "", 0, 1e6});
  Describe<MultibandOptions> multiband(
      "multiband-sharpen", "sharpens on six scales at once: the mean of six unsharp masks",
      "Treats fine and coarse detail each by its own weight, from stars to whole arms of galaxies, without "
      "the "
      "halos of one strong mask. Give the finest scales weight only where stacking left little noise. "
      "Weights "
      "of all scales together are six times what a single unsharp mask would have.");
  const std::string sigma = "of the Gaussian of a scale",
                    weight = "of that scale's difference; 0 leaves it out";
  for (const auto& [number, s, w] : {std::tuple("1", &MultibandOptions::sigma1, &MultibandOptions::weight1),
                                     {"2", &MultibandOptions::sigma2, &MultibandOptions::weight2},
                                     {"3", &MultibandOptions::sigma3, &MultibandOptions::weight3},
                                     {"4", &MultibandOptions::sigma4, &MultibandOptions::weight4},
                                     {"5", &MultibandOptions::sigma5, &MultibandOptions::weight5},
                                     {"6", &MultibandOptions::sigma6, &MultibandOptions::weight6}}) {
    multiband.Takes(std::string("sigma") + number, s, {sigma, "pixels", 0, 1000})
        .Takes(std::string("weight") + number, w, {weight, "", 0, 1000});
  }
  return {
      TakesLimits(multiband)
          .StoresAgree(std::nullopt)
          .Example("sigma2=3 weight3=2 dark=20 dark-range=10 brighter=80")
          .KeepsSource()
          .Runs(Multiband),
      TakesLimits(TakesStrength(
                      TakesRadius(Describe<KernelOptions>(
                                      "sharpen", "sharpens by the difference from the nearest neighbours",
                                      "Crisps the finest detail of the moon and planets, and of well sampled "
                                      "stacks. It raises noise most of all filters here: on deep-sky images "
                                      "take sharpen-edges, or unsharp with a band."),
                                  "squared distance up to which neighbours count; the fraction is dropped"),
                      "of each neighbour against a pixel of 1"))
          .Example("radius=2 strength=0.1 brighter=50")
          .KeepsSource()
          .Runs(Kernel),
      TakesLimits(
          TakesStrength(
              TakesRadius(Describe<EdgeOptions>(
                              "sharpen-edges",
                              "sharpens where the image has edges, and leaves flat "
                              "ground alone",
                              "Sharpens stars and bright rims and keeps the sky's noise as it is. "
                              "What is faint against the range from black to white stays as well: set "
                              "the levels, or stretch the image, first."),
                          "squared distance up to which neighbours count"),
              "of each neighbour against a pixel of 1"))
          .Example("radius=2 strength=0.5")
          .KeepsSource()
          .Runs(KernelAtEdges),
      TakesLimits(unsharp)
          .StoresAgree(1e-5)
          .Example("sigma=1.5 strength=0.8 dark=40 dark-range=20")
          .KeepsSource()
          .Runs(Unsharp),
  };
}

}  // namespace korimg::session
