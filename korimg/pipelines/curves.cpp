// Tone curves by tables.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), i("i");

/// A table of n + 1 values as a curve on the 256 scale. Above the scale it is a straight line.
struct Curve {
  const ImageParam& table;
  Expr n, end, slope;

  explicit Curve(const ImageParam& table) : table(table) {
    n = table.dim(0).extent() - 1;
    end = cast<double>(table(n)) * F64(255.0);
    slope = cast<double>(table(n) - table(n - 1)) * cast<double>(n);
    slope = select(slope > F64(0.0), slope, F64(0.0));
  }

  Expr value(Expr entry) const { return cast<double>(table(clamp(entry, 0, n))) * F64(255.0); }
  Expr above(Expr v) const { return select(slope > F64(0.0), (v - end) * slope + end, end); }
  Expr at(Expr v) const {
    Expr place = cast<int>(clamp(v, F64(0.0), F64(255.0)) * (cast<double>(n) / F64(255.0)));
    return select(v<F64(0.0), F64(0.0), v> F64(255.0), above(v), value(place));
  }
};

/// All that does not depend on the pixel is worked out before: raw results of all entries, and the line above
/// the table. What the master makes of an entry of the plane's curve is such a result too, so that a pixel
/// takes one look at a table. Places are found in floats: a pixel within rounding of a step may take either
/// side of it.
Definition tone_curve(const Target& target, bool colour) {
  ImageParam input(Float(32), 2, "input"), curve(Float(32), 1, "curve_color"),
      master(Float(32), 1, "curve_gray");
  Param<float> level_min("fLevelMin"), level_range("fLevelRange");
  const Curve last(master), first(colour ? curve : master);
  Expr n = first.n, low = cast<double>(level_min), scale = F64(255.0) / cast<double>(level_range);
  const auto raw = [=](Expr u) { return cast<float>(u / scale + low); };

  // Entry 0 is for pixels below the scale, then come those of both curves together; the same of the master
  // alone. Places count from 0, so that they are known to need no sign in an address.
  Func results("results");
  Expr second = n + 2;
  Expr own = select(i == 0, F64(0.0), first.value(i - 1));
  Expr masters = select(i == second, F64(0.0), last.value(i - second - 1));
  results(i) = raw(colour ? select(i < second, last.at(own), masters) : own);
  const auto place = [=](Expr q) { return clamp(cast<int>(floor(q)) + 1, 0, n + 1); };

  // Above the table: raw = a (s - low) + b. Where the master is looked up there, v is its argument.
  Expr through = last.above(first.above(F64(255.0)));  // of the line at 255, where both curves are lines
  Expr rise = colour ? select(first.slope > F64(0.0), first.slope * last.slope, F64(0.0)) : first.slope;
  Expr start = colour ? select(first.slope > F64(0.0), through, last.at(first.end)) : first.above(F64(255.0));
  Func line("line");
  line(i) = cast<float>(mux(i, {rise, (start - F64(255.0) * rise) / scale + low, first.slope,
                                first.end * (F64(1.0) - first.slope) * (cast<double>(n) / F64(255.0)),
                                last.slope / (cast<double>(n) / F64(255.0)) / scale,
                                last.end * (F64(1.0) - last.slope) / scale + low}));

  Expr s = input(x, y), d = s - level_min, q = d * (cast<float>(n) / level_range);
  // The level's maximum is a double, and a pixel that lies there is so to the rounding of floats.
  Expr rounding = 0x1p-22f * (abs(level_min) + abs(level_range));
  Expr above = q > cast<float>(n) && abs(d - level_range) > rounding;
  const auto straight = [&](Expr v, int k) {
    return select(line(k) > 0.0f, v * line(k) + line(k + 1), line(k + 1));
  };
  Expr simple = select(above, straight(d, 0), results(place(q)));
  Func output("output");
  if (!colour) {
    output(x, y) = select(is_nan(s), s, simple);
    ScheduleByStrips(output, target);
  } else {
    // The plane's line may lead back onto the master's table, unless it is level or begins at its end.
    Expr isSimple = !(first.slope > F64(0.0)) || curve(n) == 1.0f;
    Expr v = straight(q, 2);
    Expr looked = results(select(above, place(v) + second, place(q)));
    Expr high = v > cast<float>(n);
    Expr result = select(isSimple, simple, select(above && high, straight(v, 4), looked));
    output(x, y) = select(is_nan(s), s, result);
    ScheduleByStrips(output, target);
    output.specialize(isSimple);  // takes the schedule along
  }
  results.compute_root();
  line.bound(i, 0, 6).compute_root();
  if (colour) return {{input, level_min, level_range, curve, master}, {output}};
  return {{input, level_min, level_range, master}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"tone_curve_gray_float", [](const Target& target) { return tone_curve(target, false); }, true},
      {"tone_curve_color_float", [](const Target& target) { return tone_curve(target, true); }, true},
  };
}
