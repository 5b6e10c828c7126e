// What a family of pipelines needs to describe itself to its generator.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <Halide.h>

/// One pipeline, built for one target: its inputs and scalars in the order of the call, then its outputs.
struct Definition {
  std::vector<Halide::Argument> arguments;
  std::vector<Halide::Func> outputs;
  std::vector<std::string> outputNames = {};  ///< of the parts when the only output is a Tuple
};

/// A named pipeline. `define` is called once for each compiled form, and must build everything anew.
struct Member {
  std::string name;
  std::function<Definition(const Halide::Target&)> define;
  bool withAvx2 = false;  ///< also compiled for AVX2: pays in convolutions, not in point operations
  bool withBase = false;  ///< also compiled for processors without SSE4.1
};

/// Answers the members of the family that a generator is built for.
std::vector<Member> Family();

/// Makes a double constant: plain literals would be taken for floats.
inline Halide::Expr F64(double value) {
  return Halide::Expr(value);
}

/// Lines of a strip: whole-line strips are the unit of work of a thread in point-like pipelines. Chosen.
constexpr int kStripLines = 64;

/// Schedules a point-like output: strips of whole lines in parallel, vectors of `lanes` floats along x.
inline void ScheduleByStrips(Halide::Func f, const Halide::Target& target, bool update = false) {
  using namespace Halide;
  Var x = f.args()[0], y = f.args()[1], strip("strip"), line("line");
  const int lanes = target.natural_vector_size<float>();
  Stage stage = update ? f.update() : Stage(f);
  stage.split(y, strip, line, kStripLines, TailStrategy::GuardWithIf)
      .parallel(strip)
      .vectorize(x, lanes, TailStrategy::GuardWithIf);
}

/// Answers parts of about `want` of an output's dimension, all of nearly the same size, a multiple of
/// `multiple`. In a tile that stuck out, inner stages would be computed in full.
inline Halide::Expr EvenPart(const Halide::Func& output, int dimension, Halide::Expr want, int multiple) {
  Halide::Expr extent = output.output_buffers()[0].dim(dimension).extent();
  Halide::Expr parts = max((extent + want - 1) / want, 1);
  return max(((extent + parts - 1) / parts + multiple - 1) / multiple, 1) * multiple;
}

/// Schedules an output of stages that reach a few pixels: tiles of about `width` x 128 pixels in parallel, in
/// which rows of the stages slide down, one new row for each of the output.
inline void ScheduleBySlidingRows(Halide::Func output, const std::vector<Halide::Func>& stages,
                                  const Halide::Target& target, Halide::Expr width) {
  using namespace Halide;
  constexpr int kHeight = 128;  // chosen: much above the rows that tiles compute twice
  Var x = output.args()[0], y = output.args()[1], tile("tile"), strip("strip"), u("u"), v("v");
  const int lanes = target.natural_vector_size<float>();
  output
      .tile(x, y, tile, strip, u, v, EvenPart(output, 0, width, lanes), EvenPart(output, 1, kHeight, 1),
            TailStrategy::GuardWithIf)
      .fuse(tile, strip, tile)
      .parallel(tile)
      .vectorize(u, lanes, TailStrategy::GuardWithIf);
  for (Func stage : stages) {
    stage.store_at(output, tile)
        .compute_at(output, v)
        .vectorize(stage.args()[0], lanes, TailStrategy::RoundUp);
  }
}
