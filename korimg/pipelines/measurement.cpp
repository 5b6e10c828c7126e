// Means, centroids and peaks of windows, and how sharp they are.
#include <limits>

#include "Blur.h"
#include "Folds.h"

using namespace Halide;

namespace {

/// A window of planes, whose ends are excluded.
struct Area {
  Param<int> start_x, end_x, start_y, end_y;
  Expr width = end_x - start_x, height = end_y - start_y;

  Area(const std::string& left = "start_x", const std::string& right = "end_x",
       const std::string& top = "start_y", const std::string& bottom = "end_y")
      : start_x(left), end_x(right), start_y(top), end_y(bottom) {}

  void add_to(std::vector<Argument>& arguments) const {
    for (const auto& end : {start_x, end_x, start_y, end_y}) {
      arguments.push_back(end);
    }
  }
};

/// What is measured: one plane, or the luminance of three, on the 256 scale.
struct Light {
  std::vector<Argument> planes, levels;
  std::function<Expr(Expr x, Expr y)> at;

  Light(bool colour) {
    std::vector<std::function<Expr(Expr, Expr)>> channels;
    const auto add = [&](const std::string& plane, Expr min, Expr range) {
      ImageParam input(Float(32), 2, plane);
      planes.push_back(input);
      channels.push_back([=](Expr x, Expr y) {
        return (cast<double>(input(x, y)) - cast<double>(min)) / cast<double>(range) * F64(255);
      });
    };
    const auto with_levels = [&](const std::string& plane, const std::string& prefix, Type type) {
      Param<void> min(type, prefix + "LevelMin"), range(type, prefix + "LevelRange");
      add(plane, min, range);
      levels.push_back(min);
      levels.push_back(range);
    };
    if (colour) {
      with_levels("red", "fRed", Float(64));
      with_levels("green", "fGreen", Float(64));
      with_levels("blue", "fBlue", Float(64));
      at = [=](Expr x, Expr y) {
        return brightness(channels[0](x, y), channels[1](x, y), channels[2](x, y));
      };
    } else {
      with_levels("input", "f", Float(32));
      at = channels[0];
    }
  }
};

/// The sums of values(x, y) over the window, each in a fixed order.
Func sums(const Area& area, int count, const std::function<std::vector<Expr>(Expr x, Expr y)>& values) {
  const auto add = [](const Tuple& so_far, const Tuple& more) {
    std::vector<Expr> added;
    for (size_t i = 0; i < so_far.size(); ++i) {
      added.push_back(so_far[static_cast<int>(i)] + more[static_cast<int>(i)]);
    }
    return Tuple(added);
  };
  const Tuple zero(std::vector<Expr>(count, F64(0)));
  Func rows = FoldRows("rows", area.width, zero, add, [&](Expr column, Expr row) {
    return Tuple(values(area.start_x + column, area.start_y + row));
  });
  Func total("total");
  RDom row(0, area.height, "row");
  std::vector<Expr> so_far, more;
  total() = zero;
  for (int i = 0; i < count; ++i) {
    so_far.push_back(count == 1 ? Expr(total()) : Expr(total()[i]));
    more.push_back(count == 1 ? Expr(rows(row)) : Expr(rows(row)[i]));
  }
  total() = add(Tuple(so_far), Tuple(more));
  total.compute_root();
  return total;
}

Definition average(bool colour) {
  Light light(colour);
  Area area;
  Func total = sums(area, 1, [&](Expr x, Expr y) { return std::vector<Expr>{light.at(x, y)}; });
  Func average("average");
  average() = total() / (cast<double>(area.width) * cast<double>(area.height));
  Definition definition{light.planes, {average}};
  definition.arguments.insert(definition.arguments.end(), light.levels.begin(), light.levels.end());
  area.add_to(definition.arguments);
  return definition;
}

/// Weighted by the square of what exceeds the average.
Definition centroid(bool colour) {
  Light light(colour);
  Area area;
  Param<double> mean("average");
  Func total = sums(area, 3, [&](Expr x, Expr y) {
    Expr above = light.at(x, y) - mean;
    Expr weight = select(above > F64(0), above * above, F64(0));  // NaN has none
    return std::vector<Expr>{weight, weight * cast<double>(x), weight * cast<double>(y)};
  });
  Func centroid("centroid");
  centroid() = Tuple(total()[1] / total()[0], total()[2] / total()[0]);
  Definition definition{light.planes, {centroid}};
  definition.arguments.insert(definition.arguments.end(), light.levels.begin(), light.levels.end());
  definition.arguments.push_back(mean);
  area.add_to(definition.arguments);
  return definition;
}

/// The brightest pixel, the first of equal ones; NaN is never brighter. Values come last in the folds: Halide
/// 14 writes the parts of a Tuple one after the other under strict_float, and what follows a part is compared
/// with the new one.
Definition peak(const Target&) {
  ImageParam input(Float(32), 2, "input");
  Area area("nStartX", "nEndX", "nStartY", "nEndY");
  Expr darkest = -std::numeric_limits<float>::infinity();
  const auto brighter = [](const Tuple& so_far, const Tuple& more) {
    Expr is_more = more[1] > so_far[1] || (more[1] == so_far[1] && more[0] < so_far[0]);
    return Tuple(select(is_more, more[0], so_far[0]), select(is_more, more[1], so_far[1]));
  };
  Func rows =
      FoldRows("rows", area.width, Tuple(area.start_x, darkest), brighter, [&](Expr column, Expr row) {
        return Tuple(area.start_x + column, input(area.start_x + column, area.start_y + row));
      });
  Func brightest("brightest"), peak("peak");
  RDom row(0, area.height, "row");
  brightest() = Tuple(area.start_x, area.start_y, darkest);
  Expr is_more = rows(row)[1] > brightest()[2];
  brightest() = Tuple(select(is_more, rows(row)[0], brightest()[0]),
                      select(is_more, area.start_y + row, brightest()[1]),
                      select(is_more, rows(row)[1], brightest()[2]));
  brightest.compute_root();
  peak() = Tuple(brightest()[2], brightest()[0], brightest()[1]);
  Definition definition{{input}, {peak}};
  area.add_to(definition.arguments);
  return definition;
}

/// Beyond a plane: rows above mirror about its first row, rows below repeat its last row and mirror on;
/// columns repeat the edge.
Func with_edges(const ImageParam& input) {
  Var x("x"), y("y");
  Func edges("edges");
  Expr mirrored = abs(y) % (2 * input.height());
  Expr row = select(mirrored < input.height(), mirrored, 2 * input.height() - mirrored - 1);
  edges(x, y) = input(clamp(likely(x), 0, input.width() - 1), clamp(row, 0, input.height() - 1));
  return edges;
}

/// The mean distance of a plane smoothed by a narrow filter from the same smoothed by a wide one. The window
/// is summed in parts of some columns, which with the order in them depend on its size alone. In each part of
/// a strip the narrow filter runs first, since only one may slide along the same rows: with parts of 2048
/// columns the whole takes 1.1 times as long.
Definition evaluate_focus(const Target& target) {
  constexpr int kLanes = 16, kColumns = 1024;
  ImageParam input(Float(32), 2, "input"), narrow_weight(Float(32), 1, "min_filter"),
      wide_weight(Float(32), 1, "max_filter");
  Param<int> narrow_radius("nRMin"), wide_radius("nRMax");
  Area area;
  Func edges = with_edges(input);
  Blur narrow("narrow", edges, narrow_weight, narrow_radius), wide("wide", edges, wide_weight, wide_radius);
  Var x("x"), y("y"), u("u"), part("part"), strip("strip"), v("v");
  Func smoothed("smoothed"), distance("distance"), lane("lane"), row("row"), total("total"), result("result");
  smoothed(x, y) = narrow(x, y);
  distance(x, y) = abs(smoothed(x, y) - wide(x, y));

  const auto even_part = [](Expr extent, Expr want, int multiple) {
    Expr parts = max((extent + want - 1) / want, 1);
    return max(((extent + parts - 1) / parts + multiple - 1) / multiple, 1) * multiple;
  };
  Expr columns = even_part(area.width, kColumns, kLanes), parts = (area.width + columns - 1) / columns;
  RDom block(0, columns / kLanes, "block"), all(0, parts, area.start_y, area.height, "all");
  Expr column = area.start_x + part * columns + block * kLanes + u;
  lane(u, part, y) = F64(0);
  lane(u, part, y) += select(column < area.end_x, cast<double>(distance(column, y)), F64(0));
  Expr sum = lane(0, part, y);
  for (int k = 1; k < kLanes; ++k) {
    sum += lane(k, part, y);
  }
  row(part, y) = sum;
  total() = F64(0);
  total() += row(all.x, all.y);
  result() = total() / (cast<double>(area.width) * cast<double>(area.height));

  row.compute_root()
      .split(y, strip, v, even_part(area.height, max(64, 4 * wide.rows()), 1), TailStrategy::GuardWithIf)
      .reorder(v, part, strip)
      .parallel(strip)
      .parallel(part);
  lane.bound(u, 0, kLanes).compute_at(row, v).vectorize(u);
  lane.update().reorder(u, block).vectorize(u);
  total.compute_root();
  const RowTiles tiles(distance, LoopLevel(row, part), LoopLevel(row, v), target);
  wide.slide(tiles);
  narrow.slide(RowTiles(smoothed, tiles));
  Definition definition{{input, narrow_radius, narrow_weight, wide_radius, wide_weight}, {result}};
  area.add_to(definition.arguments);
  return definition;
}

}  // namespace

std::vector<Member> Family() {
  return {{"average256_floor_zero_float", [](const Target&) { return average(false); }},
          {"average_gray256_floor_zero_float", [](const Target&) { return average(true); }},
          {"centroid256_float", [](const Target&) { return centroid(false); }},
          {"centroid_gray256_float", [](const Target&) { return centroid(true); }},
          {"peak_float", peak},
          {"evaluate_focus_float", evaluate_focus, true}};
}
