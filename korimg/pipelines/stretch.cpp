// The linear stretch that brings colour planes together.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Widens the distances to the background by K, about where the background is to lie.
Definition stretch(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<float> background("fBkgMean"), k("fK"), offset("fOffset"), bias("fBkg");
  Func output("output");
  output(x, y) = (input(x, y) - background) * k + bias + offset;
  ScheduleByStrips(output, target);
  return {{input, background, k, offset, bias}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"stretch_float", stretch}};
}
