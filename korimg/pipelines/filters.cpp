// Separable filters of planes.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), column("column"), strip("strip"), u("u"), v("v"), block("block");

/// input filtered by weight, 2 radius + 1 numbers, along x and then along y; planes mirror about their edge
/// rows and columns.
struct Blur {
  Func mirrored{"mirrored"}, sum_x{"sum_x"}, along_x{"along_x"}, sum_y{"sum_y"};
  Expr radius;

  Blur(const ImageParam& input, const ImageParam& weight, Expr r) : radius(r) {
    RDom k(0, 2 * radius + 1, "k");
    mirrored(x, y) = BoundaryConditions::mirror_interior(input)(x, y);
    sum_x(x, y) = 0.0f;
    sum_x(x, y) += weight(k) * mirrored(x - radius + k, y);
    along_x(x, y) = sum_x(x, y);
    sum_y(x, y) = 0.0f;
    sum_y(x, y) += weight(k) * along_x(x, y - radius + k);
  }
  Expr operator()(Expr at_x, Expr at_y) const { return sum_y(at_x, at_y); }

  /// Tiles of the output in parallel; in each, rows slide down: one new row along x for each row of the
  /// output. The rows in use stay in the second-level cache, and sums in registers.
  void schedule(Func output, const Target& target) {
    const int lanes = target.natural_vector_size<float>(), wide = 8 * lanes;
    Expr rows = 2 * radius + 1;
    Expr width = EvenPart(output, 0, max(100000 / rows, 512), wide);
    Expr height = EvenPart(output, 1, max(64, 4 * rows), 1);
    output.tile(x, y, column, strip, u, v, width, height, TailStrategy::GuardWithIf)
        .fuse(column, strip, column)
        .parallel(column)
        .split(u, block, u, wide, TailStrategy::GuardWithIf)
        .vectorize(u, lanes, TailStrategy::GuardWithIf)
        .unroll(u);
    const auto in_registers = [&](Func sum, Func f, Var at) {
      sum.compute_at(f, at).bound_extent(x, wide).vectorize(x, lanes).unroll(x);
      sum.update().reorder(x, sum.rvars(0)[0], y).vectorize(x, lanes).unroll(x);
    };
    in_registers(sum_y, output, block);
    along_x.store_at(output, column)
        .compute_at(output, v)
        .split(x, block, u, wide, TailStrategy::RoundUp)
        .vectorize(u, lanes)
        .unroll(u);
    in_registers(sum_x, along_x, block);
    mirrored.compute_at(along_x, y).vectorize(x, lanes, TailStrategy::RoundUp);
  }
};

Definition apply_filter(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> radius("nR");
  Blur blur(input, weight, radius);
  Func output("output");
  output(x, y) = blur(x, y);
  blur.schedule(output, target);
  return {{input, weight, radius}, {output}};
}

/// The range of levels that a filter is confined to: see LevelBand. Open sides have the limits of floats.
struct Band {
  Param<float> dark{"fDarkThreshold"}, dark_min{"fDarkThresholdMin"};
  Param<float> highlight{"fHighlightThreshold"}, highlight_max{"fHighlightThresholdMax"};

  /// What becomes of pixel s that a filter makes into f.
  Expr blend(Expr s, Expr f) const {
    const auto mix = [&](Expr t) { return (1.0f - t) * s + t * f; };
    Expr below = mix((s - dark_min) / (dark - dark_min));
    Expr above = mix((highlight_max - s) / (highlight_max - highlight));
    return select((s < dark_min) || (s > highlight_max), s, (s < dark), below, (s > highlight), above, f);
  }
};

Definition apply_filter_with_threshold(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> radius("nR");
  Band band;
  Blur blur(input, weight, radius);
  Func output("output");
  output(x, y) = band.blend(input(x, y), blur(x, y));
  blur.schedule(output, target);
  return {{input, weight, radius, band.dark, band.dark_min, band.highlight, band.highlight_max}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"apply_filter_float", apply_filter, true},
      {"apply_filter_with_threshold_float", apply_filter_with_threshold, true},
  };
}
