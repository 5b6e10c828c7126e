// Planes read between their pixels: scaled, turned and shifted.
#include "Sampling.h"

#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), k("k"), xo("xo"), yo("yo"), xi("xi"), yi("yi");

/// Where the pixels of a scaled axis look in the source: the first tap's place and the weights, as a table.
struct ScaledAxis {
  Func table;
  Kernel kernel;
  Expr first;  ///< of the table's index n

  ScaledAxis(const std::string& name, Kernel kernel, Var n, Expr size, Expr new_size)
      : table(name), kernel(kernel) {
    constexpr double kSlope = -0.1;  // of the bicubic kernel, softer than that of turns and shifts
    Expr ratio = cast<float>(size) / cast<float>(max(new_size, 1));
    Expr s = clamp(cast<float>(n) * ratio, 0.0f, cast<float>(size));
    Expr at = cast<int>(kernel == Kernel::Nearest ? s + 0.5f : s);
    first = at + FirstTap(kernel);
    std::vector<Expr> parts = {Unbounded(first)};
    for (const Expr& weight : KernelWeights(kernel, s - cast<float>(at), kSlope)) {
      parts.push_back(weight);
    }
    table(n) = Tuple(parts);
  }
  Expr tap(Expr n) const { return reinterpret<int>(table(n)[0]); }
  std::vector<Expr> weights(Expr n) const {
    std::vector<Expr> all;
    for (int i = 0; i < Taps(kernel); ++i) {
      all.push_back(table(n)[1 + i]);
    }
    return all;
  }
};

/// What the scaling pipelines share: a plane, its new size, and a table for each axis.
struct Scaling {
  ImageParam input{Float(32), 2, "input"};
  Param<int> new_width{"new_width"}, new_height{"new_height"};
  Expr width = input.dim(0).extent(), height = input.dim(1).extent();
  ScaledAxis across, down;

  explicit Scaling(Kernel kernel)
      : across("across", kernel, x, width, new_width), down("down", kernel, y, height, new_height) {}

  /// Schedules the tables; the rest of the output's schedule stands before.
  Definition definition(const Func& output, int wide) {
    across.table.compute_root().vectorize(x, wide, TailStrategy::RoundUp);
    down.table.compute_root().vectorize(y, wide, TailStrategy::RoundUp);
    return {{input, new_width, new_height}, {output}};
  }
};

/// An output's line is written in few parts: memory takes long runs best (docs/performance.md, "Geometry").
constexpr int kWholeLines = 1 << 14;

/// The columns of taps added for the source's lines, and of these the rows: of an enlargement the first step,
/// which is the dear one, has fewer lines than the second.
Member bilinear_resolution_member() {
  return {
      "resolution_bilinear_float",
      [](const Target& target) {
        Scaling scaling(Kernel::Bilinear);
        auto& [input, new_width, new_height, width, height, across, down] = scaling;
        const int wide = target.natural_vector_size<float>();

        Func line("line"), taps("taps"), lines("lines"), output("output");
        line(x, y) = input(AtEdges(x, width), clamp(y, 0, height - 1));
        taps(k, x, y) = line(unsafe_promise_clamped(across.tap(x) + k, across.first, across.first + 1), y);
        lines(x, y) = WeightedTaps(Kernel::Bilinear, {taps(0, x, y), taps(1, x, y)}, across.weights(x));
        Expr sample =
            WeightedTaps(Kernel::Bilinear, {lines(x, down.first), lines(x, down.first + 1)}, down.weights(y));
        // Half the size takes every second pixel as it is. As bits, since strict floats keep both sides of
        // a choice that is known.
        Expr halved = width == 2 * new_width && height == 2 * new_height;
        Expr second = input(AtEdges(2 * x, width), clamp(2 * y, 0, height - 1));
        output(x, y) =
            reinterpret<float>(select(halved, reinterpret<uint32_t>(second), reinterpret<uint32_t>(sample)));
        output
            .tile(x, y, xo, yo, xi, yi, EvenPart(output, 0, kWholeLines, wide), kStripLines,
                  TailStrategy::GuardWithIf)
            .vectorize(xi, wide, TailStrategy::GuardWithIf)
            .parallel(yo);
        output.specialize(halved);
        lines.compute_at(output, xo).vectorize(x, wide, TailStrategy::RoundUp);
        line.compute_at(lines, y).vectorize(x, wide, TailStrategy::RoundUp);
        taps.compute_at(lines, y).bound(k, 0, 2).vectorize(k).unroll(x, wide, TailStrategy::RoundUp);
        return scaling.definition(output, wide);
      },
      true};
}

/// One load and one store for each pixel, at places from tables: vectors would be put together lane by lane.
/// Half the size is loads of every second pixel, which vectors are good at.
Member nearest_resolution_member() {
  return {"resolution_nearest_float",
          [](const Target& target) {
            Scaling scaling(Kernel::Nearest);
            auto& [input, new_width, new_height, width, height, across, down] = scaling;
            Expr column = unsafe_promise_clamped(min(across.tap(x), width - 1), 0, width - 1);
            Expr row = clamp(down.tap(y), 0, height - 1);
            Expr halved = width == 2 * new_width;
            Func output("output");
            output(x, y) = input(select(halved, AtEdges(2 * x, width), column), row);
            output.split(y, yo, yi, kStripLines, TailStrategy::GuardWithIf).parallel(yo);
            const int wide = target.natural_vector_size<float>();
            output.specialize(halved).vectorize(x, wide, TailStrategy::GuardWithIf);
            output.unroll(x, 8, TailStrategy::GuardWithIf);
            return scaling.definition(output, wide);
          },
          true, true};
}

Member resolution_member(const NamedKernel& named) {
  const Kernel kernel = named.kernel;
  if (kernel == Kernel::Bilinear) return bilinear_resolution_member();
  if (kernel == Kernel::Nearest) return nearest_resolution_member();
  return {std::string("resolution_") + named.name + "_float",
          [=](const Target& target) {
            Scaling scaling(kernel);
            auto& [input, new_width, new_height, width, height, across, down] = scaling;
            const int taps = Taps(kernel), lanes = taps == 6 ? 8 : taps,
                      wide = target.natural_vector_size<float>();

            // The rows of taps added for the source's columns; then, for each pixel, its taps of that row as
            // one vector, and their sum.
            Func rows("rows"), row_taps("row_taps"), output("output");
            std::vector<Expr> added, single;
            for (int i = 0; i < taps; ++i) {
              added.push_back(input(AtEdges(x, width), clamp(down.tap(y) + i, 0, height - 1)));
            }
            rows(x, y) = WeightedTaps(kernel, added, down.weights(y));
            row_taps(k, x, y) =
                rows(unsafe_promise_clamped(across.tap(x) + k, across.first, across.first + lanes - 1), y);
            for (int i = 0; i < taps; ++i) {
              single.push_back(row_taps(i, x, y));
            }
            output(x, y) = WeightedTaps(kernel, single, across.weights(x));

            // The taps of a part stay in the first-level cache.
            output
                .tile(x, y, xo, yo, xi, yi, EvenPart(output, 0, 2048, wide), kStripLines,
                      TailStrategy::GuardWithIf)
                .vectorize(xi, wide, TailStrategy::GuardWithIf)
                .parallel(yo);
            rows.compute_at(output, yi).vectorize(x, wide, TailStrategy::RoundUp);
            row_taps.compute_at(output, yi)
                .bound(k, 0, lanes)
                .vectorize(k)
                .unroll(x, wide, TailStrategy::RoundUp);
            return scaling.definition(output, wide);
          },
          true, kernel != Kernel::Bicubic};
}

/// The parameters of a turn, and where the output's pixels come from.
struct Turn {
  Param<float> shift_x{"shift_x"}, shift_y{"shift_y"}, center_x{"center_x"}, center_y{"center_y"};
  Param<float> cosR{"cosR"}, sinR{"sinR"};

  Position position() const {
    return Turned(cast<float>(x) + shift_x - center_x, center_y - (cast<float>(y) + shift_y), center_x,
                  center_y, cosR, sinR);
  }
  std::vector<Argument> arguments(std::vector<Argument> all) const {
    for (const auto& p : {shift_x, shift_y, center_x, center_y, cosR, sinR}) {
      all.push_back(p);
    }
    return all;
  }
};

Member rotate_member(const NamedKernel& named) {
  return {std::string("rotate_") + named.name + "_float",
          [=](const Target& target) {
            ImageParam input(Float(32), 2, "input");
            Param<float> outside("outside");
            Turn turn;
            Sample sample = SampleAt(input, named.kernel, turn.position());
            Func output("output");
            output(x, y) = sample.Or(outside);
            sample.schedule(output, target);
            std::vector<Argument> arguments = turn.arguments({input});
            arguments.push_back(outside);
            return Definition{arguments, {output}};
          },
          true};
}

/// Where the output's pixels come from by a table that holds, for each of its rows, the terms of two
/// polynomials of s = (x - middle) * scale: what u is off x by, then v itself.
struct Warp {
  static constexpr int kTerms = 8;  // as MapRows has

  ImageParam rows{Float(32), 2, "rows"};
  Param<float> middle{"middle"}, scale{"scale"};

  Position position() {
    rows.dim(0).set_bounds(0, 2 * kTerms);
    Expr column = cast<float>(x), s = (column - middle) * scale, s2 = s * s, s4 = s2 * s2;
    // Estrin's order: half of what Horner's waits for.
    const auto sum = [&](int first) {
      const auto pair = [&](int term) { return rows(first + term, y) + rows(first + term + 1, y) * s; };
      return pair(0) + pair(2) * s2 + (pair(4) + pair(6) * s2) * s4;
    };
    return {column + sum(0), sum(kTerms)};
  }
};

Member warp_member(const NamedKernel& named, const char* prefix, Weighting weighting) {
  return {std::string(prefix) + named.name + "_float",
          [=](const Target& target) {
            ImageParam input(Float(32), 2, "input");
            Param<float> outside("outside");
            Warp warp;
            Sample sample = SampleAt(input, named.kernel, warp.position(), weighting);
            Func output("output");
            output(x, y) = sample.Or(outside);
            sample.schedule(output, target);
            return Definition{{input, warp.rows, warp.middle, warp.scale, outside}, {output}};
          },
          true};
}

/// 1 where a position lies on a plane of this size.
Definition mask(const Target& target, const Expr& inside, const std::vector<Argument>& arguments) {
  Func output("output");
  output(x, y) = select(inside, 1, 0);
  ScheduleByStrips(output, target);
  return {arguments, {output}};
}

Definition rotate_mask(const Target& target) {
  Param<int> width("width"), height("height");
  Turn turn;
  return mask(target, IsInside(turn.position(), width, height), turn.arguments({width, height}));
}

Definition warp_mask(const Target& target) {
  Param<int> width("width"), height("height");
  Warp warp;
  Expr inside = IsInside(warp.position(), width, height);
  return mask(target, inside, {width, height, warp.rows, warp.middle, warp.scale});
}

Definition translate_intshift(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<int> shift_x("shift_x"), shift_y("shift_y");
  Param<float> outside("outside");
  Sample sample = SampleWholeShift(input, shift_x, shift_y);
  Func output("output");
  output(x, y) = sample.Or(outside);
  sample.schedule(output, target);
  return {{input, shift_x, shift_y, outside}, {output}};
}

Definition translate_floatshift_bicubic(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Param<float> shift_x("shift_x"), shift_y("shift_y"), outside("outside");
  Sample sample = SampleShifted(input, Kernel::Bicubic, shift_x, shift_y);
  Func composit("composit");
  composit(x, y) = sample.Or(outside);
  sample.schedule(composit, target);
  return {{input, shift_x, shift_y, outside}, {composit}};
}

Definition translate_intshift_mask(const Target& target) {
  Param<int> width("width"), height("height"), shift_x("shift_x"), shift_y("shift_y");
  return mask(target, IsInside(WholeShift(shift_x, shift_y), width, height),
              {width, height, shift_x, shift_y});
}

Definition translate_floatshift_mask(const Target& target) {
  Param<int> width("width"), height("height");
  Param<float> shift_x("shift_x"), shift_y("shift_y");
  return mask(target, IsInside({cast<float>(x) - shift_x, cast<float>(y) - shift_y}, width, height),
              {width, height, shift_x, shift_y});
}

}  // namespace

std::vector<Member> Family() {
  std::vector<Member> members;
  for (const NamedKernel& kernel : kKernels) {
    members.push_back(resolution_member(kernel));
    members.push_back(rotate_member(kernel));
    members.push_back(warp_member(kernel, "warp_", Weighting::Plain));
    members.push_back(warp_member(kernel, "warp_variance_", Weighting::Squared));
  }
  members.insert(members.end(), {{"rotate_mask", rotate_mask},
                                 {"warp_mask", warp_mask},
                                 {"translate_intshift_float", translate_intshift},
                                 {"translate_floatshift_bicubic_float", translate_floatshift_bicubic, true},
                                 {"translate_intshift_mask", translate_intshift_mask},
                                 {"translate_floatshift_mask", translate_floatshift_mask}});
  return members;
}
