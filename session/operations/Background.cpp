// Operations that shape the background.
#include "korimg/calibration/CImgSplineInterpolation.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

enum class Between { Spline, Line };

struct SplineOptions {
  std::vector<CurvePoint> points = {{0, 0}, {1, 1}};
  std::optional<std::vector<CurvePoint>> red, green, blue;
  Between kind = Between::Spline;
};

void Spline(Call& call, const SplineOptions& options) {
  const std::vector<CurvePoint> straight = {{0, 0}, {1, 1}};
  CSpline::Points curves[4];
  const auto fill = [&](CSpline::Points& curve, const std::vector<CurvePoint>& points) {
    for (const auto& [x, y] : points) {
      curve.Add({x, y, options.kind == Between::Line ? 0U : 1U});
    }
  };
  fill(curves[0], options.points);
  int i = 0;
  for (const auto& [name, points] :
       {std::pair("red", &options.red), {"green", &options.green}, {"blue", &options.blue}}) {
    if (*points && !call.image->IsColor()) {
      throw UsageError(std::string("spline: the image has one plane; give points= in place of ") + name +
                       "=");
    }
    fill(curves[++i], points->value_or(straight));
  }
  call.Replace<CImgSplineInterpolation>([&](CImgSplineInterpolation& target) {
    target.CalcSplineParam(curves);
    return target.Do(curves, call.image.get(), call.rect, kShow);
  });
}

}  // namespace

std::vector<Operation> BackgroundOperations() {
  return {
      Describe<SplineOptions>(
          "spline", "a curve through points, computed for each pixel",
          "Like curve, but without a table: the small differences of a sky stay small differences, and tones "
          "above white stay as they are. For the background of a linear stack, plane by plane.")
          .Takes("points", &SplineOptions::points,
                 {"x:y,x:y... in any order: x from 0 (black) to 1 (white), y from 0 to 1; for all planes",
                  "0-1"})
          .Takes("red", &SplineOptions::red,
                 {"the same for the first plane of a colour image, before `points`", "0-1"})
          .Takes("green", &SplineOptions::green, {"for the second", "0-1"})
          .Takes("blue", &SplineOptions::blue, {"for the third", "0-1"})
          .Chooses("kind", &SplineOptions::kind, {{"spline", Between::Spline}, {"line", Between::Line}},
                   "between points: a natural cubic spline, limited to 0 to 1 where it overshoots; straight "
                   "lines")
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("points=0:0,0.2:0.35,1:1")
          .Runs(Spline),
  };
}

}  // namespace korimg::session
