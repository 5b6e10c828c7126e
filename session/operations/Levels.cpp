// Operations that set black and white; no pixel changes.
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/levels/CImgToneCurve.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

struct LevelOptions {
  PerPlane min, max;
};

void Level(Call& call, const LevelOptions& options) {
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const auto low = static_cast<float>(options.min[p]), high = static_cast<float>(options.max[p]);
    if (!(high > low)) throw UsageError("level: max must be above min");
    call.image->SetLevel(p, low, high);
  }
  call.image->SetOwnLevel(true);
}

enum class Method { Normal, Mean, Median, Histogram };

struct AutoLevelOptions {
  Method method = Method::Normal;
  std::optional<double> low, high;
  bool separate = false;
  int mode = 0;
};

/// What suits a sky with stars.
std::pair<double, double> DefaultsOf(Method method) {
  switch (method) {
    case Method::Normal:
      return {0.001, 0.999};
    case Method::Histogram:
      return {0.4, 2};
    default:
      return {1, 4};
  }
}

void CheckHasRange(CVelImage& image) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto [min, max] = image.GetMinMax(p);
    if (!std::isfinite(min) || !std::isfinite(max)) {
      throw UsageError(
          "auto-level: the image has infinite pixels, or none that is a number: no levels fit it");
    }
    if (!(min < max)) {
      throw UsageError(fmt::format("auto-level: all pixels of plane {} are {:g}: no levels fit it", p, min));
    }
  }
}

void AutoLevel(Call& call, const AutoLevelOptions& options) {
  const auto [lowest, highest] = DefaultsOf(options.method);
  const double low = options.low.value_or(lowest), high = options.high.value_or(highest);
  if (options.method == Method::Histogram && low + high == 0) {
    throw UsageError("auto-level: low + high must not be 0 for the method histogram");
  }
  CheckHasRange(*call.image);
  call.InPlace<CImgAutoLevel>([&](CImgAutoLevel& levels) {
    switch (options.method) {
      case Method::Normal:
        levels.DoByNormal(low, high, options.separate, call.rect);
        break;
      case Method::Mean:
        levels.DoByMean(low, high, options.separate, call.rect);
        break;
      case Method::Median:
        levels.DoByMedian(low, high, options.separate, call.rect);
        break;
      case Method::Histogram:
        levels.DoByHistogram(low, high, options.separate, options.mode, call.rect);
    }
  });
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const double black = call.image->GetLevelMin(p), white = call.image->GetLevelMax(p);
    if (!(black < white)) {
      throw UsageError(
          fmt::format("auto-level: black would be {:g} and white {:g}; take another method, "
                      "or other values of low and high",
                      black, white));
    }
  }
  call.image->SetOwnLevel(true);
}

struct HAlphaLevelOptions {
  double factor = 1;
};

void HAlphaLevel(Call& call, const HAlphaLevelOptions& options) {
  CImgToneCurve levels;
  levels.Swap(call.image.get());
  levels.DoHAlphaLevel(options.factor, &levels);
  levels.Swap(call.image.get());
  // The negation refuses NaN too.
  if (!(call.image->GetLevelMax(0) > call.image->GetLevelMin(0))) {
    throw UsageError("h-alpha-level: white would not be above black; give a larger factor, or use level");
  }
  call.image->SetOwnLevel(true);
}

}  // namespace

std::vector<Operation> LevelsOperations() {
  return {
      Describe<AutoLevelOptions>(
          "auto-level", "sets black and white by the image's own pixels; no pixel changes",
          "Makes a stack visible: the sky comes near black and the stars near white. What the levels hide is "
          "kept. It needs noise and some light; of a constant frame it makes nothing.")
          .Chooses("method", &AutoLevelOptions::method,
                   {{"normal", Method::Normal},
                    {"mean", Method::Mean},
                    {"median", Method::Median},
                    {"histogram", Method::Histogram}},
                   "shares of a histogram; mean or median with deviations; or the histogram's peak")
          .Takes("low", &AutoLevelOptions::low,
                 {"normal: share of pixels below black, 0.001, in a histogram of 5000 bins from the darkest "
                  "to the brightest pixel, where each bin counts one pixel more: few pixels, or some far "
                  "from the others, move it; else deviations below the middle, 1, and 0.4 for histogram",
                  "", -1e6, 1e6})
          .Takes("high", &AutoLevelOptions::high,
                 {"normal: share of pixels below white, 0.999, in that histogram; else deviations "
                  "above the middle, 4, and 2 for histogram",
                  "", -1e6, 1e6})
          .Takes("separate", &AutoLevelOptions::separate,
                 {"1: each plane by itself; 0: all planes move together by brightness"})
          .Takes("mode", &AutoLevelOptions::mode,
                 {"histogram: 0 shifts planes to one peak, 1 keeps one black, 2 shifts levels", "", 0, 2})
          .OnRect()
          .StoresAgree(1e-2)  // of the levels: the stores count in bins of their own
          .Example("method=median low=2 high=12")
          .Runs(AutoLevel),
      Describe<HAlphaLevelOptions>(
          "h-alpha-level",
          "sets black to the smallest pixel and white to a multiple of the largest; no pixel changes",
          "Goes before h-alpha on pictures of the sun: a factor above 1 leaves room for what the curve "
          "lifts.")
          .Takes("factor", &HAlphaLevelOptions::factor, {"the multiple", "", 0, 1e6})
          .Example("factor=1.2")
          .Runs(HAlphaLevel),
      Describe<LevelOptions>(
          "level", "sets black and white; no pixel changes",
          "States what is shown as black and white, for pictures and for operations on the "
          "0-255 scale. FITS files keep it as KORLMIN and KORLMAX.")
          .Takes("min", &LevelOptions::min, {"shown as black", "raw", -1e30, 1e30})
          .Required()
          .Takes("max", &LevelOptions::max, {"shown as white", "raw", -1e30, 1e30})
          .Required()
          .Example("min=150,100,200 max=800,900,1000")
          .Runs(Level),
  };
}

}  // namespace korimg::session
