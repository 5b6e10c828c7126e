// Interpolation by its definition: a double sum of kernel values over the pixels about a position.
#pragma once

#include <algorithm>
#include <cmath>

#include "tests/support/Images.h"

namespace korimg::test {

constexpr int kMethodCount = 5;

/// By method: 0 bilinear, 1 bicubic with slope a, 2 and 3 Lanczos.
inline double KernelAt(int method, double t, double a) {
  t = std::abs(t);
  if (method == 0) return t < 1 ? 1 - t : 0;
  if (method == 1) {
    if (t <= 1) return 1 - (a + 3) * t * t + (a + 2) * t * t * t;
    return t <= 2 ? a * (t * t * t - 5 * t * t + 8 * t - 4) : 0;
  }
  if (t == 0) return 1;
  return t > method ? 0 : method * std::sin(M_PI * t) * std::sin(M_PI * t / method) / std::pow(M_PI * t, 2);
}

/// The sample at (u, v), both at least 0, with the edges repeated.
inline double SampleBySum(CVelImage& image, int plane, int method, double u, double v, double a = -0.5) {
  const auto pixel = [&](double x, double y) -> double {
    return image.GetPixelGrayRaw(std::clamp(static_cast<int>(x), 0, image.GetWidth() - 1),
                                 std::clamp(static_cast<int>(y), 0, image.GetHeight() - 1), plane);
  };
  if (method == 4) return pixel(std::floor(u + 0.5), std::floor(v + 0.5));
  double sum = 0;
  for (double y = std::floor(v) - 2; y <= std::floor(v) + 3; ++y) {
    for (double x = std::floor(u) - 2; x <= std::floor(u) + 3; ++x) {
      // A tap without weight has no say, whatever it holds.
      const double weight = KernelAt(method, x - u, a) * KernelAt(method, y - v, a);
      if (weight != 0) sum += weight * pixel(x, y);
    }
  }
  return sum;
}

}  // namespace korimg::test
