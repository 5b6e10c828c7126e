// Means and centroids of windows.
#include "Driver.h"
#include "Folds.h"

using namespace Halide;

namespace {

/// A window of planes, whose ends are excluded.
struct Area {
  Param<int> start_x{"start_x"}, end_x{"end_x"}, start_y{"start_y"}, end_y{"end_y"};
  Expr width = end_x - start_x, height = end_y - start_y;

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

}  // namespace

std::vector<Member> Family() {
  return {{"average256_floor_zero_float", [](const Target&) { return average(false); }},
          {"average_gray256_floor_zero_float", [](const Target&) { return average(true); }},
          {"centroid256_float", [](const Target&) { return centroid(false); }},
          {"centroid_gray256_float", [](const Target&) { return centroid(true); }}};
}
