// Sums and the like over windows of planes, the same for any number of threads and every vector length.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Driver.h"

/// Answers the luminance.
inline Halide::Expr brightness(Halide::Expr r, Halide::Expr g, Halide::Expr b) {
  using Halide::cast;
  return cast<double>(g) * F64(0.587) + cast<double>(r) * F64(0.299) + cast<double>(b) * F64(0.114);
}

/// Folds value(column, y) over the columns from 0 to width - 1 of each row: kLanes columns at a time, the
/// rest after them, and then the lanes. The order depends on the width alone, so that any number of threads
/// and every vector length give the same number.
inline Halide::Func FoldRows(
    const std::string& name, Halide::Expr width, const Halide::Tuple& start,
    const std::function<Halide::Tuple(const Halide::Tuple& soFar, const Halide::Tuple& more)>& fold,
    const std::function<Halide::Tuple(Halide::Expr column, Halide::Expr row)>& value) {
  using namespace Halide;
  constexpr int kLanes = 16;
  Var u("u"), y("y");
  Func lane(name + "_lane"), row(name);
  RDom blocks(0, width / kLanes, "blocks"), rest(0, width % kLanes, "rest"), lanes(0, kLanes, "lanes");
  const auto at = [](const Func& f, const std::vector<Expr>& place) -> Tuple {
    FuncRef ref = f(place);
    if (f.outputs() == 1) return Tuple(Expr(ref));
    std::vector<Expr> parts;
    for (int i = 0; i < f.outputs(); ++i) {
      parts.push_back(ref[i]);
    }
    return Tuple(parts);
  };
  lane(u, y) = start;
  lane(u, y) = fold(at(lane, {u, y}), value(blocks * kLanes + u, y));
  lane(rest, y) = fold(at(lane, {rest, y}), value(width / kLanes * kLanes + rest, y));
  row(y) = start;
  row(y) = fold(at(row, {y}), at(lane, {lanes, y}));

  lane.bound(u, 0, kLanes).compute_at(row, y).vectorize(u);
  lane.update(0).reorder(u, blocks).vectorize(u);
  lane.update(1).unscheduled();
  row.compute_root();
  row.update().reorder(lanes, y).parallel(y, 16, TailStrategy::GuardWithIf);
  return row;
}
