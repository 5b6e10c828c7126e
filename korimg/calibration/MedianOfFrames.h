#pragma once

#include <span>

#include "korimg/platform/Export.h"

namespace korimg {

/// Writes the median of the frames, pixel by pixel; each frame, and the result, is `rows` lines of `width`
/// pixels. NaN is passed over; a pixel that is NaN in all frames is NaN. An even count takes the mean of the
/// two middle values. The result does not depend on the number of threads.
KORIMG_API void MedianOfFrames(std::span<const float* const> frames, int width, int rows, float* result);

/// Answers the variance of the median of n values of normal noise, in that of one value: pi / 2n for many.
/// Within 1 % of simulations.
inline double MedianVariance(double n) {
  constexpr double kHalfPi = 1.5707963267948966;
  if (n <= 2) return n > 0 ? 1 / n : 0;
  const bool isOdd = static_cast<long long>(n) % 2 == 1;
  return kHalfPi / (n + (isOdd ? 0.5 : 1.5 * n / (n + 1)));
}

}  // namespace korimg
