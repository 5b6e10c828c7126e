// The colour model of CColor for loops over rows, which become vectors: a loop in RunInLongVectors calls
// RgbToLab and LabToRgb for its pixels. Internal.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "korimg/image/internal/Vectors.h"

namespace korimg {

struct RgbColour {
  double r, g, b;
};

struct LabColour {
  double l, a, b;
};

template <int N, class T>
KORIMG_IN_LOOP inline T IntegerPower(T x) {
  if constexpr (N == 1) {
    return x;
  } else if constexpr (N % 2 == 0) {
    const T half = IntegerPower<N / 2>(x);
    return half * half;
  } else {
    return x * IntegerPower<N - 1>(x);
  }
}

/// Brings r near x^(-1/N) nearer: by `terms` terms of the series of (1 - h)^(-1/N), where x r^N is 1 - h.
template <int N, int terms, class T>
KORIMG_IN_LOOP inline T RefinedInverseRoot(T r, T x) {
  constexpr auto kSeries = [] {
    std::array<T, terms> series{};
    double c = 1;
    for (int k = 1; k <= terms; ++k) {
      c *= (1.0 / N + k - 1) / k;
      series[k - 1] = static_cast<T>(c);
    }
    return series;
  }();
  const T h = 1 - x * IntegerPower<N>(r);
  T sum = kSeries[terms - 1];
  for (int k = terms - 2; k >= 0; --k) {
    sum = sum * h + kSeries[k];
  }
  return r + r * (h * sum);
}

/// x^(-1/N) to 3e-11 of it for x from 1e-30 to 1e30; NaN for NaN, and for others any number. It has no
/// branches and calls nothing.
///
/// A float's bits are nearly a logarithm: divided by -N they give the root to 4 %. A step in float and one in
/// double do the rest.
template <int N>
KORIMG_IN_LOOP inline double InverseRoot(double x) {
  constexpr double kOne = 0x3F800000, kBend = 0.045 * 0x800000;  // how far a line is off the logarithm
  constexpr float kOrigin = static_cast<float>((kOne - kBend) * (1 + 1.0 / N)), kSlope = -1.0f / N;
  constexpr int kTerms = N < 8 ? 3 : 5;  // h is about N times the error
  const auto single = static_cast<float>(x);
  const auto bits = static_cast<float>(std::bit_cast<std::int32_t>(single));
  const auto seed = std::bit_cast<float>(static_cast<std::int32_t>(kOrigin + kSlope * bits));
  const float near = RefinedInverseRoot<N, kTerms>(seed, single);
  return RefinedInverseRoot<N, 2>(static_cast<double>(near), x);
}

/// The curve of Lab, and L, both of a share of white.
KORIMG_IN_LOOP inline double LabCurve(double t) {
  const double r = InverseRoot<3>(t);
  return t > 0.008856 ? t * (r * r) : 7.78 * t + 0.13793103448275862;
}
KORIMG_IN_LOOP inline double InverseLabCurve(double f) {
  return f > 0.20689303442296383 ? f * f * f : (f - 0.13793103448275862) * (1 / 7.78);
}

/// What CColor::RgbToLab computes, to 1e-10 of the value or of 1. NaN in one channel makes all NaN. Shares of
/// white up to 1e12.
KORIMG_IN_LOOP inline LabColour RgbToLab(const RgbColour& colour) {
  constexpr double kWhite = 5.6508;
  const double m = (colour.r + colour.g + colour.b) * (1.0 / 3);
  const double k = m < 1e-7 ? 1 : m * m * IntegerPower<4>(InverseRoot<5>(m));
  const double r = k * colour.r, g = k * colour.g, b = k * colour.b;
  const double x = (2.7689 / kWhite) * r + (1.7517 / kWhite) * g + (1.1302 / kWhite) * b;
  const double y = (1 / kWhite) * r + (4.5907 / kWhite) * g + (0.0601 / kWhite) * b;
  const double z = (0.0565 / kWhite) * g + (5.5943 / kWhite) * b;
  const double fx = LabCurve(x), fy = LabCurve(y), fz = LabCurve(z);
  return {y > 0.008856 ? 116 * fy - 16 : 903.29 * y, 500 * (fx - fy), 200 * (fy - fz)};
}

/// What CColor::LabToRgb computes, to 1e-10 of the value or of 1.
KORIMG_IN_LOOP inline RgbColour LabToRgb(const LabColour& colour) {
  constexpr double kWhite = 5.6508;
  const double t = (colour.l + 16) * (1.0 / 116);
  const double y = colour.l > 7.999536239999999 ? t * t * t : colour.l * (1 / 903.29);
  const double fy = y > 0.008856 ? t : 7.78 * y + 0.13793103448275862;  // t is the cube root there
  const double x = kWhite * InverseLabCurve(fy + colour.a * (1.0 / 500));
  const double z = kWhite * InverseLabCurve(fy - colour.b * (1.0 / 200));
  const double white_y = kWhite * y;
  double b = ((x - 2.7689 * white_y) * 0.0565 + 10.95948923 * z) * (1 / 61.365124684103996);
  double g = (z - 5.5943 * b) * (1 / 0.0565);
  double r = white_y - 4.5907 * g - 0.0601 * b;
  r = r < 0 ? 0 : r, g = g < 0 ? 0 : g, b = b < 0 ? 0 : b;
  const double m = (r + g + b) * (1.0 / 3);
  const double k = m < 1e-7 ? 1 : IntegerPower<6>(InverseRoot<11>(m));
  return {r * k, g * k, b * k};
}

}  // namespace korimg
