// Operations with calibration frames.
#include <cmath>

#include "korimg/calibration/CImgDark.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

struct DarkOptions {
  ImageValue file;
};

void Dark(Call& call, const DarkOptions& options) {
  call.image->DarkClbrtn(call.Load(options.file).get(), kShow);
}

struct FlatOptions {
  ImageValue file;
  double gamma = 0, offset = 0;
};

void Flat(Call& call, const FlatOptions& options) {
  const auto flat = call.Load(options.file);
  const bool curved = options.gamma > 0;
  if (!curved && options.offset != 0) {
    throw UsageError("flat: offset goes with a gamma; give gamma=1 for a flat as it is");
  }
  for (int p = 0; p < flat->GetPlanes(); ++p) {
    if (!std::isfinite(flat->GetAvrGrayRaw(p))) {
      throw UsageError("flat: the flat has blank pixels; dark-flat passes them over");
    }
    const auto [min, max] = flat->GetMinMax(p);
    if (curved && !(min < max)) {
      throw UsageError("flat: a plane of the flat is constant, and has no curve; take another flat");
    }
  }
  if (curved) {
    call.image->FlatClbrtn(flat.get(), static_cast<float>(options.offset), options.gamma, kShow);
  } else {
    call.image->FlatClbrtn(flat.get(), static_cast<CRect*>(nullptr), kShow);
  }
}

struct DarkFlatOptions {
  std::optional<ImageValue> dark, flat;
  double gamma = 0, offset = 0;
};

void DarkFlat(Call& call, const DarkFlatOptions& options) {
  if (!options.dark && !options.flat) throw UsageError("dark-flat: give a dark, a flat or both");
  const auto dark = options.dark ? call.Load(*options.dark) : nullptr;
  const auto flat = options.flat ? call.Load(*options.flat) : nullptr;
  float minima[3] = {}, maxima[3] = {}, averages[3] = {};
  for (int p = 0; flat && p < flat->GetPlanes(); ++p) {
    const auto [min, max, average] = flat->GetMinMaxAvr(p);
    minima[p] = static_cast<float>(min);
    maxima[p] = static_cast<float>(max);
    averages[p] = static_cast<float>(average);  // blank pixels passed over, lest one of them blanks the image
    // Before anything is changed.
    if (min == max) throw UsageError("dark-flat: a plane of the flat is constant; take another flat");
  }
  const int done = call.image->DarkFlat(call.image.get(), dark.get(), flat.get(), minima, maxima, averages,
                                        static_cast<float>(options.offset), options.gamma, call.rect, kShow);
  if (done < 0) throw UsageError("dark-flat: a plane of the flat is constant; take another flat");
}

enum class Interpolation { Proportion, Power, Score };

struct SynthesizeDarkOptions {
  ImageValue file;
  Interpolation method = Interpolation::Proportion;
  double a1 = 0, a2 = 1, a = 0.5, b1 = 0, b2 = 1, b = 0, step = 1, score1 = 0, score2 = 1, score = 0.5;
};

void SynthesizeDark(Call& call, const SynthesizeDarkOptions& o) {
  const auto second = call.Load(o.file);
  if (second->GetPlanes() < call.image->GetPlanes()) {
    throw UsageError("synthesize-dark: the second dark has fewer planes than the first");
  }
  const bool proportion = o.method == Interpolation::Proportion, power = o.method == Interpolation::Power;
  if (((proportion || power) && o.a1 == o.a2) || (proportion && o.b1 == o.b2) || (power && o.step == 0)) {
    throw UsageError("synthesize-dark: a1 and a2, and b1 and b2, must differ, and step must not be 0");
  }
  if (o.method == Interpolation::Score && o.score1 == o.score2) {
    throw UsageError("synthesize-dark: score1 and score2 must differ");
  }
  call.InPlace<CImgDark>([&](CImgDark& dark) {
    if (proportion) {
      dark.DoInterpolateByProportion(second.get(), o.a1, o.a2, o.a, o.b1, o.b2, o.b, kShow);
    } else if (power) {
      dark.DoInterpolateByPower(second.get(), o.a1, o.a2, o.a, o.b1, o.b2, o.b, o.step, kShow);
    } else {
      dark.DoInterpolateByScore(second.get(), o.score, o.score1, o.score2, kShow);
    }
  });
}

}  // namespace

std::vector<Operation> CalibrationOperations() {
  using S = SynthesizeDarkOptions;
  return {
      Describe<DarkOptions>("dark", "subtracts a dark frame, limited at 0",
                            "Takes offset and dark current off a light of the same exposure and temperature. "
                            "For whole sessions use calibrate, which makes the masters and keeps noise below "
                            "0.")
          .Takes("file", &DarkOptions::file, {"the dark frame"})
          .Example("file=dark.fits")
          .Runs(Dark),
      Describe<DarkFlatOptions>("dark-flat", "subtracts a dark, limited at 0, and divides by a flat",
                                "Calibrates one light in one pass. Blank pixels of the flat leave theirs as "
                                "they are. The flat must be free of its own offset.")
          .Takes("dark", &DarkFlatOptions::dark, {"the dark frame"})
          .Takes("flat", &DarkFlatOptions::flat, {"the flat frame"})
          .Takes("gamma", &DarkFlatOptions::gamma, {"curve of the flat; 0 takes it as it is", "", 0, 100})
          .Takes("offset", &DarkFlatOptions::offset,
                 {"share of the flat's mean that is added to the divisor", "", -1, 100})
          .OnRect()
          .Example("dark=dark.fits flat=flat.fits")
          .Runs(DarkFlat),
      Describe<FlatOptions>(
          "flat", "divides by a flat frame and multiplies by its mean",
          "Takes vignetting and dust off. A gamma bends a flat whose vignetting is too strong "
          "or too weak for the light; with a flat of the same night leave it alone.")
          .Takes("file", &FlatOptions::file, {"the flat frame"})
          .Takes("gamma", &FlatOptions::gamma, {"curve of the flat; 0 takes it as it is", "", 0, 100})
          .Takes("offset", &FlatOptions::offset,
                 {"with a gamma: share of the flat's mean that is added to the divisor", "", -1, 100})
          .StoresAgree(std::nullopt)
          .Example("file=flat.fits gamma=1.1")
          .Runs(Flat),
      Describe<S>("synthesize-dark", "makes a dark for other conditions out of this one and a second",
                  "For cameras without cooling: two darks taken at different temperatures or exposures give "
                  "one for what lies between. Beyond them it guesses.")
          .Takes("file", &S::file, {"the second dark"})
          .Chooses("method", &S::method,
                   {{"proportion", Interpolation::Proportion},
                    {"power", Interpolation::Power},
                    {"score", Interpolation::Score}},
                   "linear in both quantities; powers of 2 in b; by a score")
          .Takes("a1", &S::a1, {"first quantity (such as temperature) of this dark"})
          .Takes("a2", &S::a2, {"of the second"})
          .Takes("a", &S::a, {"of the dark wanted"})
          .Takes("b1", &S::b1, {"second quantity (such as exposure) of this dark"})
          .Takes("b2", &S::b2, {"of the second"})
          .Takes("b", &S::b, {"of the dark wanted"})
          .Takes("step", &S::step, {"power: what doubles the signal"})
          .Takes("score1", &S::score1, {"score of this dark"})
          .Takes("score2", &S::score2, {"of the second"})
          .Takes("score", &S::score, {"of the dark wanted"})
          .Example("file=other.fits a1=-10 a2=-20 a=-14 b1=120 b2=300 b=180")
          .Runs(SynthesizeDark),
  };
}

}  // namespace korimg::session
