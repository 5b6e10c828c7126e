// Restoration of images blurred by seeing and optics.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/restoration/CImgLucy.h"
#include "korimg/restoration/CImgMem.h"
#include "korimg/restoration/CImgWiener.h"

#include "session/operations/Describe.h"
#include "session/operations/internal/Counts.h"
#include "session/register/Register.h"

namespace korimg::session {
namespace {

/// The point-spread function: by one of both, else that of the image's own stars.
struct BlurOptions {
  std::optional<double> sigma, fwhm;
};

double SigmaOf(const Call& call, const BlurOptions& options) {
  const double kFwhm = 2 * std::sqrt(2 * std::log(2.0));  // of a sigma of 1
  if (options.sigma && options.fwhm) {
    throw UsageError(fmt::format("{}: give sigma or fwhm, not both", call.Name()));
  }
  if (options.sigma) return *options.sigma;
  if (options.fwhm) return *options.fwhm / kFwhm;
  const FrameMeasure measure = MeasureFrame(*call.image);
  if (!(measure.fwhm > 0)) {
    throw UsageError(
        fmt::format("{}: no star tells how blurred the image is; give sigma or fwhm", call.Name()));
  }
  call.job.Explain(fmt::format("{}: sigma {:.3f} pixels, by the usual FWHM of {} stars, {:.3f}", call.Name(),
                               measure.fwhm / kFwhm, measure.starCount, measure.fwhm));
  return measure.fwhm / kFwhm;
}

/// Throws when a restoration has left the image as it was.
void CheckDone(const Call& call, int done) {
  if (done) return;
  call.job.CheckCancelled();
  throw velora::CVmMemoryAllocationError("no room for the restoration");
}

struct WienerOptions : BlurOptions {
  double noise = 0.01;
};

void Wiener(Call& call, const WienerOptions& options) {
  const double sigma = SigmaOf(call, options);
  // Beyond the image it is black, which has to be the sky, or the edges ring.
  const FrameLevels levels = MeasureLevels(*call.image);
  int done = 0;
  call.InPlace<CImgWiener>([&](CImgWiener& image) {
    const int planes = image.GetPlanes();
    std::vector<std::pair<double, double>> before;
    for (int p = 0; p < planes; ++p) {
      before.emplace_back(image.GetLevelMin(p), image.GetLevelMax(p));
      image.SetLevel(p, levels.level[p], levels.level[p] + 1);
    }
    done = image.DoKeepingFlux(sigma, options.noise, call.rect, kShow);
    for (int p = 0; p < planes; ++p) {
      image.SetLevel(p, before[p].first, before[p].second);
    }
  });
  CheckDone(call, done);
}

/// The level that a thousandth of a plane lies below: of a flat sky, three times its noise under it, and of
/// any image hardly more than noise. Rings about stars reach no deeper then. 250 of the samples lie below it.
double DarkestOf(CVelImage& image, int plane) {
  constexpr int kSamples = 250000;
  constexpr double kShare = 1e-3;
  const long long pixels = 1LL * image.GetWidth() * image.GetHeight();
  const int step = static_cast<int>(std::max(std::sqrt(1.0 * pixels / kSamples), 1.0));
  std::vector<float> samples;
  for (int y = 0; y < image.GetHeight(); y += step) {
    const float* line = image.GetLine(0, y, plane);
    for (int x = 0; x < image.GetWidth(); x += step) {
      if (std::isfinite(line[x])) samples.push_back(line[x]);
    }
  }
  if (samples.empty()) return 0;
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(kShare * static_cast<double>(samples.size()));
  std::nth_element(samples.begin(), at, samples.end());
  return *at;
}

struct LucyOptions : BlurOptions {
  std::optional<double> gain, readNoise;
  int iterations = 20;
};

void Lucy(Call& call, const LucyOptions& options) {
  const double sigma = SigmaOf(call, options);
  const Counts counts = CountsOf(call, options.gain, options.readNoise);
  std::vector<double> darkest;
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    darkest.push_back(DarkestOf(*call.image, p));
  }
  int done = 0;
  call.InPlace<CImgLucy>([&](CImgLucy& image) {
    done = image.DoAboveBackground(sigma, counts.gain, counts.readNoise, options.iterations, darkest.data(),
                                   call.rect, kShow);
  });
  CheckDone(call, done);
}

struct MemOptions : BlurOptions {
  std::optional<double> noise;
  int iterations = 30;
};

void Mem(Call& call, const MemOptions& options) {
  const double sigma = SigmaOf(call, options);
  double noise = options.noise.value_or(0);
  if (!options.noise) {
    const FrameLevels levels = MeasureLevels(*call.image);
    noise = *std::max_element(levels.noise, levels.noise + call.image->GetPlanes());
    if (!(noise > 0))
      throw UsageError("maximum-entropy: the image has no noise to tell how close to come; give noise");
    call.job.Explain(fmt::format("{}: noise {:g}, measured from pixel to pixel", call.Name(), noise));
  }
  int done = 0;
  call.InPlace<CImgMem>(
      [&](CImgMem& image) { done = image.Do(sigma, noise, options.iterations, call.rect, kShow); });
  CheckDone(call, done);
}

template <class O>
Describe<O> TakesBlur(Describe<O>&& description) {
  description
      .Takes("sigma", &O::sigma,
             {"of the Gaussian that blurs; left out with fwhm, that of the image's own stars", "pixels", 0.1,
              100})
      .Takes("fwhm", &O::fwhm, {"the same as full width at half maximum", "pixels", 0.2, 200});
  return std::move(description);
}

}  // namespace

std::vector<Operation> DeconvolutionOperations() {
  return {
      TakesBlur(
          Describe<MemOptions>(
              "maximum-entropy",
              "sharpens to the smoothest image above 0 that explains the data within their noise",
              "Takes blur out of faint nebulae and galaxies without making structure of their noise. Take "
              "the pedestal off before, and a bright sky. Where stars stand far above the noise, which is "
              "taken to be the same everywhere, richardson-lucy does better."))
          .Takes("noise", &MemOptions::noise,
                 {"standard deviation of a pixel; more gives a smoother image; left out, it is measured",
                  "raw", 1e-30, 1e30})
          .Takes("iterations", &MemOptions::iterations, {"at most", "", 1, 10000})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("sigma=1.2 noise=30 iterations=5")
          .Runs(Mem),
      TakesCounts(
          TakesBlur(Describe<LucyOptions>(
              "richardson-lucy", "sharpens by steps that explain the counts better and keep all light",
              "Takes seeing and soft optics out of stars and the structure of linear images. Run it "
              "before any "
              "stretch, with the pedestal off. It ends by itself when noise explains the rest; more "
              "iterations than that make grain of noise.")))
          .Takes("iterations", &LucyOptions::iterations, {"at most", "", 1, 10000})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("sigma=1.2 iterations=5")
          .Runs(Lucy),
      TakesBlur(Describe<WienerOptions>(
                    "wiener", "sharpens by dividing the blur out of the image's spectrum, in one step",
                    "Undoes seeing or a soft optic quickly, for the moon, planets and bright nebulae. Bright "
                    "stars get dark "
                    "rings, and noise grows as detail does: raise noise until the sky is calm. For "
                    "stars take richardson-lucy."))
          .Takes("noise", &WienerOptions::noise,
                 {"power of the noise as a share of the blur's largest: less is sharper and noisier", "",
                  1e-9, 1e6})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("sigma=1.2 noise=0.02")
          .Runs(Wiener),
  };
}

}  // namespace korimg::session
