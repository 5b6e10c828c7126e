// Sorting of numbers by their digits. Internal.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

namespace korimg {

/// Sorts by the bits from `low` to `high` - 1; numbers that are alike there keep their order. `spare` is room
/// to work in. Digits of 11 bits count in tables that fit the first-level cache; `kFew` is chosen.
inline void SortByBits(std::vector<std::uint64_t>& numbers, int low, int high,
                       std::vector<std::uint64_t>& spare) {
  constexpr int kBits = 11, kDigits = 1 << kBits, kFew = 512;
  if (numbers.size() < kFew) {
    const std::uint64_t mask = ~0ULL >> (64 - high + low) << low;
    std::stable_sort(numbers.begin(), numbers.end(),
                     [=](std::uint64_t a, std::uint64_t b) { return (a & mask) < (b & mask); });
    return;
  }
  std::vector<std::uint32_t> start(kDigits);
  spare.resize(numbers.size());
  for (int shift = low; shift < high; shift += kBits) {
    std::fill(start.begin(), start.end(), 0);
    const std::uint64_t mask = (1ULL << std::min(kBits, high - shift)) - 1;
    const auto digit = [=](std::uint64_t number) { return number >> shift & mask; };
    for (const std::uint64_t number : numbers) {
      ++start[digit(number)];
    }
    std::exclusive_scan(start.begin(), start.end(), start.begin(), 0u);
    for (const std::uint64_t number : numbers) {
      spare[start[digit(number)]++] = number;
    }
    numbers.swap(spare);
  }
}

}  // namespace korimg
