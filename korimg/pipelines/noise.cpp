// Hot and cold pixels of images and of mosaics, and noise where an image is faint.
#include <array>
#include <limits>

#include "Blur.h"
#include "Keys.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Columns of a tile. Chosen: its rows are long for memory, and a few of them stay in the second-level cache.
constexpr int kTileWidth = 3000;

/// Pixels whose ratio to the median of themselves and their four neighbours is out of bounds become the
/// median; planes mirror about their edge rows and columns. Bounds are multiplied out, in float: by a
/// division in double this took twice the time.
Definition noisecut_3x3_hotcool(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<double> hot("hotThreshold"), cool("coolThreshold");
  Func k("key"), output("noisecut");
  k(x, y) = key(BoundaryConditions::mirror_interior(input)(x, y));
  Expr up = k(x, y - 1), left = k(x - 1, y), right = k(x + 1, y), down = k(x, y + 1);
  Expr low = max(min(up, down), min(left, right)), high = min(max(up, down), max(left, right));
  Expr median = from_key(max(min(low, high), min(max(low, high), k(x, y))));
  Expr pixel = input(x, y);
  const auto bound = [&](Expr of_positive, Expr of_others) {
    return pixel * select(pixel > 0.0f, cast<float>(of_positive), cast<float>(of_others));
  };
  Expr one = F64(1);
  Expr is_outlier =
      select(median > pixel, median > bound(one + cool, one - cool), median < bound(one - hot, one + hot));
  output(x, y) = select(is_outlier, median, pixel);

  ScheduleBySlidingRows(output, {k}, target, kTileWidth);
  return {{input, hot, cool}, {output}};
}

/// A pixel and its blur, by how far blur and Laplacian are above the threshold.
Definition noisecut_with_brightness(const Target& target) {
  ImageParam input(Float(32), 2, "input"), weight(Float(32), 1, "weight");
  Param<int> blur_radius("nR_blur"), laplacian_radius("nR_laplacian");
  Param<double> threshold("fThreshold"), level_min("fMin"), level_range("fRange");
  Blur blur("blur", input, weight, blur_radius);

  // Neighbours whose squared distance is at most the radius.
  Func pixel("pixel"), neighbours("neighbours"), count("count"), output("noisecut");
  Expr reach = cast<int>(sqrt(cast<float>(max(laplacian_radius, 0))));
  RDom d(-reach, 2 * reach + 1, -reach, 2 * reach + 1, "d");
  Expr squared = d.x * d.x + d.y * d.y;
  d.where(squared > 0 && squared <= laplacian_radius);
  pixel(x, y) = BoundaryConditions::mirror_interior(input)(x, y);
  neighbours(x, y) = 0.0f;
  neighbours(x, y) += pixel(x + d.x, y + d.y);
  count() = 0;
  count() += select(d.x == d.x, 1, 0);

  const auto share = [&](Expr measure) {
    Expr level = (cast<double>(measure) - level_min) * (F64(255) / level_range);
    Expr limited = select(level < F64(0), F64(0), select(level > F64(255), F64(255), level));
    Expr excess = limited - threshold;
    return F64(1) - select(excess < F64(0), F64(0), excess) / min(F64(255), F64(255) - threshold);
  };
  Expr blurred = blur(x, y), laplacian = cast<float>(count()) * input(x, y) - neighbours(x, y);
  Expr product = cast<float>(share(blurred) * share(laplacian));
  Expr w = select(threshold < F64(255), product, 1.0f);
  output(x, y) = (1.0f - w) * input(x, y) + w * blurred;

  const RowTiles tiles = blur.tiles(output, target);
  blur.slide(tiles);
  count.compute_root();
  pixel.store_at(tiles.tile).compute_at(tiles.row).vectorize(x, tiles.lanes, TailStrategy::RoundUp);
  neighbours.compute_at(tiles.block).bound_extent(x, tiles.wide).vectorize(x, tiles.lanes).unroll(x);
  neighbours.update().reorder(x, d.x, d.y, y).vectorize(x, tiles.lanes).unroll(x);
  return {{input, weight, blur_radius, laplacian_radius, threshold, level_min, level_range}, {output}};
}

/// Offsets of a column and a row.
struct Offset {
  int dx, dy;
};

/// Four pixels about another, on its row and column or on the diagonals.
std::array<Offset, 4> cross(int d) {
  return {{{0, -d}, {-d, 0}, {d, 0}, {0, d}}};
}
std::array<Offset, 4> corners(int d) {
  return {{{-d, -d}, {d, -d}, {-d, d}, {d, d}}};
}

/// Four values, ascending.
std::array<Expr, 4> ascending(std::array<Expr, 4> v) {
  for (const auto& [i, j] : {std::pair(0, 1), {2, 3}, {0, 2}, {1, 3}, {1, 2}}) {
    Expr low = min(v[i], v[j]);
    v[j] = max(v[i], v[j]);
    v[i] = low;
  }
  return v;
}

/// Hot and cold pixels of a mosaic: the rule is that of CImgFilterMisc::CFANoiseCut.
///
///     Bayer's array    other G      a honeycomb      other     other
///                      G other                            G
///                                                   other     other
Definition cfa_noisecut(const Target& target, bool honeycomb) {
  ImageParam input(Float(32), 2, "input");
  Param<int> mode("nMode"), cfa("nCFA"), rings("nPattern");
  Param<float> threshold("fThreshold"), ratio("fRatio");
  Func raw("raw"), standing("standing"), followed("followed"), is_green("is_green"), output("noisecut");
  constexpr float kInfinity = std::numeric_limits<float>::infinity();

  // Beyond the edges lie pixels of the same colour: mirrored ones, or those a period away.
  const auto inside = [&](Expr i, Expr n) {
    Expr before = honeycomb ? i % 4 : -i, behind = honeycomb ? n - 4 + (i - n) % 4 : 2 * n - 2 - i;
    Expr beyond = clamp(select(i < 0, before, behind), 0, n - 1);
    return select(i < 0 || i >= n, beyond, clamp(likely(i), 0, n - 1));
  };
  Expr stored = input(inside(x, input.width()), inside(y, input.height()));
  raw(x, y) = select(is_nan(stored), kInfinity, stored);

  // How far a pixel rises above, and falls below, those of its colour.
  const auto values = [&](const std::array<Offset, 4>& four) {
    std::array<Expr, 4> v;
    for (int i = 0; i < 4; ++i) {
      v[i] = raw(x + four[i].dx, y + four[i].dy);
    }
    return v;
  };
  const auto of_colour = ascending(values(honeycomb ? corners(2) : cross(2)));
  standing(x, y) = {raw(x, y) - of_colour[1], of_colour[2] - raw(x, y)};

  Expr rises = standing(x, y)[0] > standing(x, y)[1];
  Expr least = (1.0f / 16) * select(rises, standing(x, y)[0], standing(x, y)[1]);
  const auto follows = [&](int ring) {
    Expr strays = 0;
    int asked = 0;
    for (int dy = -ring; dy <= ring; ++dy) {
      for (int dx = -ring; dx <= ring; ++dx) {
        if (std::max(std::abs(dx), std::abs(dy)) != ring || (honeycomb && (dx + dy) % 2 != 0)) continue;
        FuncRef s = standing(x + dx, y + dy);
        strays += select(select(rises, s[0], s[1]) < least, 1, 0);
        ++asked;
      }
    }
    return !(cast<float>(strays) > ratio * static_cast<float>(asked));
  };

  followed(x, y) = follows(1) && (rings < 2 || follows(2));

  // A table, for the parity of columns costs more to compute than to read. Honeycombs have sites at every
  // other column, and greens in every other row.
  Var parity("parity");
  is_green(x, parity) = honeycomb ? cast<float>(select((parity == 1) == (cfa < 13), 1, 0))
                                  : cast<float>((x + parity + 1 + cfa) % 2);
  Expr green = is_green(x, y % 2) > 0.0f;
  const std::array<Offset, 4> greens = honeycomb ? cross(2) : corners(1),
                              others = honeycomb ? corners(2) : cross(2);
  std::array<Expr, 4> nearest;
  auto of_others = values(others);
  if (!honeycomb) {
    // What is the pixel itself, mirrored, gives way to the one across.
    auto& [up, left, right, down] = of_others;
    left = select(x == 1, raw(x + 2, y), left);
    right = select(x == input.width() - 2, raw(x - 2, y), right);
    up = select(y == 1, raw(x, y + 2), up);
    down = select(y == input.height() - 2, raw(x, y - 2), down);
  }
  for (int i = 0; i < 4; ++i) {
    nearest[i] = select(green, values(greens)[i], of_others[i]);
  }
  const auto v = ascending(nearest);
  Expr pairs = mode > 2, mean = mode % 2 == 0;
  Expr lowest = select(pairs, v[1], v[0]), highest = select(pairs, v[2], v[3]);
  Expr low = lowest - threshold, high = highest + threshold;
  Expr pixel = raw(x, y), hot = pixel > high, cold = pixel < low;
  Expr cut = select(mean, 0.5f * (v[1] + v[2]), hot, highest, lowest);
  Expr is_noise = (hot || cold) && cut < kInfinity && !is_nan(input(x, y)) && !followed(x, y);
  if (honeycomb) is_noise = is_noise && (x + y) % 2 == 0;
  for (int i = 0; i < 4; ++i) {
    Expr too = select(hot, nearest[i] > high, nearest[i] < low);
    is_noise = is_noise && !(too && select(green, followed(x + greens[i].dx, y + greens[i].dy),
                                           followed(x + others[i].dx, y + others[i].dy)));
  }
  output(x, y) = select(is_noise, cut, input(x, y));

  ScheduleBySlidingRows(output, {raw, standing, followed}, target, kTileWidth);
  followed.specialize(rings < 2);
  is_green.compute_root()
      .bound(parity, 0, 2)
      .vectorize(x, target.natural_vector_size<float>(), TailStrategy::RoundUp);
  return {{input, mode, cfa, threshold, rings, ratio}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"noisecut_3x3_hotcool_float", noisecut_3x3_hotcool, true},
      {"noisecut_with_brightness_float", noisecut_with_brightness, true},
      {"cfa_noisecut_bayer_float", [](const Target& t) { return cfa_noisecut(t, false); }, true},
      {"cfa_noisecut_honeycomb_float", [](const Target& t) { return cfa_noisecut(t, true); }, true},
  };
}
