// Development of Bayer mosaics into colour or brightness.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), k("k"), parity("parity");

/// A stage of the frame, seen from one of its pixels.
struct Neighbours {
  Func f;

  Expr here() const { return f(x, y); }
  Expr beside() const { return f(x - 1, y) + f(x + 1, y); }
  Expr stacked(int dx = 0) const { return f(x + dx, y - 1) + f(x + dx, y + 1); }
  Expr cross() const { return stacked() + beside(); }
  Expr corners() const { return stacked(-1) + stacked(1); }
};

/// The column and row of red in the 2 x 2 cell; blue lies diagonally opposite.
struct Cfa {
  std::string name;
  int red_x, red_y;
};

/// Every other site of a row is "coloured", red or blue, and the others are green. A row's own colour is the
/// one that is measured in it, and the other one is measured in the rows above and below: the formulas are
/// the same in all rows, and only the result asks which of the two is red.
///
///     row of red    R G R G      own red, other blue
///     row of blue   G B G B      own blue, other red
struct Development {
  ImageParam input{Float(32), 2, "input"};
  Func is_coloured{"is_coloured"}, raw{"raw"}, red_and_blue{"red_and_blue"}, brightness{"brightness"},
      difference{"difference"}, column_sum{"column_sum"};
  Cfa cfa;

  explicit Development(const Cfa& pattern) : cfa(pattern) {
    // A table, for the parity of columns costs more to compute than to read.
    is_coloured(x, parity) = cast<float>((x + parity + (1 + cfa.red_x + cfa.red_y)) % 2);
    Expr coloured = is_coloured(x, y % 2) > 0.0f;

    // Coordinate -1 reads 1, and W reads W - 2: a site keeps its colour across the edges.
    raw(x, y) = BoundaryConditions::mirror_interior(input)(x, y);

    // Brightness. At a coloured site the other colour is the mean of the corners, and green of the cross; at
    // a green site the cross means of red and of blue add up to that of their sums.
    const Neighbours i{raw}, sum{red_and_blue};
    Expr mean_of_corners = 0.25f * i.corners(), mean_of_cross = 0.25f * i.cross();
    red_and_blue(x, y) = i.here() + mean_of_corners;
    brightness(x, y) =
        select(coloured, sum.here() + mean_of_cross, i.here() + 0.25f * sum.cross()) * (1.0f / 3);

    // How far the plain interpolation lies from it: k = 0 the row's own colour, 1 green, 2 the other one.
    difference(x, y, k) = select(k == 0, select(coloured, i.here(), 0.5f * i.beside()),  //
                                 k == 1, select(coloured, mean_of_cross, i.here()),      //
                                 select(coloured, mean_of_corners, 0.5f * i.stacked())) -
                          brightness(x, y);

    // Of three rows; above and below, own and other change places.
    column_sum(x, y, k) = difference(x, y, k) + (difference(x, y - 1, 2 - k) + difference(x, y + 1, 2 - k));
  }

  /// Red, green or blue, by 0 to 2.
  Expr colour(int c) const {
    Expr own_or_other = select(y % 2 == cfa.red_y, c, 2 - c);
    const auto sum = [&](int dx) { return column_sum(x + dx, y, own_or_other); };
    return brightness(x, y) + ((sum(-1) + sum(0)) + sum(1)) * (1.0f / 9);
  }

  /// Each strip slides down line by line through rings of the last lines of every stage, which stay in the
  /// second-level cache. Sliding by pairs of rows, with formulas for each, took twice the time: the
  /// surroundings of each pair were computed anew. The width hardly matters from 1500 columns on.
  void schedule(Func output, const Target& target, bool colours) {
    const int lanes = target.natural_vector_size<float>(), widest = 3000;
    Var strip("strip"), line("line"), tile("tile"), column("column");
    output.split(y, strip, line, kStripLines, TailStrategy::GuardWithIf)
        .split(x, tile, column, EvenPart(output, 0, widest, lanes), TailStrategy::GuardWithIf)
        .reorder(column, line, tile, strip)
        .parallel(strip)
        .vectorize(column, lanes, TailStrategy::GuardWithIf);
    const auto slide = [&](Func stage, int ring) {
      stage.store_at(output, tile)
          .compute_at(output, line)
          .fold_storage(y, ring)
          .vectorize(x, lanes, TailStrategy::RoundUp);
    };
    is_coloured.compute_root().bound(parity, 0, 2).vectorize(x, lanes, TailStrategy::RoundUp);
    slide(raw, 8);
    slide(red_and_blue, 8);
    slide(brightness, 8);
    if (!colours) return;
    for (Func stage : {difference, column_sum}) {
      slide(stage, 4);
      stage.bound(k, 0, 3).reorder(k, x, y).unroll(k);
    }
  }
};

/// One form of the development.
Member member(const Cfa& cfa, bool colours, bool level_cut) {
  const std::string name = std::string("bayer_to_") + (colours ? "rgb_" : "gray_") +
                           (level_cut ? "level_cut_" : "") + cfa.name + "_float";
  const auto define = [=](const Target& target) {
    Development d(cfa);
    Param<float> low("fMin"), high("fMax");
    const auto limited = [&](Expr v) {
      if (!level_cut) return v;
      Expr raised = select(v < low, low, v);  // NaN stays NaN
      return select(raised > high, high, raised);
    };
    Definition definition{{d.input}, {}};
    if (level_cut) definition.arguments.insert(definition.arguments.end(), {low, high});
    Func output("output");
    if (colours) {
      output(x, y) = {limited(d.colour(0)), limited(d.colour(1)), limited(d.colour(2))};
      definition.outputNames = {"output_red", "output_green", "output_blue"};
    } else {
      output(x, y) = limited(d.brightness(x, y));
    }
    d.schedule(output, target, colours);
    definition.outputs = {output};
    return definition;
  };
  return {name, define, true};
}

}  // namespace

std::vector<Member> Family() {
  std::vector<Member> members;
  for (const Cfa& cfa : {Cfa{"RGGB", 0, 0}, Cfa{"GRBG", 1, 0}, Cfa{"BGGR", 1, 1}, Cfa{"GBRG", 0, 1}}) {
    for (const bool colours : {true, false}) {
      for (const bool level_cut : {false, true}) {
        members.push_back(member(cfa, colours, level_cut));
      }
    }
  }
  return members;
}
