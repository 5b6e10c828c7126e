// The colour matrix, from the levels of a source to those of a target.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Shares of the source's levels are mixed by the matrix and become the same shares of the target's. A
/// coefficient of 0 leaves its plane out, NaN and infinities too. A strength mixes the source's raw value in.
Member color_correct(const std::string& name, bool with_strength) {
  const auto define = [=](const Target& target) {
    const std::string lower[] = {"red", "green", "blue"}, upper[] = {"Red", "Green", "Blue"};
    std::vector<ImageParam> input;
    std::vector<Param<double>> a;
    Param<double> strength("fStrength");
    struct Levels {
      Param<double> min, range;
    };
    std::vector<Levels> from, to;
    Definition definition;
    const auto add = [&](auto& list, const auto& parameter) {
      list.push_back(parameter);
      definition.arguments.emplace_back(parameter);
    };
    for (const std::string& plane : lower) {
      add(input, ImageParam(Float(32), 2, plane + "_input"));
    }
    for (int i = 0; i < 9; ++i) {
      add(a, Param<double>("fA" + std::to_string(i / 3 + 1) + std::to_string(i % 3 + 1)));
    }
    if (with_strength) definition.arguments.emplace_back(strength);
    for (auto* levels : {&from, &to}) {
      for (const std::string& plane : upper) {
        const std::string side = levels == &from ? "Input" : "Output";
        levels->push_back({Param<double>("f" + plane + "LevelMin" + side),
                           Param<double>("f" + plane + "LevelRange" + side)});
        definition.arguments.insert(definition.arguments.end(), {levels->back().min, levels->back().range});
      }
    }

    std::vector<Expr> corrected;
    for (int i = 0; i < 3; ++i) {
      Expr coefficients[3], sum = to[i].min;
      for (int j = 0; j < 3; ++j) {
        const auto& factor = a[3 * i + j];
        coefficients[j] = select(factor == F64(0), F64(0), factor * to[i].range / from[j].range);
        sum -= coefficients[j] * from[j].min;
      }
      for (int j = 0; j < 3; ++j) {
        Expr term = coefficients[j] * cast<double>(input[j](x, y));
        sum += select(a[3 * i + j] == F64(0), F64(0), term);
      }
      if (with_strength) sum = strength * sum + (F64(1) - strength) * cast<double>(input[i](x, y));
      corrected.push_back(cast<float>(sum));
      definition.outputNames.push_back(lower[i] + "_output");
    }
    Func output("output");
    output(x, y) = Tuple(corrected);
    ScheduleByStrips(output, target);
    definition.outputs = {output};
    return definition;
  };
  return {name, define};
}

}  // namespace

std::vector<Member> Family() {
  return {color_correct("color_correct_float", true), color_correct("color_correct1_float", false)};
}
