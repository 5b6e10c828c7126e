// Random numbers that depend on a key only, so that rows and frames can be made in any order by any thread.
// The algorithms are fixed here: those of the standard library differ between implementations.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <numbers>

namespace korimg::session {

/// Makes a stream of random numbers for a key: a counter through the SplitMix64 mixer.
class Random {
 public:
  explicit Random(std::initializer_list<std::uint64_t> key) {
    for (const std::uint64_t part : key)
      state_ = Mix(state_ + part + kStep);
  }

  std::uint64_t Next() { return Mix(state_ += kStep); }

  /// Answers a uniform deviate in (0, 1).
  double Uniform() { return (static_cast<double>(Next() >> 11) + 0.5) * 0x1p-53; }
  double Uniform(double low, double high) { return low + (high - low) * Uniform(); }

  /// Answers a normal deviate of mean 0 and variance 1, by the transform of Box and Muller.
  double Normal() {
    if (hasSpare_) {
      hasSpare_ = false;
      return spare_;
    }
    const double radius = std::sqrt(-2 * std::log(Uniform())), angle = 2 * std::numbers::pi * Uniform();
    spare_ = radius * std::sin(angle);
    hasSpare_ = true;
    return radius * std::cos(angle);
  }

  /// Answers Poisson counts: exact up to a mean of 20; above, a normal deviate corrected for skewness and
  /// rounded.
  double Poisson(double mean) {
    if (mean <= 0) return 0;
    if (mean < 20) {
      const double limit = std::exp(-mean);
      double product = 1;
      for (int count = 0;; ++count) {
        product *= Uniform();
        if (product <= limit) return count;
      }
    }
    const double n = Normal();
    return std::max(0.0, std::floor(mean + std::sqrt(mean) * n + (n * n - 1) / 6 + 0.5));
  }

 private:
  static constexpr std::uint64_t kStep = 0x9e3779b97f4a7c15;

  static std::uint64_t Mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
  }

  std::uint64_t state_ = 0;
  double spare_ = 0;
  bool hasSpare_ = false;
};

}  // namespace korimg::session
