// Point operations: one pixel in, one pixel out; and the copies of windows between planes.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), c("c");

/// Not below 0; NaN stays NaN, which max() would not promise.
Expr not_negative(Expr v) {
  return select(v < 0.0f, 0.0f, v);
}

using PointFormula = std::function<Expr(Expr)>;

/// output(x, y) = formula(input(x, y)).
Definition point(const Target& target, std::vector<Argument> scalars, const PointFormula& formula) {
  ImageParam input(Float(32), 2, "input");
  Func output("output");
  output(x, y) = formula(input(x, y));
  ScheduleByStrips(output, target);
  std::vector<Argument> arguments = {input};
  arguments.insert(arguments.end(), scalars.begin(), scalars.end());
  return {arguments, {output}};
}

Definition invert(const Target& target) {
  Param<float> in_min("fInputLevelMin"), in_range("fInputLevelRange");
  Param<float> out_min("fOutputLevelMin"), out_range("fOutputLevelRange");
  return point(target, {in_min, in_range, out_min, out_range}, [=](Expr s) {
    Expr inverse = 1.0f / in_range;
    return (255.0f - (s - in_min) * inverse * 255.0f) * 0.003921569f * out_range + out_min;
  });
}

Definition bright(const Target& target) {
  Param<float> min("fLevelMin"), range("fLevelRange"), average("fAverage"), bright("fBright"),
      contrast("fContrast");
  return point(target, {min, range, average, bright, contrast}, [=](Expr s) {
    Expr to256 = 255.0f / range, to_raw = range / 255.0f, turn = contrast * 0.00390625f;
    Expr t = (s - min) * to256;
    return ((t - average) * turn + bright + t) * to_raw + min;
  });
}

/// output = operation(lhs, rhs) with one number on the right.
Member scalar_member(const std::string& name, const std::function<Expr(Expr, Expr)>& operation) {
  return {name, [=](const Target& target) {
            ImageParam lhs(Float(32), 2, "lhs");
            Param<float> rhs("rhs");
            Func output("output");
            output(x, y) = operation(lhs(x, y), rhs);
            ScheduleByStrips(output, target);
            return Definition{{lhs, rhs}, {output}};
          }};
}

Definition sub_scalar_inplace(const Target& target) {
  Param<float> rhs("rhs");
  Func output("output");
  output(x, y) = undef<float>();
  output(x, y) = output(x, y) - rhs;
  ScheduleByStrips(output, target, true);
  return {{rhs}, {output}};
}

Definition sub0(const Target& target) {
  ImageParam lhs(Float(32), 2, "lhs"), rhs(Float(32), 2, "rhs");
  Func output("output");
  output(x, y) = not_negative(lhs(x, y) - rhs(x, y));
  ScheduleByStrips(output, target);
  return {{lhs, rhs}, {output}};
}

/// Pixels for which condition(pixel, threshold) holds become a value.
Member threshold_member(const std::string& name, const std::function<Expr(Expr, Expr)>& condition) {
  return {name, [=](const Target& target) {
            Param<float> threshold("threshold"), value("value");
            return point(target, {threshold, value},
                         [=](Expr s) { return select(condition(s, threshold), Expr(value), s); });
          }};
}

Definition cut_out_of_zero_level(const Target& target) {
  Param<float> min("fMin"), range("fRange"), range_r("fRangeR");  // range_r is the one that all planes get
  return point(target, {min, range, range_r},
               [=](Expr s) { return not_negative((s - min) * range_r / range); });
}

/// The window and the shift that the pastes share.
struct PasteWindow {
  Param<int> start_x{"start_x"}, end_x{"end_x"}, start_y{"start_y"}, end_y{"end_y"};
  Param<int> shift_x{"shift_x"}, shift_y{"shift_y"};

  std::vector<Argument> arguments(const std::vector<Argument>& first) const {
    std::vector<Argument> all = first;
    for (const auto& p : {start_x, end_x, start_y, end_y, shift_x, shift_y}) {
      all.push_back(p);
    }
    return all;
  }
  Expr source_x(Expr at) const { return at - start_x + shift_x; }
  Expr source_y(Expr at) const { return at - start_y + shift_y; }
};

/// output(x, y) = input(x - start_x + shift_x, y - start_y + shift_y) inside the window; the rest stays.
Member paste_member(const std::string& name, Type type, int dimensions) {
  return {name, [=](const Target& target) {
            ImageParam input(type, dimensions, "input");
            PasteWindow w;
            Func paste("paste");
            RDom r(w.start_x, w.end_x - w.start_x, w.start_y, w.end_y - w.start_y);
            if (dimensions == 2) {
              paste(x, y) = undef(type);
              paste(r.x, r.y) = input(w.source_x(r.x), w.source_y(r.y));
            } else {
              paste(x, y, c) = undef(type);
              paste(r.x, r.y, c) = input(w.source_x(r.x), w.source_y(r.y), c);
              paste.update().reorder(r.x, c, r.y);
            }
            RVar strip("strip"), line("line");
            paste.update()
                .split(r.y, strip, line, kStripLines, TailStrategy::GuardWithIf)
                .parallel(strip)
                .vectorize(r.x, target.natural_vector_size(type), TailStrategy::GuardWithIf);
            return Definition{w.arguments({input}), {paste}};
          }};
}

/// Reads past the window repeat its last row and column.
Definition paste_rect(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  PasteWindow w;
  Func output("output");
  output(x, y) =
      input(clamp(x + w.shift_x, w.start_x, w.end_x - 1), clamp(y + w.shift_y, w.start_y, w.end_y - 1));
  ScheduleByStrips(output, target);
  return {w.arguments({input}), {output}};
}

/// As a paste, with `fill` outside the window and where the window reads outside the input.
Definition paste_with_fill(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<float> fill("fill");
  PasteWindow w;
  Func paste("paste");
  Expr sx = w.source_x(x), sy = w.source_y(y);
  Expr inside = x >= w.start_x && x < w.end_x && y >= w.start_y && y < w.end_y && sx >= input.dim(0).min() &&
                sx <= input.dim(0).max() && sy >= input.dim(1).min() && sy <= input.dim(1).max();
  paste(x, y) = select(inside,
                       input(clamp(sx, input.dim(0).min(), input.dim(0).max()),
                             clamp(sy, input.dim(1).min(), input.dim(1).max())),
                       fill);
  ScheduleByStrips(paste, target);
  return {w.arguments({input, fill}), {paste}};
}

Definition fill_area(const Target& target) {
  Param<float> value("value");
  Param<int> start_x("nStartX"), end_x("nEndX"), start_y("nStartY"), end_y("nEndY");
  Func output("output");
  RDom r(start_x, end_x - start_x, start_y, end_y - start_y);
  output(x, y) = undef<float>();
  output(r.x, r.y) = value;
  output.update().vectorize(r.x, target.natural_vector_size<float>(), TailStrategy::GuardWithIf);
  return {{value, start_x, end_x, start_y, end_y}, {output}};
}

Definition copy(const Target& target) {
  return point(target, {}, [](Expr s) { return s; });
}

}  // namespace

std::vector<Member> Family() {
  return {
      {"invert_float", invert},
      {"bright_float", bright},
      scalar_member("add_scalar_float", [](Expr a, Expr b) { return a + b; }),
      scalar_member("sub_scalar_float", [](Expr a, Expr b) { return a - b; }),
      scalar_member("mul_scalar_float", [](Expr a, Expr b) { return a * b; }),
      scalar_member("sub0_scalar_float", [](Expr a, Expr b) { return not_negative(a - b); }),
      {"sub_scalar_inplace_float", sub_scalar_inplace},
      {"sub0_float", sub0},
      threshold_member("threshold_lt_float", [](Expr s, Expr t) { return s < t; }),
      // Not s <= t: the compiler may turn that into !(t < s), which is true for NaN.
      threshold_member("threshold_leq_float", [](Expr s, Expr t) { return s < t || s == t; }),
      threshold_member("threshold_gt_float", [](Expr s, Expr t) { return s > t; }),
      threshold_member("threshold_eq_float", [](Expr s, Expr t) { return s == t; }),
      threshold_member("threshold_neq_float", [](Expr s, Expr t) { return s != t; }),
      {"cut_out_of_zero_level_float", cut_out_of_zero_level},
      {"copy_float", copy},
      paste_member("paste_float", Float(32), 2),
      paste_member("paste_uint8", UInt(8), 2),
      paste_member("paste_uint32", UInt(32), 2),
      paste_member("paste3d_uint8", UInt(8), 3),
      {"paste_rect_float", paste_rect},
      {"paste_with_fill_float", paste_with_fill},
      {"fill_area_float", fill_area},
  };
}
