// Digital development: a plane divided by its blur.
#include "Blur.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

Definition digital_developing_simple(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> radius("nR");
  Param<double> min("fMin"), range("fRange"), strength("fStrength"), added("fA"), factor("fMul");
  Blur blur("blur", input, weight, radius);
  // Blurs go to the 0 to 255 scale, there and back and there again: black and k are rounded.
  Expr black = cast<float>(min), k = cast<float>(F64(255) / range);
  Expr again = cast<double>(k), slope = cast<float>(range / F64(255) * again);
  Expr offset = cast<float>((min - cast<double>(black)) * again + added);
  Expr divisor = (blur(x, y) - black) * k * slope + offset;
  Expr s = input(x, y), developed = (s - black) / divisor * cast<float>(factor) + black;
  Expr mixed = developed * cast<float>(strength) + s * cast<float>(F64(1) - strength);
  Func output("output");
  output(x, y) = select((divisor > 0.0f) || is_nan(divisor), mixed, s);
  blur.slide(blur.tiles(output, target));
  return {{input, weight, radius, min, range, strength, added, factor}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"digital_developing_simple_float", digital_developing_simple, true}};
}
