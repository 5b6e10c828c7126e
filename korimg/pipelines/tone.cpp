// Tone correction of Bayer mosaics, each position of the 2 x 2 cell by its own numbers; and gamma.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// As an expression, so that it has the same bits in vectors of all lengths: pow() calls the C library for
/// what is left at the end of a line.
Expr power(Expr base, Expr exponent) {
  return Internal::halide_exp(Internal::halide_log(base) * exponent);
}

/// Four numbers by position in the cell: 2 x parity of the row + parity of the column.
struct ByPosition {
  std::vector<Param<float>> numbers;

  explicit ByPosition(const std::string& name) {
    for (int i = 0; i < 4; ++i) {
      numbers.emplace_back(name + std::to_string(i));
    }
  }
  Expr here() const {
    Expr upper = y % 2 == 0;
    return select(x % 2 == 0, select(upper, numbers[0], numbers[2]), select(upper, numbers[1], numbers[3]));
  }
};

Member tone_member(bool by_power, bool level_cut, bool knee) {
  const std::string name = std::string("tone_curve_correct_") + (by_power ? "curve_power_" : "") +
                           (level_cut ? "levelcut_" : "") + (knee ? "maker_" : "") + "float";
  const auto define = [=](const Target& target) {
    ImageParam input(Float(32), 2, "input");
    Param<float> low("fMin"), high("fMax"), exponent("fCurvePower");
    const ByPosition gain("fGain"), point_x("fPointX"), point_y("fPointY"), ratio("fRatio");
    const auto within = [&](Expr v) { return v > low && v < high; };
    const auto limited = [&](Expr v) { return select(v < low, low, select(v > high, high, v)); };

    Expr v = input(x, y), corrected = v * gain.here();
    if (knee) {
      Expr d = v - low;
      corrected =
          select(v < point_x.here(), d * gain.here(), (d - point_x.here()) * ratio.here() + point_y.here()) +
          low;
      corrected = level_cut ? select(v < low, low, select(v > high, high, corrected))
                            : select(within(v), corrected, v);
    } else if (level_cut) {
      corrected = limited(corrected);
    }
    Func output("output");
    if (by_power) {
      // On the scale of 0 to 1, where no power overflows.
      Func tone("tone");
      tone(x, y) = corrected;
      Expr t = tone(x, y);
      Expr curved = high * power(1.0f - power((high - t) / high, exponent), 1.0f / exponent);
      output(x, y) = select(within(t) && t >= 0.0f, curved, t);  // below 0 there is no such power
    } else {
      output(x, y) = corrected;
    }
    ScheduleByStrips(output, target);

    Definition definition{{input, low, high}, {output}};
    for (const ByPosition& four : {gain, point_x, point_y, ratio}) {
      definition.arguments.insert(definition.arguments.end(), four.numbers.begin(), four.numbers.end());
    }
    if (by_power) definition.arguments.emplace_back(exponent);
    return definition;
  };
  return {name, define};
}

/// Above the minimum, ((v - minimum) / range) ^ gamma on the same range. Infinity stays.
Definition gamma_correct(const Target& target) {
  Param<float> minimum("fLevelMin"), range("fLevelRange"), gamma("fGamma");
  Func output("output");
  output(x, y) = undef<float>();
  Expr v = output(x, y);
  Expr bent = power((v - minimum) / range, gamma) * range + minimum;
  output(x, y) = select(v > minimum && !is_inf(v), bent, v);
  ScheduleByStrips(output, target, true);
  return {{minimum, range, gamma}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  std::vector<Member> members = {{"gamma_correct_float", gamma_correct}};
  for (const bool by_power : {false, true}) {
    for (const bool level_cut : {false, true}) {
      for (const bool knee : {false, true}) {
        members.push_back(tone_member(by_power, level_cut, knee));
      }
    }
  }
  return members;
}
