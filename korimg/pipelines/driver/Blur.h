// Separable filters inside pipelines, and the band of levels that filters are confined to.
#pragma once

#include <string>

#include "Driver.h"

/// Where rows of a func follow one another on one thread, as its loops have it: in a tile, one by one, and in
/// blocks of `wide` columns, whose sums stay in registers.
struct RowTiles {
  Halide::LoopLevel tile, row, block;
  int lanes, wide;

  /// Makes tiles of an output of about `width` x `height` pixels, computed in parallel.
  RowTiles(Halide::Func output, const Halide::Target& target, Halide::Expr width, Halide::Expr height)
      : lanes(target.natural_vector_size<float>()), wide(8 * lanes) {
    using namespace Halide;
    Var x = output.args()[0], y = output.args()[1], t("tile"), strip("strip"), u("u"), v("v"), part("part");
    output
        .tile(x, y, t, strip, u, v, EvenPart(output, 0, width, wide), EvenPart(output, 1, height, 1),
              TailStrategy::GuardWithIf)
        .parallel(strip)
        .parallel(t)
        .split(u, part, u, wide, TailStrategy::GuardWithIf)
        .vectorize(u, lanes, TailStrategy::GuardWithIf)
        .unroll(u);
    tile = LoopLevel(output, t);
    row = LoopLevel(output, v);
    block = LoopLevel(output, part);
  }
  /// Follows the rows of an update of a func that is computed in the tiles of another. A loop is found by its
  /// name, which has to be the update's own.
  RowTiles(Halide::Func f, int update, const RowTiles& tiles)
      : tile(tiles.tile), lanes(tiles.lanes), wide(tiles.wide) {
    using namespace Halide;
    const std::string number = std::to_string(update);
    Var x = f.args()[0], y = f.args()[1], u("u"), part("part" + number), v("v" + number);
    f.update(update)
        .rename(y, v)
        .split(x, part, u, wide, TailStrategy::GuardWithIf)
        .vectorize(u, lanes, TailStrategy::GuardWithIf)
        .unroll(u);
    row = LoopLevel(f, v);
    block = LoopLevel(f, part);
  }
  /// Follows the rows of a func that is computed whole for each of the tiles of another.
  RowTiles(Halide::Func f, const RowTiles& tiles) : tile(tiles.tile), lanes(tiles.lanes), wide(tiles.wide) {
    using namespace Halide;
    Var x = f.args()[0], y = f.args()[1], u("u"), part("part");
    f.compute_at(tile).split(x, part, u, wide, TailStrategy::RoundUp).vectorize(u, lanes).unroll(u);
    row = LoopLevel(f, y);
    block = LoopLevel(f, part);
  }
  /// Follows the rows of a func that is computed row by row in tiles of another's loops.
  RowTiles(Halide::Func f, const Halide::LoopLevel& in_tile, const Halide::LoopLevel& in_row,
           const Halide::Target& target)
      : tile(in_tile), row(in_row), lanes(target.natural_vector_size<float>()), wide(8 * lanes) {
    using namespace Halide;
    Var x = f.args()[0], u("u"), part("part");
    f.compute_at(row).split(x, part, u, wide, TailStrategy::RoundUp).vectorize(u, lanes).unroll(u);
    block = LoopLevel(f, part);
  }
};

/// Filters a plane by `weight`, 2 radius + 1 numbers, along x and then along y.
struct Blur {
  Halide::Func source, sum_x, along_x, sum_y;
  Halide::Expr radius;

  /// Planes mirror about their edge rows and columns.
  Blur(const std::string& name, const Halide::ImageParam& input, const Halide::ImageParam& weight,
       Halide::Expr r)
      : Blur(name, Halide::BoundaryConditions::mirror_interior(input), weight, r) {}
  Blur(const std::string& name, const Halide::Func& from, const Halide::ImageParam& weight, Halide::Expr r)
      : source(name + "_source"),
        sum_x(name + "_sum_x"),
        along_x(name + "_along_x"),
        sum_y(name + "_sum_y"),
        radius(r) {
    using namespace Halide;
    RDom k(0, 2 * radius + 1, "k");
    source(x, y) = from(x, y);
    sum_x(x, y) = 0.0f;
    sum_x(x, y) += weight(k) * source(x - radius + k, y);
    along_x(x, y) = sum_x(x, y);
    sum_y(x, y) = 0.0f;
    sum_y(x, y) += weight(k) * along_x(x, y - radius + k);
  }
  Halide::Expr operator()(Halide::Expr at_x, Halide::Expr at_y) const { return sum_y(at_x, at_y); }

  /// Answers the rows of this filter: as many lie in the second-level cache beside each other.
  Halide::Expr rows() const { return 2 * radius + 1; }

  /// Rows slide down in each tile: one new row along x for each row of the result. The rows in use stay in
  /// the second-level cache, and sums in registers. Only one filter may slide along the same rows.
  void slide(const RowTiles& tiles) {
    using namespace Halide;
    Var part("part"), u("u");
    const auto in_registers = [&](Func sum, const LoopLevel& level) {
      sum.compute_at(level).bound_extent(x, tiles.wide).vectorize(x, tiles.lanes).unroll(x);
      sum.update().reorder(x, sum.rvars(0)[0], y).vectorize(x, tiles.lanes).unroll(x);
    };
    in_registers(sum_y, tiles.block);
    along_x.store_at(tiles.tile)
        .compute_at(tiles.row)
        .split(x, part, u, tiles.wide, TailStrategy::RoundUp)
        .vectorize(u, tiles.lanes)
        .unroll(u);
    in_registers(sum_x, LoopLevel(along_x, part));
    source.compute_at(along_x, y).vectorize(x, tiles.lanes, TailStrategy::RoundUp);
  }

  /// Makes tiles for an output of which this is the only filter, or by far the widest.
  RowTiles tiles(const Halide::Func& output, const Halide::Target& target) const {
    return {output, target, max(100000 / rows(), 512), max(64, 4 * rows())};
  }

 private:
  Halide::Var x{"x"}, y{"y"};
};

/// The range of levels that a filter is confined to: see LevelBand. Open sides have the limits of floats.
struct Band {
  Halide::Param<float> dark{"fDarkThreshold"}, dark_min{"fDarkThresholdMin"};
  Halide::Param<float> highlight{"fHighlightThreshold"}, highlight_max{"fHighlightThresholdMax"};

  /// What becomes of pixel s that a filter makes into f.
  Halide::Expr blend(Halide::Expr s, Halide::Expr f) const {
    return blend(s, f, dark - dark_min, highlight_max - highlight);
  }
  /// Answers the same by given widths of the shoulders.
  Halide::Expr blend(Halide::Expr s, Halide::Expr f, Halide::Expr dark_width,
                     Halide::Expr highlight_width) const {
    const auto mix = [&](Halide::Expr t) { return (1.0f - t) * s + t * f; };
    Halide::Expr below = mix((s - dark_min) / dark_width);
    Halide::Expr above = mix((highlight_max - s) / highlight_width);
    return select((s < dark_min) || (s > highlight_max), s, (s < dark), below, (s > highlight), above, f);
  }
};
