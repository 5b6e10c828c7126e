// Planes of floats into interleaved bytes for the screen.
#include <limits>

#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), c("c");

/// One plane and its levels, as 0 to 255.
struct Channel {
  ImageParam plane;
  Expr min, range;

  /// 0 up to the level minimum and for NaN, 255 from the maximum on. The ratio is a trifle too large, so that
  /// the maximum gives 255 without a comparison; without a range it is infinite, and any pixel above is 255.
  Expr shown() const {
    Expr v = plane(x, y), low = cast<float>(min), span = cast<float>(min + range) - low;
    Expr ratio = select(span > 0.0f, 255.0f / span * (1 + 0x1p-22f), std::numeric_limits<float>::infinity());
    Expr scaled = (v - low) * ratio;
    Expr raised = select(scaled > 0.0f, scaled, 0.0f);  // NaN too
    return cast<uint8_t>(cast<int>(select(raised < 255.0f, raised, 255.0f)));
  }
};

/// Lines of whole pixels in vectors: the channels of one vector are woven into one another in registers.
void schedule(Func output, const Target& target) {
  const int lanes = target.natural_vector_size<uint8_t>();
  OutputImageParam buffer = output.output_buffer();
  buffer.dim(0).set_stride(Expr());  // pixels need not lie side by side
  Var strip("strip"), line("line");
  for (const int channels : {4, 3}) {
    output
        .specialize(buffer.dim(0).stride() == channels && buffer.dim(2).stride() == 1 &&
                    buffer.dim(2).min() == 0 && buffer.dim(2).extent() == channels)
        .split(y, strip, line, kStripLines, TailStrategy::GuardWithIf)
        .reorder(c, x, line, strip)
        .unroll(c)
        .parallel(strip)
        .vectorize(x, lanes, TailStrategy::GuardWithIf);
  }
  ScheduleByStrips(output, target);
}

/// name(x, y, c) = blue, green, red, 0.
template <class Level>
Member bitmap(const std::string& name, const std::string& output) {
  return {name,
          [=](const Target& target) {
            Definition definition;
            std::vector<Argument> levels;
            std::vector<Expr> channels = {cast<uint8_t>(0)};
            for (const std::string colour : {"Red", "Green", "Blue"}) {
              std::string plane = colour;
              plane[0] = static_cast<char>(std::tolower(plane[0]));
              Param<Level> min("f" + colour + "LevelMin"), range("f" + colour + "LevelRange");
              const Channel channel{ImageParam(Float(32), 2, plane), min, range};
              definition.arguments.push_back(channel.plane);
              levels.insert(levels.end(), {min, range});
              channels.insert(channels.begin(), channel.shown());
            }
            definition.arguments.insert(definition.arguments.end(), levels.begin(), levels.end());
            Func dib(output);
            dib(x, y, c) = mux(c, channels);
            schedule(dib, target);
            definition.outputs = {dib};
            return definition;
          },
          true};
}

}  // namespace

std::vector<Member> Family() {
  return {bitmap<double>("todib32_float", "dib"), bitmap<float>("image_buffer_32bit_float", "output")};
}
