// Means, extremes, block sums and histograms of planes.
#include "Driver.h"
#include "Folds.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Mean of the window.
Definition average(const Target&) {
  ImageParam input(Float(32), 2, "input");
  Param<int> start_x("start_x"), end_x("end_x"), start_y("start_y"), end_y("end_y");
  Expr width = end_x - start_x, height = end_y - start_y;

  Func row_sum = FoldRows(
      "row_sum", width, Tuple(F64(0)),
      [](const Tuple& so_far, const Tuple& more) { return Tuple(so_far[0] + more[0]); },
      [&](Expr column, Expr row) { return Tuple(cast<double>(input(start_x + column, start_y + row))); });
  Func total("total"), average("average");
  RDom rows(0, height, "rows");
  total() = F64(0);
  total() += row_sum(rows);
  average() = total() / (cast<double>(width) * cast<double>(height));
  total.compute_root();
  return {{input, start_x, end_x, start_y, end_y}, {average}};
}

/// Extremes of raw brightness in the window, NaN passed over.
Definition getminmax_brightness(const Target&) {
  ImageParam red(Float(32), 2, "red"), green(Float(32), 2, "green"), blue(Float(32), 2, "blue");
  Param<int> start_x("nStartX"), start_y("nStartY"), width("nWidth"), height("nHeight");
  const Expr infinity = Expr(std::numeric_limits<float>::infinity());
  // A NaN among the new ones never wins.
  const auto merge = [](const Tuple& so_far, const Tuple& more) {
    return Tuple(select(more[0] < so_far[0], more[0], so_far[0]),
                 select(more[1] > so_far[1], more[1], so_far[1]));
  };
  const Tuple start(infinity, -infinity);

  Func row = FoldRows("row", width, start, merge, [&](Expr column, Expr line) {
    Expr at_x = start_x + column, at_y = start_y + line;
    Expr value = cast<float>(brightness(red(at_x, at_y), green(at_x, at_y), blue(at_x, at_y)));
    return Tuple(value, value);
  });
  Func minmax("minmax");
  RDom rows(0, height, "rows");
  minmax() = start;
  minmax() = merge(Tuple(minmax()[0], minmax()[1]), Tuple(row(rows)[0], row(rows)[1]));
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

/// Bits that look random, of a number.
Expr hash(Expr number) {
  Expr h = cast<uint32_t>(number) * Expr(uint32_t(0x9E3779B1));
  h = (h ^ (h >> 15)) * Expr(uint32_t(0x2C1B3C6D));
  h = (h ^ (h >> 12)) * Expr(uint32_t(0x297A2D39));
  return h ^ (h >> 15);
}

/// What the histograms share: the window, the range and the bins.
struct Histogram {
  static constexpr int kStrips = 16;  ///< tables that are filled in parallel; chosen
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

  /// Bin of a value. Values beyond the ends count in the end bins, and NaN in one after the last, which
  /// nobody reads. Narrow bins are dithered by `offset`, from -1 to 1, or they would show the steps of the
  /// data as combs.
  Expr bin(Expr value, Expr offset) const {
    Expr scale = cast<double>(max(bins, 2) - 1) / (high - low);
    Expr spread = select(scale > F64(0) && scale <= F64(1), 3.0f, 0.0f);  // in bins
    Expr position = (cast<double>(value) - low) * scale + cast<double>(offset * spread);
    Expr inside = select(position > F64(0), min(position, cast<double>(bins - 1)), F64(0));
    return select(is_nan(value), bins, cast<int>(inside));
  }

  /// Counts value(column, row) over the window. Strips of lines fill tables of their own, and neighbours of a
  /// line, which often fall into the same bin, different ones: an increment would wait for the one before.
  Func count(const std::string& name, const Target& target,
             const std::function<Expr(Expr, Expr)>& value) const {
    constexpr int kTables = 4;  // chosen: an increment takes about as many cycles
    Func column_bits("column_bits"), index("index"), part("part"), histogram(name);
    Var strip("strip"), table("table"), i("i");
    column_bits(x) = hash(x);
    // The bits as the fraction of a float from 1 to 2.
    Expr bits = (column_bits(x) ^ hash(~y)) >> 9;
    Expr offset = reinterpret<float>(bits | Expr(uint32_t(0x3F800000))) * 2.0f - 3.0f;
    index(x, y) = bin(value(x, y), offset);

    Expr lines = (height + kStrips - 1) / kStrips;
    RDom r(0, kTables, 0, (width + kTables - 1) / kTables, 0, lines, "r");
    Expr column = r.y * kTables + r.x, row = strip * lines + r.z;
    r.where(likely(column < width) && row < height);
    part(i, table, strip) = 0;
    Expr at = index(start_x + min(likely(column), width - 1), start_y + min(row, height - 1));
    part(unsafe_promise_clamped(at, 0, bins), r.x, strip) += 1;
    RDom parts(0, kTables, 0, kStrips, "parts");
    histogram(i) = 0;
    histogram(i) += part(i, parts.x, parts.y);

    const int lanes = target.natural_vector_size<float>();
    column_bits.compute_root().vectorize(x, lanes, TailStrategy::RoundUp);
    index.compute_at(part, r.z).vectorize(x, lanes, TailStrategy::GuardWithIf);
    part.compute_root().bound(table, 0, kTables).parallel(strip).vectorize(i, lanes, TailStrategy::RoundUp);
    part.update().reorder(r.x, r.y, r.z, strip).unroll(r.x).parallel(strip);
    histogram.vectorize(i, lanes, TailStrategy::GuardWithIf);
    histogram.update().reorder(i, parts.x, parts.y).vectorize(i, lanes, TailStrategy::GuardWithIf);
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
