// Images on their way to what is shown.
#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Luminance by each plane's levels, brought back to raw by the levels of the grey plane.
Definition tograyraw(const Target& target) {
  std::vector<Argument> arguments, levels;
  std::vector<Expr> channels;
  for (const std::string colour : {"Red", "Green", "Blue"}) {
    std::string name = colour;
    name[0] = static_cast<char>(std::tolower(name[0]));
    ImageParam plane(Float(32), 2, name);
    Param<double> min("f" + colour + "LevelMin"), range("f" + colour + "LevelRange");
    arguments.push_back(plane);
    levels.insert(levels.end(), {min, range});
    // Each channel is rounded to float, as where pixels are read one by one.
    channels.push_back(cast<double>(cast<float>((cast<double>(plane(x, y)) - min) / range * F64(255))));
  }
  Param<double> gray_min("fGrayLevelMin"), gray_range("fGrayLevelRange");
  levels.insert(levels.end(), {gray_min, gray_range});
  arguments.insert(arguments.end(), levels.begin(), levels.end());

  Func togray("togray");
  Expr bright = cast<float>(channels[1] * F64(0.587) + channels[0] * F64(0.299) + channels[2] * F64(0.114));
  togray(x, y) = cast<float>(cast<double>(bright) / F64(255) * gray_range + gray_min);
  ScheduleByStrips(togray, target);
  return {arguments, {togray}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"tograyraw_float", tograyraw}};
}
