// Tone curves.
#include <algorithm>
#include <string>

#include "korimg/levels/CImgToneCurve.h"
#include "korimg/levels/CSpline.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

enum class Between { Spline, Line };

struct CurveOptions {
  std::vector<CurvePoint> points = {{0, 0}, {1, 1}};
  std::optional<std::vector<CurvePoint>> red, green, blue;
  Between kind = Between::Spline;
  int entries = 65536;
};

/// The curve through points from x = 0 to x = 1, in so many steps, limited to 0 to 1: splines may overshoot.
std::vector<float> Sample(const std::vector<CurvePoint>& given, const CurveOptions& options) {
  CSpline::Points points;
  for (const auto& [x, y] : given) {
    points.Add({x, y, options.kind == Between::Line ? 0U : 1U});
  }
  CSpline::CalcSpline(&points);
  std::vector<float> table(options.entries);
  for (int i = 0; i + 1 < options.entries; ++i) {
    const double y = CSpline::GetValue(i / (options.entries - 1.0), &points, nullptr);
    table[i] = static_cast<float>(std::clamp(y, 0.0, 1.0));
  }
  table.back() = static_cast<float>(given.back().y);  // the last point itself is no part of the curve
  return table;
}

void Curve(Call& call, const CurveOptions& options) {
  const std::vector<CurvePoint> straight = {{0, 0}, {1, 1}};
  std::vector<std::vector<float>> tables = {Sample(options.points, options)};
  for (const auto& [name, points] :
       {std::pair("red", &options.red), {"green", &options.green}, {"blue", &options.blue}}) {
    if (*points && !call.image->IsColor()) {
      throw UsageError(std::string("curve: the image has one plane; give points= in place of ") + name + "=");
    }
    tables.push_back(Sample(points->value_or(straight), options));
  }
  std::vector<float*> curves;
  for (std::vector<float>& table : tables) {
    curves.push_back(table.data());
  }
  call.Replace<CImgToneCurve>([&](CImgToneCurve& target) {
    target.Do(curves.data(), options.entries, call.image.get(), call.rect, kShow, 0);
  });
}

struct HAlphaOptions {
  double knee = 0.2, gain = 0.8;
};

void HAlpha(Call& call, const HAlphaOptions& options) {
  call.Replace<CImgToneCurve>([&](CImgToneCurve& target) {
    target.DoHAlpha(options.knee, options.gain, call.image.get(), call.rect, kShow);
  });
}

}  // namespace

std::vector<Operation> CurvesOperations() {
  return {
      Describe<CurveOptions>(
          "curve", "a tone curve on the range from black to white, sampled into a table",
          "Lifts what is faint and keeps what is bright, the main step from a linear stack "
          "to a picture. Set the levels first: tones beyond them are continued by the "
          "curve's ends. Measure before, not after: brightness is no longer proportional to "
          "light.")
          .Takes("points", &CurveOptions::points,
                 {"x:y,x:y... in any order: x from 0 (black) to 1 (white), y from 0 to 1; for all planes",
                  "0-1"})
          .Takes("red", &CurveOptions::red,
                 {"the same for the first plane of a colour image, before `points`", "0-1"})
          .Takes("green", &CurveOptions::green, {"for the second", "0-1"})
          .Takes("blue", &CurveOptions::blue, {"for the third", "0-1"})
          .Chooses("kind", &CurveOptions::kind, {{"spline", Between::Spline}, {"line", Between::Line}},
                   "between points: a natural cubic spline, limited to 0 to 1 where it overshoots; straight "
                   "lines")
          .Takes("entries", &CurveOptions::entries, {"of the table: so many tones come out", "", 2, 1 << 20})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .StoresAgree(1e-3)  // a pixel at the edge of an entry may fall to either side
          .Example("points=0:0,0.2:0.45,1:1")
          .KeepsSource()
          .Runs(Curve),
      Describe<HAlphaOptions>("h-alpha",
                              "a curve for the sun in H-alpha: lifts what is faint beside the disc",
                              "Shows prominences and the surface of the sun in one picture. It is made for "
                              "single narrow-band frames of the sun; nebulae want a curve.")
          .Takes("knee", &HAlphaOptions::knee,
                 {"below this share of the range, tones run along a line from 0 to the gain", "0-1", 0, 1})
          .Takes("gain", &HAlphaOptions::gain, {"where that line ends", "0-1", 0, 1000})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .StoresAgree(std::nullopt)
          .Example("knee=0.15 gain=0.6")
          .KeepsSource()
          .Runs(HAlpha),
  };
}

}  // namespace korimg::session
