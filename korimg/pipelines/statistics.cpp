// Means, extremes, block sums and histograms of planes.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), u("u");

Expr brightness(Expr r, Expr g, Expr b) {
  return cast<double>(g) * F64(0.587) + cast<double>(r) * F64(0.299) + cast<double>(b) * F64(0.114);
}

/// Mean of the window. Rows are summed by fixed lanes and then in order: the same sum for any number of
/// threads.
Definition average(const Target&) {
  constexpr int kLanes = 16;
  ImageParam input(Float(32), 2, "input");
  Param<int> start_x("start_x"), end_x("end_x"), start_y("start_y"), end_y("end_y");
  Expr width = end_x - start_x, height = end_y - start_y;

  Func lane_sum("lane_sum"), row_sum("row_sum"), total("total"), average("average");
  RDom columns(0, (width + kLanes - 1) / kLanes, "columns");
  Expr column = columns * kLanes + u;
  Expr pixel = input(start_x + min(column, width - 1), start_y + y);
  lane_sum(u, y) = F64(0);
  lane_sum(u, y) += select(column < width, cast<double>(pixel), F64(0));
  RDom lanes(0, kLanes, "lanes");
  row_sum(y) = F64(0);
  row_sum(y) += lane_sum(lanes, y);
  RDom rows(0, height, "rows");
  total() = F64(0);
  total() += row_sum(rows);
  average() = total() / (cast<double>(width) * cast<double>(height));

  lane_sum.bound(u, 0, kLanes).compute_at(row_sum, y).vectorize(u).update().reorder(u, columns).vectorize(u);
  row_sum.compute_root().parallel(y, 16, TailStrategy::GuardWithIf);
  row_sum.update().reorder(lanes, y).parallel(y, 16, TailStrategy::GuardWithIf);
  total.compute_root();
  return {{input, start_x, end_x, start_y, end_y}, {average}};
}

/// Extremes of raw brightness in the window, NaN passed over.
Definition getminmax_brightness(const Target&) {
  constexpr int kLanes = 16;
  ImageParam red(Float(32), 2, "red"), green(Float(32), 2, "green"), blue(Float(32), 2, "blue");
  Param<int> start_x("nStartX"), start_y("nStartY"), width("nWidth"), height("nHeight");
  const Expr infinity = Expr(std::numeric_limits<float>::infinity());
  // Lower of the first, higher of the second; a NaN on the left never wins.
  const auto merge = [](Expr low, Expr high, Tuple so_far) {
    return Tuple(select(low < so_far[0], low, so_far[0]), select(high > so_far[1], high, so_far[1]));
  };

  Func lane("lane"), row("row"), minmax("minmax");
  RDom columns(0, (width + kLanes - 1) / kLanes, "columns");
  Expr at_x = start_x + min(columns * kLanes + u, width - 1), at_y = start_y + y;
  Expr value = cast<float>(brightness(red(at_x, at_y), green(at_x, at_y), blue(at_x, at_y)));
  lane(u, y) = Tuple(infinity, -infinity);
  lane(u, y) = merge(value, value, lane(u, y));
  RDom lanes(0, kLanes, "lanes");
  row(y) = Tuple(infinity, -infinity);
  row(y) = merge(lane(lanes, y)[0], lane(lanes, y)[1], row(y));
  RDom rows(0, height, "rows");
  minmax() = Tuple(infinity, -infinity);
  minmax() = merge(row(rows)[0], row(rows)[1], minmax());

  lane.bound(u, 0, kLanes).compute_at(row, y).vectorize(u).update().reorder(u, columns).vectorize(u);
  row.compute_root().parallel(y, 16, TailStrategy::GuardWithIf);
  row.update().reorder(lanes, y).parallel(y, 16, TailStrategy::GuardWithIf);
  return {{red, green, blue, start_x, start_y, width, height}, {minmax}};
}

/// Sums of blocks of nBins x nBins pixels from the input's first one.
Definition binning(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<int> bins("nBins");
  Func column_sum("column_sum"), binned("binned");
  RDom down(0, bins, "down"), across(0, bins, "across");
  column_sum(x, y) = F64(0);
  column_sum(x, y) += cast<double>(input(x, y * bins + down));
  binned(x, y) = F64(0);
  binned(x, y) += column_sum(x * bins + across, y);

  Var block("block");
  const int lanes = target.natural_vector_size<double>() * 2;
  binned.parallel(y);
  binned.update().reorder(across, x, y).parallel(y);
  column_sum.compute_at(binned, y)
      .vectorize(x, lanes, TailStrategy::RoundUp)
      .update()
      .reorder(x, down)
      .vectorize(x, lanes, TailStrategy::GuardWithIf);
  return {{input, bins}, {binned}};
}

/// A number from -1 to 1 that depends on the place alone.
Expr dither(Expr column, Expr row) {
  Expr h = (cast<uint32_t>(column) * Expr(uint32_t(0x9E3779B1))) ^
           (cast<uint32_t>(row) * Expr(uint32_t(0x85EBCA77)));
  h = (h ^ (h >> 15)) * Expr(uint32_t(0x2C1B3C6D));
  h = (h ^ (h >> 12)) * Expr(uint32_t(0x297A2D39));
  h = h ^ (h >> 15);
  return cast<float>(cast<int32_t>(h >> 8)) * (2.0f / (1 << 24)) - 1.0f;
}

/// What the histograms share: the window, the range and the bins.
struct Histogram {
  static constexpr int kStrips = 16;  ///< tables that are filled in parallel
  Param<int> start_x{"nStartX"}, start_y{"nStartY"}, width{"nWidth"}, height{"nHeight"}, bins{"nBins"};
  Param<double> low{"fMin"}, high{"fMax"};

  std::vector<Argument> arguments(const std::vector<Argument>& planes,
                                  const std::vector<Argument>& levels = {}) const {
    std::vector<Argument> all = planes;
    all.insert(all.end(), {start_x, start_y, width, height});
    all.insert(all.end(), levels.begin(), levels.end());
    all.insert(all.end(), {low, high, bins});
    return all;
  }

  /// Bin of a value at a place. Values beyond the ends, and NaN, count in the end bins. A bin that is wider
  /// than a step of the data is dithered, or the histogram would show combs.
  Expr bin(Expr value, Expr column, Expr row) const {
    Expr count = max(bins, 2);
    Expr scale = cast<double>(count - 1) / (high - low);
    Expr spread = select(scale > F64(0) && scale <= F64(1), F64(3) / scale, F64(0));
    Expr dithered = cast<double>(value) + cast<double>(dither(column, row)) * spread;
    Expr position = (dithered - low) * scale;
    Expr limited = select(position > F64(0), min(position, cast<double>(bins - 1)), F64(0));
    return cast<int>(limited);
  }

  /// Counts value(column, row) over the window: strips of lines fill tables of their own, which are then
  /// added.
  Func count(const std::string& name, const Target& target,
             const std::function<Expr(Expr, Expr)>& value) const {
    Func index("index"), part("part"), histogram(name);
    Var strip("strip"), i("i");
    index(x, y) = bin(value(x, y), x, y);
    Expr lines = (height + kStrips - 1) / kStrips;
    RDom r(0, width, 0, lines, "r");
    Expr row = strip * lines + r.y;
    r.where(row < height);
    part(i, strip) = 0;
    part(clamp(index(start_x + r.x, start_y + min(row, height - 1)), 0, bins - 1), strip) += 1;
    RDom strips(0, kStrips, "strips");
    histogram(i) = 0;
    histogram(i) += part(i, strips);

    index.compute_at(part, r.y).vectorize(x, target.natural_vector_size<float>(), TailStrategy::RoundUp);
    part.compute_root().parallel(strip).update().reorder(r.x, r.y, strip).parallel(strip);
    histogram.update().reorder(i, strips);
    return histogram;
  }
};

Definition histogram_antialias(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  const Histogram h;
  return {h.arguments({input}),
          {h.count("histogram", target, [&](Expr px, Expr py) { return input(px, py); })}};
}

Definition histogram_antialias_rgb(const Target& target) {
  const Histogram h;
  std::vector<Argument> planes;
  std::vector<Func> outputs;
  for (const std::string channel : {"R", "G", "B"}) {
    ImageParam input(Float(32), 2, "input" + channel);
    planes.push_back(input);
    outputs.push_back(
        h.count("histogram" + channel, target, [&](Expr px, Expr py) { return input(px, py); }));
  }
  return {h.arguments(planes), outputs};
}

Definition histogram_antialias_brightness(const Target& target) {
  const Histogram h;
  std::vector<Argument> planes, levels;
  std::vector<ImageParam> inputs;
  std::vector<Param<double>> mins, ranges;
  for (const std::string colour : {"Red", "Green", "Blue"}) {
    std::string name = colour;
    name[0] = static_cast<char>(std::tolower(name[0]));
    inputs.emplace_back(Float(32), 2, name);
    mins.emplace_back("f" + colour + "LevelMin");
    ranges.emplace_back("f" + colour + "LevelRange");
    planes.push_back(inputs.back());
    levels.insert(levels.end(), {mins.back(), ranges.back()});
  }
  const auto value = [&](Expr px, Expr py) {
    const auto to256 = [&](int p) {
      return (inputs[p](px, py) - cast<float>(mins[p])) * cast<float>(F64(255) / ranges[p]);
    };
    return brightness(to256(0), to256(1), to256(2));
  };
  return {h.arguments(planes, levels), {h.count("histogram", target, value)}};
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"average_float", average},
      {"getminmax_brightness_float", getminmax_brightness},
      {"binning_float", binning},
      {"histogram_antialias_float", histogram_antialias},
      {"histogram_antialias_rgb_float", histogram_antialias_rgb},
      {"histogram_antialias_brightness_float", histogram_antialias_brightness},
  };
}
