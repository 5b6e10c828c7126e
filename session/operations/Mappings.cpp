// Mappings of levels by a rule.
#include <algorithm>

#include "korimg/levels/CImgCorrectCurve.h"
#include "korimg/levels/CImgHstEql.h"
#include "korimg/levels/CImgReduceTone.h"
#include "korimg/levels/CImgWindowing.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

struct EqualizeOptions {};

void Equalize(Call& call, const EqualizeOptions&) {
  call.Replace<CImgHstEql>([&](CImgHstEql& target) {
    if (!target.Do(call.image.get())) return 0;
    // Black and white are the ends of the ranks: at other levels they would show nothing.
    for (int p = 0; p < target.GetPlanes(); ++p) {
      target.SetLevel(p, call.image->GetLevelMin(p), call.image->GetLevelMax(p));
    }
    return 1;
  });
}

struct PosterizeOptions {
  int tones = 16;
};

void Posterize(Call& call, const PosterizeOptions& options) {
  call.Replace<CImgReduceTone>(
      [&](CImgReduceTone& target) { target.Do(options.tones, call.image.get(), call.rect, kShow); });
}

struct CorrectCurveOptions {
  double power = 1.5, low = 0, high = 255;
};

void CorrectCurve(Call& call, const CorrectCurveOptions& options) {
  if (options.low > options.high) throw UsageError("correct-curve: low is above high; exchange them");
  call.Replace<CImgCorrectCurve>([&](CImgCorrectCurve& target) {
    target.Do(options.power, options.low, options.high, call.image.get(), call.rect, kShow);
  });
}

struct TaperOptions {
  std::optional<double> radius;
};

void Taper(Call& call, const TaperOptions& options) {
  constexpr int kRaisedCosine = 0;
  const double radius =
      options.radius.value_or(std::min(call.image->GetWidth(), call.image->GetHeight()) / 2.0);
  call.Replace<CImgWindowing>(
      [&](CImgWindowing& target) { return target.Do(kRaisedCosine, radius, call.image.get(), kShow); });
}

}  // namespace

std::vector<Operation> MappingsOperations() {
  return {
      Describe<CorrectCurveOptions>(
          "correct-curve", "bends the range between two levels and keeps both ends where they are",
          "Lifts faint nebulae by a power above 1, or sinks a bright sky by one below 1, without moving "
          "black "
          "or white. Pixels beyond low and high stay. Measure before, not after: brightness is no longer "
          "proportional to light.")
          .Takes("power", &CorrectCurveOptions::power,
                 {"above 1 lifts, below 1 lowers, 1 changes nothing", "", 0.001, 1000})
          .Takes("low", &CorrectCurveOptions::low, {"where the curve begins", "0-255", -1e6, 1e6})
          .Takes("high", &CorrectCurveOptions::high, {"where it ends", "0-255", -1e6, 1e6})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("power=1.6 low=10 high=200")
          .KeepsSource()
          .Runs(CorrectCurve),
      Describe<EqualizeOptions>(
          "equalize", "makes each pixel its rank in its plane: all tones come equally often",
          "Shows everything that a frame holds at once, however faint: dust, gradients, reflections, "
          "satellite "
          "trails. For inspection, not for pictures: noise comes out as strongly as nebulae, and brightness "
          "says nothing of light any more.")
          .Header(HeaderEffect::DropsCounts)
          .Example("")
          .KeepsSource()
          .Runs(Equalize),
      Describe<PosterizeOptions>(
          "posterize", "reduces tones to a few steps between black and white",
          "Shows gradients and the shape of faint halos as bands of one tone, like the "
          "lines of a map. Set the levels to the range of interest first. It throws "
          "tones away: for looking, not for what comes after.")
          .Takes("tones", &PosterizeOptions::tones, {"steps", "", 1, 256})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("tones=6")
          .KeepsSource()
          .Runs(Posterize),
      Describe<TaperOptions>("taper", "fades an image out towards its edges by a raised cosine",
                             "Prepares a frame for a Fourier transform of your own, whose result would "
                             "otherwise be full of the edges' crosses. Registration does what it needs by "
                             "itself. Raw values are multiplied, so take a pedestal off before.")
          .Takes(
              "radius", &TaperOptions::radius,
              {"from the middle to where the image is 0; by default half the smaller side", "pixels", 0, 1e6})
          .Header(HeaderEffect::DropsCounts)
          .Example("radius=60")
          .KeepsSource()
          .Runs(Taper),
  };
}

}  // namespace korimg::session
