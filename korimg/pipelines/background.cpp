// Curves of few segments on the scale of levels, for backgrounds.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// A row of the table is a segment: where it begins, and the coefficients of 1, d, d^2 and d^3 of the
/// distance d to there. Rows ascend; those that are not used begin at infinity. What is left of the first is
/// taken by the first, black and below it becomes black, and white and above it stays: up to the rounding of
/// floats, since the range is one of two numbers that a pixel is compared with.
Definition spline_interpolation(const Target& target) {
  constexpr int kSegments = 4;
  ImageParam input(Float(32), 2, "input"), segments(Float(64), 2, "spline_params");
  Param<double> minimum("fMin"), range("fRange");

  Expr v = input(x, y), value = cast<double>(v), scale = F64(1.0) / range;
  Expr t = (value - minimum) * scale;
  Expr start = segments(0, 0);
  std::vector<Expr> c;
  for (int i = 1; i <= 4; ++i) {
    c.push_back(segments(i, 0));
  }
  for (int row = 1; row < kSegments; ++row) {
    Expr here = t >= segments(0, row);
    start = select(here, segments(0, row), start);
    for (int i = 1; i <= 4; ++i) {
      c[i - 1] = select(here, segments(i, row), c[i - 1]);
    }
  }
  Expr d = t - start;
  Expr curve = ((d * c[3] + c[2]) * d + c[1]) * d + c[0];
  Expr limited = select(curve<F64(0.0), F64(0.0), curve> F64(1.0), F64(1.0), curve);
  Expr rounding = F64(0x1p-22) * (abs(minimum) + abs(range));
  Expr white = value - minimum - range >= -rounding;
  Expr bent = select(t <= F64(0.0), F64(0.0), limited) / scale + minimum;
  Func output("output");
  output(x, y) = select(white || is_nan(v), v, cast<float>(bent));
  ScheduleByStrips(output, target);
  return {{input, segments, minimum, range}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"spline_interpolation_4x5_float", spline_interpolation}};
}
