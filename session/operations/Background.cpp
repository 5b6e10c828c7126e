// Operations that shape the background.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/calibration/CImgFlat.h"
#include "korimg/calibration/CImgGradient.h"
#include "korimg/calibration/CImgSelfFlat.h"
#include "korimg/calibration/CImgSplineInterpolation.h"
#include "korimg/composite/stacking/FrameLevels.h"

#include "session/operations/Describe.h"
#include "session/operations/Gradient.h"

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

enum class Shape { Ramp, Plane, Bowl, Paraboloid };
enum class Taking : int { Subtract, Divide };  // the library's numbers

struct FlattenOptions {
  Shape model = Shape::Ramp;
  Taking by = Taking::Divide;
  PerPlane slope = 0;
  double angle = 0;
  std::optional<double> x1, y1, x2, y2, x, y;
  std::optional<PerPlane> level;
  PerPlane bottom = 0;
  PerPlane a = 0, b = 0, square = 0, constant = 0;
};

/// Two points that point into a direction and have the ramp's origin, packed into one number, as their
/// middle.
std::pair<CPoint, CPoint> RampPoints(double dx, double dy, double x, double y) {
  constexpr double kLength = 1e6, kFarthest = 32000;
  if (!(std::abs(x) <= kFarthest && std::abs(y) <= kFarthest)) {
    throw UsageError("flatten: a ramp begins within 32000 pixels; use model=plane");
  }
  const double length = std::hypot(dx, dy);
  if (length == 0) throw UsageError("flatten: x1,y1 and x2,y2 are one point, and no direction");
  const int middle = static_cast<int>(std::lround(y)) * 65536 + static_cast<int>(std::lround(x));
  const int half = static_cast<int>(std::lround(kLength * dy / length));
  return {CPoint(0, middle - half),
          CPoint(static_cast<int>(std::lround(2 * kLength * dx / length)), middle + half)};
}

/// Refuses to divide by a sky that is not above 0, as it is where the sky was subtracted.
void CheckSkyToDivideBy(const Call& call, const FrameLevels& sky) {
  for (int p = 0; p < std::min(call.image->GetPlanes(), 3); ++p) {
    if (sky.level[p] > 0) continue;
    throw UsageError(
        fmt::format("{}: the sky of plane {} is {:g}, which cannot be divided by; run it before the "
                    "sky is subtracted",
                    call.Name(), p, sky.level[p]));
  }
}

/// Refuses numbers of a model that change nothing, and those of another model.
void CheckModel(const FlattenOptions& o) {
  const auto isGiven = [](const PerPlane& numbers) {
    return std::any_of(numbers.values.begin(), numbers.values.end(), [](double v) { return v != 0; });
  };
  const bool isPlane = o.model == Shape::Plane, isParaboloid = o.model == Shape::Paraboloid;
  const struct {
    const char* name;
    const PerPlane& numbers;
    bool belongs;
  } all[] = {{"slope", o.slope, !isPlane && !isParaboloid},
             {"a", o.a, isPlane || isParaboloid},
             {"b", o.b, isPlane || isParaboloid},
             {"square", o.square, isParaboloid},
             {"constant", o.constant, isParaboloid}};
  bool changes = false;
  for (const auto& [name, numbers, belongs] : all) {
    if (isGiven(numbers) && !belongs) {
      throw UsageError(
          fmt::format("flatten: {} is no number of this model; `korimg ops flatten` tells which "
                      "are",
                      name));
    }
    changes |= isGiven(numbers);
  }
  if (!changes) {
    throw UsageError(fmt::format("flatten: nothing would change; give {}", isPlane        ? "a and b"
                                                                           : isParaboloid ? "square, a and b"
                                                                                          : "slope"));
  }
}

void Flatten(Call& call, const FlattenOptions& o) {
  CheckModel(o);
  CVelImage& image = *call.image;
  image.CalcMinMax();
  const FrameLevels sky = MeasureLevels(image);
  if (o.by == Taking::Divide && !o.level) CheckSkyToDivideBy(call, sky);
  auto slope = o.slope.For(3), bottom = o.bottom.For(3), a = o.a.For(3), b = o.b.For(3),
       square = o.square.For(3), constant = o.constant.For(3),
       level = o.level ? o.level->For(3) : std::vector<double>(sky.level, sky.level + 3);
  double x = o.x.value_or(image.GetWidth() / 2), y = o.y.value_or(image.GetHeight() / 2);
  double dx = std::cos(o.angle * M_PI / 180), dy = std::sin(o.angle * M_PI / 180);
  const int corners = o.x1.has_value() + o.y1.has_value() + o.x2.has_value() + o.y2.has_value();
  if (corners != 0 && corners != 4) throw UsageError("flatten: x1, y1, x2 and y2 belong together");
  if (corners == 4) {
    dx = *o.x2 - *o.x1, dy = *o.y2 - *o.y1;
    x = o.x.value_or((*o.x1 + *o.x2) / 2), y = o.y.value_or((*o.y1 + *o.y2) / 2);
  }
  CPoint from[3], to[3], centre[3];
  if (o.model == Shape::Ramp) {
    const auto [first, second] = RampPoints(dx, dy, x, y);
    std::fill_n(from, 3, first);
    std::fill_n(to, 3, second);
  }
  std::fill_n(centre, 3, CPoint(static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y))));
  const int mode = static_cast<int>(o.by);
  call.Replace<CImgFlat>([&](CImgFlat& target) {
    switch (o.model) {
      case Shape::Ramp:
        return target.DoFlat(&image, from, to, slope.data(), level.data(), bottom.data(), mode, call.rect,
                             kShow);
      case Shape::Plane:
        return target.DoFlatPoint(&image, a.data(), b.data(), level.data(), bottom.data(), mode, call.rect,
                                  kShow);
      case Shape::Bowl:
        return target.DoParabolic(&image, centre, slope.data(), level.data(), bottom.data(), mode, call.rect,
                                  kShow);
      case Shape::Paraboloid:
        return target.DoParabolicPoint(&image, square.data(), a.data(), b.data(), constant.data(),
                                       bottom.data(), mode, call.rect, kShow);
    }
  });
}

struct SelfFlatOptions {
  double radius = 0.1, cap = 1;
};

void SelfFlat(Call& call, const SelfFlatOptions& o) {
  constexpr int kLeast = 10;
  if (std::min(call.image->GetWidth(), call.image->GetHeight()) < kLeast) {
    throw UsageError("self-flat: the image is smaller than a cell of 10 x 10 pixels");
  }
  CheckSkyToDivideBy(call, MeasureLevels(*call.image));
  call.Replace<CImgSelfFlat>(
      [&](CImgSelfFlat& target) { target.Do(o.radius, o.cap, call.image.get(), nullptr, kShow); });
}

using GradientOptions = CImgGradient::Options;

void Gradient(Call& call, const GradientOptions& options) {
  const GradientOptions usual;
  if (options.surface == CImgGradient::ThinPlate && options.degree != usual.degree) {
    throw UsageError("gradient: the degree is of a polynomial: add surface=polynomial, or leave it out");
  }
  if (options.surface == CImgGradient::Polynomial && options.smoothing != usual.smoothing) {
    throw UsageError("gradient: smoothing is of the plate; leave it out, or surface=polynomial");
  }
  call.Replace<CImgGradient>([&](CImgGradient& target) {
    CImgGradient::Findings findings;
    if (!target.Do(options, call.image.get(), kShow, &findings)) {
      throw UsageError(
          options.result == CImgGradient::Divided && !findings.boxes.empty()
              ? "gradient: the surface is not above 0 everywhere, which cannot be divided by; take "
                "result=subtracted"
              : "gradient: there are too few boxes of sky for the surface; give more boxes of a "
                "smaller size, or a larger tolerance");
    }
    call.job.Explain(fmt::format("gradient: {} of {} boxes are sky", CImgGradient::CountSky(findings.boxes),
                                 findings.boxes.size()));
    for (int p = 0; p < target.GetPlanes(); ++p) {
      call.job.Explain(fmt::format("gradient: plane {}: {:g} to {:g}, median {:g}", p, findings.low[p],
                                   findings.high[p], findings.middle[p]));
    }
    return 1;
  });
}

Describe<GradientOptions> DescribeGradient() {
  return Describe<GradientOptions>(
             "gradient", "finds the gradient of moonlight or city light by itself, and takes it off",
             "Lays boxes on a grid, moves each to the darkest place near it, leaves those out that hold a "
             "nebula, "
             "and fits a smooth surface to the rest, for each plane. For stacks with a slope or a glow in a "
             "corner; "
             "not for a nebula that fills the frame, of which it would take some. Look at result=model "
             "first.")
      .Chooses(
          "surface", &GradientOptions::surface,
          {{"plate", CImgGradient::ThinPlate}, {"polynomial", CImgGradient::Polynomial}},
          "plate: a polynomial of degree 1 to 3, as the sky needs it, and a thin plate that smooths what it "
          "leaves; polynomial: of the degree")
      .Takes("degree", &GradientOptions::degree, {"of the polynomial", "", 1, 4})
      .Takes("smoothing", &GradientOptions::smoothing,
             {"of the plate: 0 goes through all boxes, 1 is nearly the polynomial", "", 0, 1})
      .Takes("boxes", &GradientOptions::boxes, {"on the longer side", "", 4, 40})
      .Takes("size", &GradientOptions::size,
             {"of a box; 0: a third of their distance, from 8 to 64", "pixels", 0, 1000})
      .Takes("tolerance", &GradientOptions::tolerance,
             {"a box that is brighter than the surface by so many deviations is no sky", "", 0.1, 100})
      .Chooses("result", &GradientOptions::result,
               {{"subtracted", CImgGradient::Subtracted},
                {"divided", CImgGradient::Divided},
                {"model", CImgGradient::Model}},
               "the image less the surface, for light of the sky; the image divided by it, for a vignette; "
               "the surface itself")
      .Header(HeaderEffect::DropsCounts)
      .Example("boxes=8 size=8");
}

}  // namespace

CImgGradient::Options GradientOptionsOf(const Step& step) {
  return DescribeGradient().Read(step.Values());
}

std::vector<Operation> BackgroundOperations() {
  return {
      DescribeGradient().KeepsSource().Runs(Gradient),
      Describe<FlattenOptions>(
          "flatten", "takes a ramp or a bowl off the background, by numbers that you know",
          "For a slope of moonlight or city light (subtract it) or a vignette without a flat (divide by it). "
          "A ramp and a bowl are 0 at a point, by default the middle, from where the slope counts; what is "
          "taken off keeps the level there. Directions are an angle or two points: the ramp's point is x and "
          "y, or the middle between the two.")
          .Chooses(
              "model", &FlattenOptions::model,
              {{"ramp", Shape::Ramp},
               {"plane", Shape::Plane},
               {"bowl", Shape::Bowl},
               {"paraboloid", Shape::Paraboloid}},
              "ramp: slope x distance along a direction; bowl: slope x the square of the distance; plane: a "
              "x + b y; paraboloid: square (x^2 + y^2) + a x + b y + constant")
          .Chooses("by", &FlattenOptions::by, {{"divide", Taking::Divide}, {"subtract", Taking::Subtract}},
                   "divide by the model and its level, or subtract it")
          .Takes("slope", &FlattenOptions::slope, {"of ramp and bowl, for a pixel", "raw", -1e30, 1e30})
          .Takes("angle", &FlattenOptions::angle,
                 {"where a ramp rises to: 0 right, 90 down", "degrees", -360, 360})
          .Takes("x1", &FlattenOptions::x1, {"a ramp rises from here", "pixels", -32000, 32000})
          .Takes("y1", &FlattenOptions::y1, {"the row of that", "pixels", -32000, 32000})
          .Takes("x2", &FlattenOptions::x2, {"to here, in place of the angle", "pixels", -32000, 32000})
          .Takes("y2", &FlattenOptions::y2, {"the row of that", "pixels", -32000, 32000})
          .Takes("x", &FlattenOptions::x, {"where ramp and bowl are 0; the middle", "pixels", -1e6, 1e6})
          .Takes("y", &FlattenOptions::y, {"the row of that", "pixels", -1e6, 1e6})
          .Takes("level", &FlattenOptions::level,
                 {"what the model stands on, to divide; by default the median", "raw", -1e30, 1e30})
          .Takes("bottom", &FlattenOptions::bottom,
                 {"values down to here, or to the smallest pixel, stay clear of 0 in the divisor", "raw",
                  -1e30, 1e30})
          .Takes("a", &FlattenOptions::a, {"of plane and paraboloid, for a column", "raw", -1e30, 1e30})
          .Takes("b", &FlattenOptions::b, {"for a row", "raw", -1e30, 1e30})
          .Takes("square", &FlattenOptions::square, {"of the paraboloid", "raw", -1e30, 1e30})
          .Takes("constant", &FlattenOptions::constant, {"of the paraboloid", "raw", -1e30, 1e30})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("by=subtract slope=0.5 angle=30")
          .KeepsSource()
          .Runs(Flatten),
      Describe<SelfFlatOptions>(
          "self-flat", "divides by a flat that is made of the image itself",
          "Takes a vignette off where there is no flat, from fields of stars on an "
          "even sky: cells of 10 x 10 "
          "pixels without their stars are the flat, of the mean of the first plane for all "
          "planes, which leaves a grey sky. Nebulae and galaxies larger than "
          "the filter go too, unless "
          "the cap is below them.")
          .Takes(
              "radius", &SelfFlatOptions::radius,
              {"of the filter that eats stars: 1 is 100 pixels; the smaller, the truer to a steep vignette",
               "", 0.1, 1})
          .Takes("cap", &SelfFlatOptions::cap,
                 {"the flat is cut above this share of black to white", "", 0, 1e6})
          .Header(HeaderEffect::DropsCounts)
          .StoresAgree({})
          .Example("radius=0.2")
          .KeepsSource()
          .Runs(SelfFlat),
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
          .KeepsSource()
          .Runs(Spline),
  };
}

}  // namespace korimg::session
