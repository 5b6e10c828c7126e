// Samples of a plane between its pixels: the kernels, and what a plane holds at a turned or shifted position.
#pragma once

#include <functional>
#include <vector>

#include <Halide.h>

/// The interpolation methods, by their numbers. All are separable; beyond the edges the edge repeats.
enum class Kernel : int { Bilinear, Bicubic, Lanczos2, Lanczos3, Nearest };

struct NamedKernel {
  Kernel kernel;
  const char* name;  ///< as in the names of pipelines
};
constexpr NamedKernel kKernels[] = {{Kernel::Bilinear, "bilinear"},
                                    {Kernel::Bicubic, "bicubic"},
                                    {Kernel::Lanczos2, "lanczos2"},
                                    {Kernel::Lanczos3, "lanczos3"},
                                    {Kernel::Nearest, "nearest"}};

/// Answer the taps along an axis. The first lies FirstTap pixels from the one that the position falls into.
constexpr int Taps(Kernel kernel) {
  constexpr int kTaps[] = {2, 4, 4, 6, 1};
  return kTaps[static_cast<int>(kernel)];
}
constexpr int FirstTap(Kernel kernel) {
  return kernel == Kernel::Nearest ? 0 : 1 - Taps(kernel) / 2;
}

/// Answers the weights of the taps for a fraction from 0 to 1, in single precision and not normalised. At a
/// whole position all but one are exactly 0. `a` is the slope of the bicubic kernel at distance 1. Keys, R.
/// G. (1981), Cubic convolution interpolation; Duchon, C. E. (1979), Lanczos filtering.
std::vector<Halide::Expr> KernelWeights(Kernel kernel, Halide::Expr fraction, double a = -0.5);

/// Answers a place along an axis, at the edge where it lies beyond. Loops are split where it passes an edge,
/// so that all between loads whole vectors.
Halide::Expr AtEdges(Halide::Expr at, Halide::Expr size);

/// Marks a place to be kept in a table and taken out by reinterpret<int>: of what is known to be bounded, the
/// bounds would be enforced again for each pixel that is loaded by it. Nothing may be loaded by an entry of
/// the table that was not computed, so no loop over it may begin before or end beyond the table's whole
/// vectors.
Halide::Expr Unbounded(Halide::Expr place);

/// Answers the sum of weighted taps in their order. A whole position of the bilinear kernel is its pixel
/// alone, whatever lies beside it.
Halide::Expr WeightedTaps(Kernel kernel, const std::vector<Halide::Expr>& taps,
                          const std::vector<Halide::Expr>& weights);

/// A position in a plane, in pixels: whole numbers or single precision.
struct Position {
  Halide::Expr u, v;
};

/// Answers where a point (x, y) relative to the centre, y upward, comes from when the plane is turned.
Position Turned(Halide::Expr x, Halide::Expr y, Halide::Expr centerX, Halide::Expr centerY, Halide::Expr cosR,
                Halide::Expr sinR);

/// Answers (x - shiftX, y - shiftY) in whole numbers, by the Vars "x" and "y".
Position WholeShift(Halide::Expr shiftX, Halide::Expr shiftY);

/// True where 0 <= u < width and 0 <= v < height; false for NaN.
Halide::Expr IsInside(const Position& position, Halide::Expr width, Halide::Expr height);

/// Tells what a plane holds at a position for each pixel (x, y) of an output, by the Vars "x" and "y".
struct Sample {
  Halide::Expr value;   ///< undefined off the plane
  Halide::Expr inside;  ///< the position is on the plane
  /// Schedules an output over x and y that uses the sample, and the stages that the sample is made of.
  std::function<void(Halide::Func output, const Halide::Target& target)> schedule;

  Halide::Expr Or(Halide::Expr outside) const { return select(inside, value, outside); }
};

/// What the weights of a kernel's taps are used for.
enum class Weighting {
  Plain,
  Squared  ///< the variance of a sample, from that of the pixels, which are independent
};

/// Samples the plane at any position that is an expression of x and y.
Sample SampleAt(const Halide::ImageParam& input, Kernel kernel, const Position& position,
                Weighting weighting = Weighting::Plain);

/// Samples the plane at (x - shiftX, y - shiftY), floats. The fraction is that of the shift, the same for all
/// pixels.
Sample SampleShifted(const Halide::ImageParam& input, Kernel kernel, Halide::Expr shiftX,
                     Halide::Expr shiftY);

/// Samples the plane at (x - shiftX, y - shiftY), whole numbers.
Sample SampleWholeShift(const Halide::ImageParam& input, Halide::Expr shiftX, Halide::Expr shiftY);
