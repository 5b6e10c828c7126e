#include "korimg/colour/internal/LabRows.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#include "korimg/image/internal/Vectors.h"

namespace korimg {
namespace {

// The numbers are those of CColor.
constexpr double kWhite = 5.6508;
constexpr double kThreshold = 0.008856;
constexpr double kLineSlope = 7.78, kLineOrigin = 0.13793103448275862;

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

/// x^(-1/N) for x from 1e-30 to 1e30, to 2e-11 of it for N = 3 and 11 and 5e-10 for 5; NaN for NaN, and for
/// others any number. It has no branches and calls nothing.
///
/// A float's bits are nearly a logarithm: divided by -N they give the root to 4 %. A step in float and one in
/// double do the rest.
template <int N>
KORIMG_IN_LOOP inline double InverseRoot(double x) {
  constexpr double kOne = 0x3F800000, kBend = 0.045 * 0x800000;  // how far a line is off the logarithm
  constexpr float kOrigin = static_cast<float>((kOne - kBend) * (1 + 1.0 / N)), kSlope = -1.0f / N;
  constexpr int kSingle = N < 8 ? 4 : 5, kDouble = N < 8 ? 1 : 2;  // h is about N times the error
  const auto single = static_cast<float>(x);
  const auto bits = static_cast<float>(std::bit_cast<std::int32_t>(single));
  const auto seed = std::bit_cast<float>(static_cast<std::int32_t>(kOrigin + kSlope * bits));
  const float near = RefinedInverseRoot<N, kSingle>(seed, single);
  return RefinedInverseRoot<N, kDouble>(static_cast<double>(near), x);
}

/// Calls convert(first, count) for the chunks of a row.
template <class F>
void ForChunks(int count, const F& convert) {
  for (int first = 0; first < count; first += kColourChunk) {
    convert(first, std::min(kColourChunk, count - first));
  }
}

// Several short loops in place of one: in one the processor would wait for root after root.

/// Red, green and blue become X, Y and Z as shares of white.
void ToXyz(double* red, double* green, double* blue, int count) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
    for (int i = 0; i < count; ++i) {
      const double m = (red[i] + green[i] + blue[i]) * (1.0 / 3);
      const double k = m < 1e-7 ? 1 : m * m * IntegerPower<4>(InverseRoot<5>(m));  // m^1.2
      const double r = k * red[i], g = k * green[i], b = k * blue[i];
      red[i] = (2.7689 / kWhite) * r + (1.7517 / kWhite) * g + (1.1302 / kWhite) * b;
      green[i] = (1 / kWhite) * r + (4.5907 / kWhite) * g + (0.0601 / kWhite) * b;
      blue[i] = (0.0565 / kWhite) * g + (5.5943 / kWhite) * b;
    }
  });
}

/// The curve of Lab.
void Bend(double* row, int count) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
    for (int i = 0; i < count; ++i) {
      const double t = row[i], r = InverseRoot<3>(t);
      row[i] = t > kThreshold ? t * (r * r) : kLineSlope * t + kLineOrigin;
    }
  });
}

/// The curve is above this where it is a cube root, and below where it is a line: there is a gap between.
constexpr double kGap = 0.20686;

/// L of a value of the curve.
KORIMG_IN_LOOP inline double Lightness(double f) {
  const double line = (f - kLineOrigin) * (903.29 / kLineSlope);
  return f > kGap ? 116 * f - 16 : line;
}

KORIMG_IN_LOOP inline double Unbent(double f) {
  const double line = (f - kLineOrigin) * (1 / kLineSlope);
  return f > 0.20689303442296383 ? f * f * f : line;
}

}  // namespace

void RgbToLab(double* red, double* green, double* blue, int count) {
  ForChunks(count, [=](int first, int n) {
    double *x = red + first, *y = green + first, *z = blue + first;
    ToXyz(x, y, z, n);
    for (double* row : {x, y, z}) {
      Bend(row, n);
    }
    RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int i = 0; i < n; ++i) {
        const double fx = x[i], fy = y[i], fz = z[i];
        x[i] = Lightness(fy);
        y[i] = 500 * (fx - fy);
        z[i] = 200 * (fy - fz);
      }
    });
  });
}

void RgbToL(double* red, double* green, double* blue, int count) {
  ForChunks(count, [=](int first, int n) {
    double *x = red + first, *y = green + first;
    ToXyz(x, y, blue + first, n);
    Bend(y, n);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int i = 0; i < n; ++i) {
        x[i] = Lightness(y[i]);
      }
    });
  });
}

void LabToRgb(double* l, double* a, double* b, int count) {
  ForChunks(count, [=](int first, int n) {
    double *red = l + first, *green = a + first, *blue = b + first;
    RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int i = 0; i < n; ++i) {
        const double lightness = red[i], t = (lightness + 16) * (1.0 / 116), line = lightness * (1 / 903.29);
        const double y = lightness > 7.999536239999999 ? t * t * t : line;
        const double bent = kLineSlope * y + kLineOrigin;
        const double fy = y > kThreshold ? t : bent;  // t is the cube root there
        const double X = kWhite * Unbent(fy + green[i] * (1.0 / 500));
        const double Z = kWhite * Unbent(fy - blue[i] * (1.0 / 200)), Y = kWhite * y;
        const double B = ((X - 2.7689 * Y) * 0.0565 + 10.95948923 * Z) * (1 / 61.365124684103996);
        const double G = (Z - 5.5943 * B) * (1 / 0.0565);
        const double R = Y - 4.5907 * G - 0.0601 * B;
        red[i] = R < 0 ? 0 : R;
        green[i] = G < 0 ? 0 : G;
        blue[i] = B < 0 ? 0 : B;
      }
    });
    RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int i = 0; i < n; ++i) {
        const double m = (red[i] + green[i] + blue[i]) * (1.0 / 3);
        const double k = m < 1e-7 ? 1 : IntegerPower<6>(InverseRoot<11>(m));  // m^-0.5454...
        red[i] *= k;
        green[i] *= k;
        blue[i] *= k;
      }
    });
  });
}

}  // namespace korimg
