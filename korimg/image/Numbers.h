// Numbers to integers, with every number that does not fit limited first. Internal.
#pragma once

#include <algorithm>
#include <limits>

namespace korimg {

/// Truncates toward zero; beyond the ends of int gives the end, NaN the lowest int.
inline int TruncateToInt(double value) {
  constexpr double kLow = std::numeric_limits<int>::min(), kHigh = std::numeric_limits<int>::max();
  // max(low, NaN) is low: std::max answers its first argument unless the second one is greater.
  return static_cast<int>(std::min(std::max(kLow, value), kHigh));
}

}  // namespace korimg
