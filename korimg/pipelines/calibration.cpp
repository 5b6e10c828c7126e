// Dark and flat frames, in place on the plane that is calibrated.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// output(x, y) = formula(output(x, y), frame(x, y)).
Definition in_place(const Target& target, const std::string& frame_name, const std::vector<Argument>& scalars,
                    const std::function<Expr(Expr, Expr)>& formula) {
  ImageParam frame(Float(32), 2, frame_name);
  Func output("output");
  output(x, y) = undef<float>();
  output(x, y) = formula(output(x, y), frame(x, y));
  ScheduleByStrips(output, target, true);
  std::vector<Argument> arguments = {frame};
  arguments.insert(arguments.end(), scalars.begin(), scalars.end());
  return {arguments, {output}};
}

Definition dark(const Target& target) {
  return in_place(target, "dark", {}, [](Expr pixel, Expr dark) {
    Expr difference = pixel - dark;
    return select(difference < 0.0f, 0.0f, difference);  // NaN stays NaN
  });
}

Definition flat(const Target& target) {
  Param<float> average("fAverage");
  return in_place(target, "flat", {average},
                  [=](Expr pixel, Expr flat) { return select(flat > 0.0f, average * pixel / flat, pixel); });
}

Definition flat_with_gamma(const Target& target) {
  Param<float> maximum("fFlatMax"), origin("fFlatGm0"), gamma("fGamma"), offset("fOffset"),
      average("fAverage");
  return in_place(target, "flat", {maximum, origin, gamma, offset, average}, [=](Expr pixel, Expr flat) {
    Expr span = maximum - origin;
    Expr curved = fast_pow((flat - origin) / span, gamma) * span + origin;
    Expr divisor = curved + average * offset;
    return select(flat == flat && divisor > 0.0f, average * pixel / divisor,
                  pixel);  // a NaN flat leaves the pixel
  });
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"dark_float", dark},
      {"flat_float", flat},
      {"flat_with_gamma_float", flat_with_gamma},
  };
}
