// Between planes of pixels and planes of complex numbers, and the latter in logarithms and polar coordinates.
// The first dimension of complex planes is the part, real and imaginary.
#include <limits>

#include "Driver.h"

using namespace Halide;

namespace {

Var part("part"), x("x"), y("y");

/// Strips of lines. Parts that are neighbours are woven into one another, or taken apart, in registers.
void schedule(Func output, const Target& target, bool update = false) {
  OutputImageParam buffer = output.output_buffer();
  Stage stage = update ? output.update() : Stage(output);
  Var strip("strip"), line("line");
  const int lanes = target.natural_vector_size<float>();
  stage.specialize(buffer.dim(0).min() == 0 && buffer.dim(0).extent() == 2 && buffer.dim(1).stride() == 2)
      .split(y, strip, line, kStripLines, TailStrategy::GuardWithIf)
      .reorder(part, x, line, strip)
      .unroll(part)
      .parallel(strip)
      .vectorize(x, lanes, TailStrategy::GuardWithIf);
  stage.parallel(y);
}

/// output(x, y) = input(index, x, y).
Definition get_fft(const Target& target, int index) {
  ImageParam input(Float(32), 3, "input");
  Func output("output");
  output(x, y) = input(index, x, y);
  ScheduleByStrips(output, target);
  output.specialize(input.dim(1).stride() == 2);
  return {{input}, {output}};
}

Definition put_fft_real(const Target& target) {
  ImageParam input(Float(32), 2, "input");
  Func output("output");
  output(part, x, y) = select(part == 0, input(x, y), 0.0f);
  schedule(output, target);
  return {{input}, {output}};
}

/// log(v + 1) of the real parts, in place, or log(v - remin + 1) when remin is not above 0.
Definition log_tone(const Target& target) {
  Param<float> remin("remin");
  Func output("output");
  output(part, x, y) = undef<float>();
  Expr argument = output(part, x, y) - select(remin > 0.0f, 0.0f, remin) + 1.0f;
  Expr logarithm =
      select(argument < std::numeric_limits<float>::infinity(), Internal::halide_log(argument), argument);
  output(part, x, y) = select(part == 0, logarithm, output(part, x, y));
  schedule(output, target, true);
  return {{remin}, {output}};
}

/// The smallest real part. NaN is passed over.
Definition remin(const Target&) {
  ImageParam input(Float(32), 3, "input");
  Func smallest("output"), row("row");
  RDom columns(input.dim(1).min(), input.dim(1).extent()), rows(input.dim(2).min(), input.dim(2).extent());
  const float none = std::numeric_limits<float>::infinity();
  row(y) = none;
  Expr v = input(0, columns, y);
  row(y) = select(v < row(y), v, row(y));
  smallest() = none;
  smallest() = select(row(rows) < smallest(), row(rows), smallest());
  row.compute_root().update().parallel(y);
  return {{input}, {smallest}};
}

/// The real parts by angle along x and logarithm of the radius along y, about the middle; bilinear, 0
/// outside.
Definition to_log_polar(const Target& target) {
  ImageParam input(Float(32), 3, "input");
  Param<float> rho_start("fRhoStart"), rho_step("fDeltaRho"), theta_start("fThetaStart"),
      theta_step("fDeltaTheta");
  Func output("output"), cosine("cosine"), sine("sine"), radius("radius");
  Expr theta = cast<double>(theta_start + cast<float>(x) * theta_step);
  cosine(x) = cast<float>(cos(theta));
  sine(x) = cast<float>(sin(theta));
  radius(y) = cast<float>(exp(cast<double>(rho_start + cast<float>(y) * rho_step)));

  Expr width = input.dim(1).extent(), height = input.dim(2).extent();
  Expr right = cast<float>(width) - 0.5f, bottom = cast<float>(height) - 0.5f;
  Expr px = cosine(x) * radius(y) + cast<float>(width) * 0.5f - 0.5f;
  Expr py = sine(x) * radius(y) + cast<float>(height) * 0.5f - 0.5f;
  Expr inside = px > -0.5f && px < right && py > -0.5f && py < bottom;
  px = select(inside, px, 0.0f);  // NaN is no index
  py = select(inside, py, 0.0f);
  Expr column = cast<int>(floor(px)), row = cast<int>(floor(py));
  Expr fx = px - cast<float>(column), fy = py - cast<float>(row);
  const auto at = [&](Expr i, Expr j) { return input(0, clamp(i, 0, width - 1), clamp(j, 0, height - 1)); };
  const auto along = [&](Expr j) { return at(column, j) * (1.0f - fx) + at(column + 1, j) * fx; };
  output(part, x, y) = select(part == 0 && inside, along(row) * (1.0f - fy) + along(row + 1) * fy, 0.0f);

  cosine.compute_root();
  sine.compute_root();
  radius.compute_root();
  schedule(output, target);
  return {{input, rho_start, rho_step, theta_start, theta_step}, {output}};
}

}  // namespace

std::vector<Member> Family() {
  const auto get = [](int index) { return [=](const Target& target) { return get_fft(target, index); }; };
  return {{"get_fft_real_float", get(0)},
          {"get_fft_imaginary_float", get(1)},
          {"put_fft_real_float", put_fft_real},
          {"log_tone_float", log_tone},
          {"remin_float", remin},
          {"to_log_polar_float", to_log_polar, true}};
}
