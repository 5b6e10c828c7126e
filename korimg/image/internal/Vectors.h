// Loops in the longest vectors of the processor. Internal.
#pragma once

#include <bit>
#include <cstdint>
#include <numbers>

#include "korimg/platform/CKorSys.h"

/// Marks what such a loop calls: it has to become a part of the loop to be compiled for the same vectors.
#define KORIMG_IN_LOOP __attribute__((always_inline))

namespace korimg {

#if defined(__x86_64__)
template <class F>
__attribute__((target("avx2"), noinline)) void RunAvx2(const F& f) {
  f();
}
#endif

/// Runs f, a lambda that is marked KORIMG_IN_LOOP, compiled for eight lanes where the processor has them. The
/// operations are the same, and so are the results.
template <class F>
void RunInLongVectors(const F& f) {
#if defined(__x86_64__)
  constexpr unsigned kEightLanes = 32;
  if (CKorSys::SIMD() & kEightLanes) {
    RunAvx2(f);
    return;
  }
#endif
  f();
}

/// Answers the logarithm of base 2 to 1e-15 of the larger of it and 1, for x that is normal and above 0; of
/// others any number. It has no branches and calls nothing, so that loops of it become vectors.
///
/// x is 2^k m with m from sqrt(1/2) to sqrt(2); log m is twice the series s + s^3 / 3 + ... of
/// s = (m - 1) / (m + 1).
KORIMG_IN_LOOP inline double BinaryLogarithm(double x) {
  constexpr std::uint64_t kRootOfHalf = 0x3FE6A09E667F3BCD, kOne = 1ULL << 52, kBias = 2048;
  constexpr double kBits = 0x1p52;
  const auto bits = std::bit_cast<std::uint64_t>(x);
  const std::uint64_t k = (bits - kRootOfHalf + kBias * kOne) >> 52;
  const double m = std::bit_cast<double>(bits - (k - kBias) * kOne);
  const double whole = std::bit_cast<double>(k | std::bit_cast<std::uint64_t>(kBits)) - kBits - kBias;
  const double s = (m - 1) / (m + 1), q = s * s;
  double log = 1.0 / 15;
  for (const double odd : {13.0, 11.0, 9.0, 7.0, 5.0, 3.0, 1.0}) {
    log = log * q + 1 / odd;
  }
  return whole + 2 * std::numbers::log2e * s * log;
}

/// Answers x^y to 2e-13 of it, for x that is normal and above 0; of others any number. Limited to 2^-1000 and
/// 2^1000. As the logarithm it becomes vectors.
///
/// The power of 2 is that of the nearest integer times the series of e^z.
KORIMG_IN_LOOP inline double PositivePower(double x, double y) {
  constexpr std::uint64_t kOne = 1ULL << 52;
  constexpr double kRound = 0x1.8p52;
  double t = y * BinaryLogarithm(x);
  t = t < -1000 ? -1000 : t;
  t = t > 1000 ? 1000 : t;
  const double rounded = t + kRound;
  const double z = (t - (rounded - kRound)) * std::numbers::ln2;
  double inverse = 1.0 / 39916800, power = inverse;  // of 11!
  for (int i = 11; i > 0; --i) {
    inverse *= i;
    power = power * z + inverse;
  }
  const std::uint64_t n = std::bit_cast<std::uint64_t>(rounded) - std::bit_cast<std::uint64_t>(kRound);
  return power * std::bit_cast<double>((n + 1023) * kOne);
}

}  // namespace korimg
