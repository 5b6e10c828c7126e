// Blending two images by a mask.
#include "Driver.h"

using namespace Halide;

namespace {

Definition mask_add(const Target& target) {
  ImageParam a(Float(32), 2, "imageA"), b(Float(32), 2, "imageB"), mask(Float(32), 2, "mask");
  Param<float> low("fMaskLevelMin"), range("fMaskLevelRange");
  Var x("x"), y("y");
  Func output("output");
  Expr m = (mask(x, y) - low) * (1.0f / range);
  m = select(m > 0.0f, select(m < 1.0f, m, 1.0f), 0.0f);  // NaN takes nothing of A
  output(x, y) = (a(x, y) - b(x, y)) * m + b(x, y);
  ScheduleByStrips(output, target);
  return {{a, b, mask, low, range}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"mask_add_float", mask_add}};
}
