// Numbers to integers, limited where they do not fit; their order; their middle. Internal.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace korimg {

/// Truncates toward zero; beyond the ends of int gives the end, NaN the lowest int.
inline int TruncateToInt(double value) {
  constexpr double kLow = std::numeric_limits<int>::min(), kHigh = std::numeric_limits<int>::max();
  // max(low, NaN) is low: std::max answers its first argument unless the second one is greater.
  return static_cast<int>(std::min(std::max(kLow, value), kHigh));
}

/// Orders floats, with NaN last.
inline bool NanLast(float a, float b) {
  return a < b || (std::isnan(b) && !std::isnan(a));
}

/// Answers a number that looks random, the same for the same one (Steele, Lea and Flood 2014, SplitMix).
inline std::uint64_t Scrambled(std::uint64_t n) {
  n += 0x9E3779B97F4A7C15ULL;
  n = (n ^ (n >> 30)) * 0xBF58476D1CE4E5B9ULL;
  return (n ^ (n >> 27)) * 0x94D049BB133111EBULL;
}

/// Answers a number that sorts as the float does, with NaN last.
inline std::uint32_t SortKey(float value) {
  if (std::isnan(value)) return ~0u;
  const auto bits = std::bit_cast<std::uint32_t>(value);
  return bits >> 31 ? ~bits : bits | 1u << 31;
}

inline float FromSortKey(std::uint32_t key) {
  return std::bit_cast<float>(key >> 31 ? key & ~(1u << 31) : ~key);
}

/// A normal distribution's standard deviation in its median distance from the middle: 1 / 0.6745.
inline constexpr double kSigmasOfMedianDistance = 1.482602218505602;

/// Answers the median of numbers without NaN, which change places: of an even count the upper one of the
/// middle two, of none `none`.
template <class T>
T UpperMedian(std::vector<T>& numbers, T none = 0) {
  if (numbers.empty()) return none;
  const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
  std::nth_element(numbers.begin(), middle, numbers.end());
  return *middle;
}

}  // namespace korimg
