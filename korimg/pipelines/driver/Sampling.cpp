#include "Sampling.h"

#include <array>
#include <cmath>

#include "Driver.h"

using namespace Halide;

namespace {

Var x("x"), y("y"), xo("xo"), yo("yo"), k("k"), axis("axis");

double lanczos(double t, double n) {
  const double p = M_PI * t;
  return n * std::sin(p) * std::sin(p / n) / (p * p);
}

/// 10 terms keep Lanczos' weights within 1e-7 of the kernel.
constexpr int kTerms = 10;

/// The polynomial, lowest term first, that equals f at Chebyshev's points of -1/2 to 1/2.
std::array<double, kTerms> fit(const std::function<double(double)>& f) {
  double m[kTerms][kTerms + 1];
  for (int i = 0; i < kTerms; ++i) {
    const double h = 0.5 * std::cos(M_PI * (i + 0.5) / kTerms);
    for (int j = 0; j < kTerms; ++j) {
      m[i][j] = std::pow(h, j);
    }
    m[i][kTerms] = f(h);
  }
  std::array<double, kTerms> c{};
  for (int p = 0; p < kTerms; ++p) {  // Gauss and Jordan, by the largest element of each column
    int largest = p;
    for (int i = p; i < kTerms; ++i) {
      if (std::abs(m[i][p]) > std::abs(m[largest][p])) largest = i;
    }
    std::swap(m[p], m[largest]);
    for (int i = 0; i < kTerms; ++i) {
      const double factor = i == p ? 0 : m[i][p] / m[p][p];
      for (int j = p; j <= kTerms; ++j) {
        m[i][j] -= factor * m[p][j];
      }
    }
  }
  for (int i = 0; i < kTerms; ++i) {
    c[i] = m[i][kTerms] / m[i][i];
  }
  return c;
}

/// Weights of Lanczos' kernel with n lobes. Taps come in pairs, m + f to the left of the position and m + 1 -
/// f to the right: with h = f - 1/2 their polynomials are even + h odd and even - h odd. What makes them 0 at
/// whole positions is a factor of its own, so that they are 0 there to the bit.
std::vector<Expr> lanczos_weights(int n, Expr f) {
  Expr h = f - 0.5f, h2 = h * h, g = 1.0f - f;
  std::vector<Expr> weights(2 * n);
  for (int m = 0; m < n; ++m) {
    const auto c = fit([=](double h) {
      const double f = h + 0.5;
      return lanczos(m + f, n) / (m == 0 ? 1 - f : f * (1 - f));
    });
    Expr even = 0.0f, odd = 0.0f;
    for (int i = kTerms - 2; i >= 0; i -= 2) {
      even = even * h2 + static_cast<float>(c[i]);
      odd = odd * h2 + static_cast<float>(c[i + 1]);
    }
    weights[n - 1 - m] = (m == 0 ? g : f * g) * (even + h * odd);
    weights[n + m] = (m == 0 ? f : f * g) * (even - h * odd);
  }
  return weights;
}

/// Keys' kernel, with the roots taken out.
std::vector<Expr> bicubic_weights(Expr f, double a) {
  Expr g = 1.0f - f;
  const auto outer = static_cast<float>(a), inner = static_cast<float>(a + 2);
  return {outer * f * g * g, g * (1.0f + f - inner * f * f), f * (1.0f + g - inner * g * g),
          outer * g * f * f};
}

/// Tap i along dimension d of a plane, at the edge where it lies beyond.
Expr clamped(Expr at, const ImageParam& input, int d) {
  return clamp(at, 0, input.dim(d).extent() - 1);
}

}  // namespace

std::vector<Expr> KernelWeights(Kernel kernel, Expr f, double a) {
  switch (kernel) {
    case Kernel::Bilinear:
      return {1.0f - f, f};
    case Kernel::Bicubic:
      return bicubic_weights(f, a);
    case Kernel::Lanczos2:
      return lanczos_weights(2, f);
    case Kernel::Lanczos3:
      return lanczos_weights(3, f);
    default:
      return {1.0f};
  }
}

Expr AtEdges(Expr at, Expr size) {
  // Both bounds are told to be unlikely: with one alone every load is that of a single pixel.
  return min(likely(max(likely(at), 0)), size - 1);
}

Expr Unbounded(Expr place) {
  return cast<uint32_t>(place);
}

Expr WeightedTaps(Kernel kernel, const std::vector<Expr>& taps, const std::vector<Expr>& weights) {
  if (kernel == Kernel::Nearest) return taps[0];
  Expr sum = taps[0] * weights[0];
  for (size_t i = 1; i < taps.size(); ++i) {
    sum += taps[i] * weights[i];
  }
  return kernel == Kernel::Bilinear ? select(weights[1] == 0.0f, taps[0], sum) : sum;
}

Position Turned(Expr x, Expr y, Expr centerX, Expr centerY, Expr cosR, Expr sinR) {
  return {cosR * x - sinR * y + centerX, centerY - (sinR * x + cosR * y)};
}

Position WholeShift(Expr shiftX, Expr shiftY) {
  constexpr int kFar = 1 << 30;  // keeps sums of positions and shifts in range
  return {x - clamp(shiftX, -kFar, kFar), y - clamp(shiftY, -kFar, kFar)};
}

Expr IsInside(const Position& p, Expr width, Expr height) {
  // Not u >= 0: it may be compiled as !(u < 0), which is true for NaN.
  const auto within = [](Expr v, Expr size) { return (v > 0 || v == 0) && v < cast(v.type(), size); };
  return within(p.u, width) && within(p.v, height);
}

Sample SampleAt(const ImageParam& input, Kernel kernel, const Position& position, Weighting weighting) {
  // Most pixels have all their taps inside the plane: each row of them is loaded as one vector, which may be
  // longer than the kernel. The rows are weighted and added by vectors over the taps, and the columns then by
  // vectors over the output's pixels.
  enum Place : int { Off, Edge, Interior };
  const int taps = Taps(kernel), lanes = taps == 6 ? 8 : taps;
  const float round = kernel == Kernel::Nearest ? 0.5f : 0.0f;
  Expr width = input.dim(0).extent(), height = input.dim(1).extent();
  Expr inside = IsInside(position, width, height);
  Expr u = select(inside, position.u + round, 0.0f), v = select(inside, position.v + round, 0.0f);
  Expr column = cast<int>(u), row = cast<int>(v);
  Expr left = column + FirstTap(kernel), top = row + FirstTap(kernel);
  Expr interior = left >= 0 && left <= width - lanes && top >= 0 && top <= height - taps;

  Func at("at");
  std::vector<Expr> parts = {select(!inside, Off, interior, Interior, Edge), Unbounded(left), Unbounded(top)};
  for (const auto& weights :
       {KernelWeights(kernel, u - cast<float>(column)), KernelWeights(kernel, v - cast<float>(row))}) {
    for (const Expr& weight : weights) {
      parts.push_back(weighting == Weighting::Squared ? weight * weight : weight);
    }
  }
  at(x, y) = Tuple(parts);
  const auto part = [=](int i) { return at(x, y)[i]; };
  Expr place = part(0), at_left = reinterpret<int>(part(1)), at_top = reinterpret<int>(part(2));
  std::vector<Expr> weights_x, weights_y;
  for (int i = 0; i < taps; ++i) {
    weights_x.push_back(part(3 + i));
    weights_y.push_back(part(3 + taps + i));
  }

  Func columns("columns");
  columns(k, x, y) = undef<float>();
  RDom vector(0, lanes, "vector"), tap(0, taps, "tap");
  vector.where(place == Interior);
  tap.where(place == Edge);
  std::vector<Expr> dense, single, added;
  for (int i = 0; i < taps; ++i) {
    dense.push_back(input(unsafe_promise_clamped(at_left + vector, 0, width - 1),
                          unsafe_promise_clamped(at_top + i, 0, height - 1)));
    single.push_back(input(clamped(at_left + tap, input, 0), clamped(at_top + i, input, 1)));
    added.push_back(columns(i, x, y));
  }
  columns(vector, x, y) = WeightedTaps(kernel, dense, weights_y);
  columns(tap, x, y) = WeightedTaps(kernel, single, weights_y);

  const auto schedule = [=](Func output, const Target& target) mutable {
    const int wide = target.natural_vector_size<float>();
    Var xi("xi"), yi("yi");
    // Lines as long as possible: the taps of one take 8 KiB, a part of the first-level cache. Strips are low,
    // since bands of a stack have few lines.
    output
        .tile(x, y, xo, yo, xi, yi, EvenPart(output, 0, 2048 / lanes, wide), EvenPart(output, 1, 16, 1),
              TailStrategy::GuardWithIf)
        .vectorize(xi, wide, TailStrategy::GuardWithIf)
        .parallel(yo);
    at.compute_at(output, yi).store_in(MemoryType::Stack).vectorize(x, wide, TailStrategy::RoundUp);
    columns.compute_at(output, yi).store_in(MemoryType::Stack).bound(k, 0, lanes);
    columns.update(0).reorder(vector, x, y).vectorize(vector).unroll(x, 4);
    columns.update(1).reorder(tap, x, y);
  };
  return {WeightedTaps(kernel, added, weights_x), place != Off, schedule};
}

Sample SampleShifted(const ImageParam& input, Kernel kernel, Expr shiftX, Expr shiftY) {
  // Beyond this every position lies outside, and NaN is beyond.
  const float far = 1 << 24, round = kernel == Kernel::Nearest ? 0.5f : 0.0f;
  const auto whole = [=](Expr shift) {
    Expr limited = select(abs(shift) < far, shift, far);
    return floor(round - limited);
  };
  const auto weights = [=](Expr shift) {
    Expr limited = select(abs(shift) < far, shift, far);
    return KernelWeights(kernel, round - limited - whole(shift));
  };
  const int taps = Taps(kernel), first = FirstTap(kernel);
  Expr top = y + cast<int>(whole(shiftY)) + first, left = x + cast<int>(whole(shiftX)) + first;

  // The weights of both axes; then the rows of taps added for all columns of a line, and the columns of that.
  Func weight("axis_weight"), rows("rows");
  Expr column = AtEdges(x, input.dim(0).extent());
  std::vector<Expr> weights_x, weights_y, across, along;
  const auto at_x = weights(shiftX), at_y = weights(shiftY);
  weight(k, axis) = undef<float>();
  for (int i = 0; i < taps; ++i) {
    weight(i, 0) = at_x[i];
    weight(i, 1) = at_y[i];
    weights_x.push_back(weight(i, 0));
    weights_y.push_back(weight(i, 1));
    across.push_back(input(column, clamped(top + i, input, 1)));
  }
  rows(x, y) = WeightedTaps(kernel, across, weights_y);
  for (int i = 0; i < taps; ++i) {
    along.push_back(rows(left + i, y));
  }

  const auto schedule = [=](Func output, const Target& target) mutable {
    const int wide = target.natural_vector_size<float>();
    Var xi("xi"), yi("yi");
    output
        .tile(x, y, xo, yo, xi, yi, EvenPart(output, 0, 1024, wide), EvenPart(output, 1, 16, 1),
              TailStrategy::GuardWithIf)
        .vectorize(xi, wide, TailStrategy::GuardWithIf)
        .parallel(yo);
    rows.compute_at(output, yi).vectorize(x, wide, TailStrategy::RoundUp);
    weight.compute_root();
  };
  const Position position = {cast<float>(x) - shiftX, cast<float>(y) - shiftY};
  return {WeightedTaps(kernel, along, weights_x),
          IsInside(position, input.dim(0).extent(), input.dim(1).extent()), schedule};
}

Sample SampleWholeShift(const ImageParam& input, Expr shiftX, Expr shiftY) {
  const Position at = WholeShift(shiftX, shiftY);
  Expr width = input.dim(0).extent(), height = input.dim(1).extent();
  Func bounded = BoundaryConditions::repeat_edge(input, {{0, width}, {0, height}});
  return {bounded(at.u, at.v), IsInside(at, width, height),
          [](Func output, const Target& target) { ScheduleByStrips(output, target); }};
}
