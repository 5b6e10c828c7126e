// Maps of the stars, by the high pass of a smoothed plane.
#include "Blur.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Columns of a tile, so that what is smoothed of it stays in the second-level cache: with 2048 a Gaussian of
/// sigma 10 takes 1.6 times as long.
constexpr int kTileWidth = 1024;

/// Eight times a pixel less its neighbours.
Expr high_pass(const Func& f) {
  Expr sum = -f(x - 1, y - 1);
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      if (dy == -1 && dx == -1) continue;
      sum = dx == 0 && dy == 0 ? sum + 8.0f * f(x, y) : sum - f(x + dx, y + dy);
    }
  }
  return sum;
}

Func define(const std::string& name, Expr value) {
  Func f(name);
  f(x, y) = value;
  return f;
}

/// A plane is smoothed, passed through the high pass, cut off below a threshold, and smoothed again. Edges
/// are those of the plane that it is made from: the stages go on beyond them.
struct StarMap {
  ImageParam first_weight, last_weight;
  Param<int> first_radius, last_radius;
  Param<float> threshold;
  Blur first;
  Func smoothed, stars;
  Blur last;

  StarMap(const Func& plane, const std::string& first_name, const std::string& first_radius_name,
          const std::string& threshold_name, const std::string& last_name,
          const std::string& last_radius_name)
      : first_weight(Float(32), 1, first_name),
        last_weight(Float(32), 1, last_name),
        first_radius(first_radius_name),
        last_radius(last_radius_name),
        threshold(threshold_name),
        first("first", plane, first_weight, first_radius),
        smoothed(define("smoothed", abs(first(x, y)))),
        stars(cut_off(abs(high_pass(smoothed)))),
        last("last", stars, last_weight, last_radius) {}

  Expr operator()(Expr at_x, Expr at_y) const { return last(at_x, at_y); }

  /// Each tile of the output is smoothed whole, to where the last filter reaches: of two filters that slid
  /// down together, the first would be computed anew for each row.
  void slide(const Func& output, const Target& target) {
    const RowTiles tiles(output, target, kTileWidth, max(64, 4 * last.rows()));
    last.slide(tiles);
    first.slide(RowTiles(smoothed, tiles));
  }

 private:
  Func cut_off(Expr high) const { return define("stars", select(high < threshold, 0.0f, high)); }
};

/// Adds the map to the plane, or to black.
Definition star_enhance(const Target& target, bool show_mask) {
  ImageParam input(Float(32), 2, "input");
  Param<float> factor("fMag"), black("fLevelMin");
  StarMap map(BoundaryConditions::mirror_interior(input), "firstGaussian", "nFirstGaussianR", "fThresholdHp",
              "lastGaussian", "nLastGaussianR");
  Func output("output");
  output(x, y) = (show_mask ? Expr(black) : input(x, y)) + map(x, y) * factor;
  map.slide(output, target);
  return {{input, map.first_weight, map.first_radius, map.last_weight, map.last_radius, factor, map.threshold,
           black},
          {output}};
}

/// The map of the plane limited to black and white, above black; blended with the plane first.
Definition stary_mask(const Target& target, bool blend) {
  ImageParam input(Float(32), 2, "input");
  Param<float> black("fMin"), white("fMax"), factor("fPrm");
  Func mirrored = BoundaryConditions::mirror_interior(input);
  Expr s = mirrored(x, y);
  StarMap map(define("limited", select(s > white, white, s < black, black, s)), "gauss_first", "nR_first",
              "fThresholdHipass", "gauss_last", "nR_last");
  Expr mask = map(x, y) * factor;
  Func output("output");
  output(x, y) = (blend ? (mask + input(x, y)) * 0.5f : mask) + black;
  map.slide(output, target);
  return {{input, map.first_weight, map.first_radius, black, white, map.threshold, map.last_weight,
           map.last_radius, factor},
          {output}};
}

}  // namespace

std::vector<Member> Family() {
  const auto with = [](Definition (*define)(const Target&, bool), bool variant) {
    return [=](const Target& target) { return define(target, variant); };
  };
  return {
      {"star_enhance_float", with(star_enhance, false), true},
      {"star_enhance_show_mask_float", with(star_enhance, true), true},
      {"stary_mask_float", with(stary_mask, false), true},
      {"stary_mask_blend_float", with(stary_mask, true), true},
  };
}
