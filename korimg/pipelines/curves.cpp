// Tone curves by tables.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), i("i");

/// A table's curve beyond its ends, on the 256 scale.
Expr beyond(const ImageParam& table, Expr n, Expr v) {
  Expr last = table(n), before = table(n - 1);
  Expr end = cast<double>(last) * F64(255.0);
  Expr slope = cast<double>(last - before) * cast<double>(n);
  slope = select(last == before || slope < F64(0.0), F64(0.0), slope);
  return select(v < F64(0.0), F64(0.0), last == before, end, (v - end) * slope + end);
}

/// On the table. Written out for NaN, which is not: comparisons may be compiled as their negated opposites.
Expr inside(Expr v) {
  return !is_nan(v) && v >= F64(0.0) && v <= F64(255.0);
}

/// The entry of a table of n + 1 values for v; 0 where v is outside.
Expr entry(Expr v, Expr n) {
  return clamp(cast<int>(select(inside(v), v, F64(0.0)) * (cast<double>(n) / F64(255.0))), 0, n);
}

/// A curve on the 256 scale. What the master makes of each entry of the plane's own table is worked out
/// before, so that a pixel takes one look at a table.
Definition tone_curve(const Target& target, bool colour) {
  ImageParam input(Float(32), 2, "input"), curve(Float(32), 1, "curve_color"), master(Float(32), 1, "curve_gray");
  Param<float> level_min("fLevelMin"), level_range("fLevelRange");
  ImageParam first = colour ? curve : master;
  Expr n = first.dim(0).extent() - 1;
  Expr scale = F64(255.0) / cast<double>(level_range), low = cast<double>(level_min);
  const auto to_raw = [=](Expr u) { return cast<float>(u / scale + low); };
  const auto by_master = [=](Expr v) {
    return select(inside(v), cast<double>(master(entry(v, n))) * F64(255.0), beyond(master, n, v));
  };
  // Raw results: of the entries, and on colour planes of the master's own entries behind them.
  Func results("results");
  Expr own = cast<double>(first(clamp(i, 0, n))) * F64(255.0);
  Expr masters = cast<double>(master(clamp(i - n - 1, 0, n))) * F64(255.0);
  results(i) = colour ? to_raw(select(i > n, masters, by_master(own))) : to_raw(own);
  Func output("output");
  Expr t = (cast<double>(input(x, y)) - low) * scale;
  if (colour) {
    Expr v = beyond(curve, n, t);
    Expr looked = results(select(inside(t), entry(t, n), entry(v, n) + n + 1));
    output(x, y) = select(inside(t) || inside(v), looked, to_raw(beyond(master, n, v)));
  } else {
    output(x, y) = select(inside(t), results(entry(t, n)), to_raw(beyond(master, n, t)));
  }
  results.compute_root();
  ScheduleByStrips(output, target);
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
