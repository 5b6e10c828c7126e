// Windows of planes, and sums of their cells.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// output(x, y) = input(x + offset_x, y + offset_y).
Definition crop(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<int> offset_x("offset_x"), offset_y("offset_y");
  Func output("output");
  output(x, y) = input(x + offset_x, y + offset_y);
  ScheduleByStrips(output, target);
  return {{input, offset_x, offset_y}, {output}};
}

/// The sum of each cell's pixels, row by row. All cells lie inside.
Definition binning2f(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<int> bins_x("nBinsX"), bins_y("nBinsY");
  Func binned("binned"), sums("sums");
  RDom cell(0, bins_x, 0, bins_y);
  sums(x, y) = 0.0f;
  sums(x, y) += input(x * bins_x + cell.x, y * bins_y + cell.y);
  binned(x, y) = sums(x, y);

  const int lanes = target.natural_vector_size<float>();
  ScheduleByStrips(binned, target);
  sums.compute_at(binned, x).vectorize(x, lanes, TailStrategy::GuardWithIf);
  sums.update().reorder(x, cell.x, cell.y, y).vectorize(x, lanes, TailStrategy::GuardWithIf);
  // Known distances between the pixels of a vector let it be read as whole vectors; a boundary would not.
  for (const int bins : {2, 3, 4}) {
    sums.update().specialize(bins_x == bins && bins_y == bins).unroll(cell.x).unroll(cell.y);
  }
  return {{input, bins_x, bins_y}, {binned}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"crop_float", crop}, {"binning2f_float", binning2f}};
}
