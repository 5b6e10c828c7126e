// Separable filters of planes.
#include "Blur.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

Definition apply_filter(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> radius("nR");
  Blur blur("blur", input, weight, radius);
  Func output("output");
  output(x, y) = blur(x, y);
  blur.slide(blur.tiles(output, target));
  return {{input, weight, radius}, {output}};
}

Definition apply_filter_with_threshold(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> radius("nR");
  Band band;
  Blur blur("blur", input, weight, radius);
  Func output("output");
  output(x, y) = band.blend(input(x, y), blur(x, y));
  blur.slide(blur.tiles(output, target));
  return {{input, weight, radius, band.dark, band.dark_min, band.highlight, band.highlight_max}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"apply_filter_float", apply_filter, true},
      {"apply_filter_with_threshold_float", apply_filter_with_threshold, true},
  };
}
