#include <complex>
#include <cstring>
#include <numbers>
#include <type_traits>

#include <gtest/gtest.h>

#include "korimg/geometry/fourier/CFft.h"
#include "korimg/geometry/fourier/CFftd.h"
#include "korimg/platform/Debug.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

using Number = std::complex<double>;
constexpr double kPi = std::numbers::pi;

void Fill(ComplexPlanes& fft, int seed = 1) {
  for (int p = 0; p < 2; ++p) {
    for (int i = 0; i < fft.GetWidth() * fft.GetHeight(); ++i) {
      fft.GetArray(p)[i] = {static_cast<float>(Random(-50, 100, seed)(p, i, 0)),
                            static_cast<float>(Random(-50, 100, seed)(p, i, 1))};
    }
  }
}

std::vector<Number> Values(ComplexPlanes& fft, int plane) {
  std::vector<Number> values;
  for (int i = 0; i < fft.GetWidth() * fft.GetHeight(); ++i) {
    values.emplace_back(fft.GetArray(plane)[i].re, fft.GetArray(plane)[i].im);
  }
  return values;
}

/// The largest distance between two planes, relative to the largest value.
double Distance(const std::vector<Number>& a, const std::vector<Number>& b) {
  double distance = 0, largest = 1e-30;
  for (size_t i = 0; i < a.size(); ++i) {
    distance = std::max(distance, std::abs(a[i] - b[i]));
    largest = std::max(largest, std::abs(b[i]));
  }
  return distance / largest;
}

std::vector<Number> DirectSum(const std::vector<Number>& in, int width, int height, int sign, double scale) {
  std::vector<Number> out(in.size());
  for (int k = 0; k < width * height; ++k) {
    for (int j = 0; j < width * height; ++j) {
      const double turns = 1.0 * (k % width) * (j % width) / width + 1.0 * (k / width) * (j / width) / height;
      out[k] += in[j] * std::polar(scale, sign * 2 * kPi * turns);
    }
  }
  return out;
}

template <class T>
class Fft : public testing::Test {};
using Kinds = testing::Types<CFft, CFftd>;
TYPED_TEST_SUITE(Fft, Kinds);

TYPED_TEST(Fft, SizesArePowersOfTwo) {
  struct Case {
    int width, height, answer, w, h;
  };
  for (const Case& c : {Case{1000, 700, 1, 1024, 1024},
                        {300, 100, 1, 512, 128},
                        {1, 64, 1, 1, 64},
                        {0, 5, 0, 0, 0},
                        {5, -1, 0, 0, 0},
                        {(1 << 30) + 1, 1, 0, 0, 0}}) {
    TypeParam fft;
    EXPECT_EQ(fft.Create(c.width, c.height), c.answer);
    EXPECT_EQ(fft.GetWidth(), c.w);
    EXPECT_EQ(fft.GetHeight(), c.h);
    EXPECT_EQ(fft.GetArray(0) != nullptr, c.answer == 1);
    EXPECT_EQ(fft.Do(0, 0), 0) << "with or without planes";
    for (int i = 0; i < c.w * c.h; ++i) {
      ASSERT_EQ(fft.GetArray(1)[i].re, 0);
    }
  }
}

TYPED_TEST(Fft, IsTheDirectSum) {
  const bool plain = std::is_same_v<TypeParam, CFft>;
  for (const auto& [width, height] :
       {std::pair(1, 1), {2, 1}, {1, 2}, {4, 4}, {8, 2}, {1, 32}, {16, 8}, {64, 16}, {4, 512}}) {
    for (const int direction : {0, 1}) {
      for (const unsigned features : {2u, ~0u}) {
        const WithFeatures simd(features);
        TypeParam fft;
        ASSERT_EQ(fft.Create(width, height), 1);
        Fill(fft);
        const double elements = width * height;
        const auto before = Values(fft, 1), other = Values(fft, 0);
        const auto expected = DirectSum(before, width, height, (direction == 0) == plain ? -1 : 1,
                                        plain            ? 1 / std::sqrt(elements)
                                        : direction == 0 ? 1
                                                         : 1 / elements);
        fft.Do(direction, 1);
        EXPECT_LT(Distance(Values(fft, 1), expected), 1e-6)
            << width << " x " << height << ", direction " << direction;
        EXPECT_EQ(Values(fft, 0), other);
      }
    }
  }
}

TYPED_TEST(Fft, RestoresAndKeepsEnergy) {
  TypeParam fft;
  ASSERT_EQ(fft.Create(1024, 512), 1);
  Fill(fft);
  const auto before = Values(fft, 0);
  const auto energy = [&] {
    double sum = 0;
    for (const Number& v : Values(fft, 0)) {
      sum += std::norm(v);
    }
    return sum;
  };
  const double spatial = energy() * (std::is_same_v<TypeParam, CFft> ? 1 : 1024 * 512);
  fft.Do(0, 0);
  EXPECT_NEAR(energy() / spatial, 1, 1e-6);
  const auto spectrum = Values(fft, 0);
  fft.ToAmpPhase(0);
  EXPECT_NEAR(fft.GetArray(0)[256 * 1024 + 512].re, std::abs(spectrum[0]), 1e-6 * std::abs(spectrum[0]));
  EXPECT_NEAR(fft.GetArray(0)[0].im, std::arg(spectrum[256 * 1024 + 512]), 1e-5);
  fft.ToReIm(0);
  EXPECT_LT(Distance(Values(fft, 0), spectrum), 1e-6);
  fft.Do(1, 0);
  EXPECT_LT(Distance(Values(fft, 0), before), 2e-6);
}

TYPED_TEST(Fft, AmplitudeAndPhase) {
  TypeParam fft;
  ASSERT_EQ(fft.Create(64, 32), 1);
  Fill(fft);
  for (int i = 0; i < 32; ++i) {  // along the axes and the diagonals
    const float a[] = {0, 3, -3, 3, 1e-20f, -1e15f}, b[] = {0, 3, 0, -3, -1e-20f};
    fft.GetArray(0)[i] = {a[i % 6], b[i % 5]};
  }
  const auto before = Values(fft, 0);
  fft.ToAmpPhase(0);
  const auto after = Values(fft, 0);
  for (int i = 0; i < 64 * 32; ++i) {
    const Number v = before[i], polar = after[(i / 64 + 16) % 32 * 64 + (i + 32) % 64];
    ASSERT_NEAR(polar.real(), std::abs(v), 1e-18 + 2e-7 * std::abs(v));
    ASSERT_NEAR(polar.imag(), std::arg(v), 4e-7) << v;
  }
}

TYPED_TEST(Fft, OtherPlanesDoNothing) {
  TypeParam fft;
  ASSERT_EQ(fft.Create(32, 64), 1);
  Fill(fft);
  const auto a = Values(fft, 0), b = Values(fft, 1);
  for (const int plane : {-1, 2, 1000}) {
    EXPECT_EQ(fft.Do(0, plane), 0);
    EXPECT_EQ(fft.Do(1, plane), 0);
    fft.ToAmpPhase(plane);
    fft.ToReIm(plane);
    fft.Windowing(plane);
    fft.ToLogPolar(0, 1, 0, 180, 1, plane);
    if constexpr (std::is_same_v<TypeParam, CFftd>) {
      EXPECT_EQ(fft.Do1D(0, plane), 0);
      fft.Swap(plane);
      fft.SwapX(plane);
    }
  }
  EXPECT_EQ(Values(fft, 0), a);
  EXPECT_EQ(Values(fft, 1), b);
}

TYPED_TEST(Fft, Windows) {
  for (const auto& [width, height] : {std::pair(64, 16), {16, 64}, {1, 8}}) {
    TypeParam fft;
    ASSERT_EQ(fft.Create(width, height), 1);
    Fill(fft);
    auto expected = Values(fft, 0);
    const bool plain = std::is_same_v<TypeParam, CFft>;
    const double radius = plain ? width * 0.5 : std::min(width, height) / 2;
    for (int i = 0; i < width * height; ++i) {
      const double d = std::hypot(i % width - width / 2, i / width - height / 2);
      expected[i] *= !plain && d >= radius ? 0 : 0.5 + 0.5 * std::cos(kPi * d / radius);
    }
    fft.Windowing(0);
    EXPECT_LT(Distance(Values(fft, 0), expected), 1e-6) << width << " x " << height;
  }
}

TYPED_TEST(Fft, LogPolar) {
  const bool plain = std::is_same_v<TypeParam, CFft>;
  for (const int mode : {0, 1}) {
    for (const int tone : {0, 1, 2}) {  // 2: with values below 0, which only CFftd takes
      if (plain && tone == 2) continue;
      constexpr int kWidth = 64, kHeight = 32, kR0 = 2;
      TypeParam fft;
      ASSERT_EQ(fft.Create(kWidth, kHeight), 1);
      const auto image = [&](double x, double y) {
        return 40 + (tone == 2 ? -39 : 20) * std::sin(x * 0.2) * std::cos(y * 0.3);
      };
      std::vector<double> values;
      for (int i = 0; i < kWidth * kHeight; ++i) {
        fft.GetArray(1)[i] = {static_cast<float>(image(i % kWidth, i / kWidth) - (tone == 2 ? 20 : 0)), 7};
        values.push_back(fft.GetArray(1)[i].re);
      }
      const double least = *std::min_element(values.begin(), values.end());
      for (double& v : values) {
        if (tone) v = plain ? std::log(v) + 1 : std::log(v + 1 - (least > 0 ? 0 : least));
      }
      fft.ToLogPolar(kR0, mode, 10, 130, tone, 1);
      const double rMax = plain ? (mode ? kWidth * 0.5 : kWidth / std::sqrt(2)) - 0.5
                                : (mode ? 16 : std::floor(std::hypot(kWidth, kHeight) / 2)) - 0.5;
      const double start = std::log(kR0 + (plain ? 0.5 : 1.0)), step = (std::log(rMax) - start) / kHeight;
      const auto at = [&](int x, int y) {
        return values[std::clamp(y, 0, kHeight - 1) * kWidth + std::clamp(x, 0, kWidth - 1)];
      };
      for (int j = 0; j < kHeight; ++j) {
        for (int i = 0; i < kWidth; ++i) {
          const double theta = (10 + 120.0 * i / kWidth) * kPi / 180, rho = std::exp(start + j * step);
          const double x = std::cos(theta) * rho + kWidth * 0.5 - 0.5,
                       y = std::sin(theta) * rho + kHeight * 0.5 - 0.5;
          const double edge = std::min({std::abs(x + 0.5), std::abs(x - kWidth + 0.5), std::abs(y + 0.5),
                                        std::abs(y - kHeight + 0.5)});
          if (edge < 1e-4) continue;  // rounding decides
          double expected = 0;
          if (x > -0.5 && x < kWidth - 0.5 && y > -0.5 && y < kHeight - 0.5) {
            const int ix = static_cast<int>(std::floor(x)), iy = static_cast<int>(std::floor(y));
            expected = std::lerp(std::lerp(at(ix, iy), at(ix + 1, iy), x - ix),
                                 std::lerp(at(ix, iy + 1), at(ix + 1, iy + 1), x - ix), y - iy);
          }
          ASSERT_NEAR(fft.GetArray(1)[j * kWidth + i].re, expected, 1e-3)
              << i << ", " << j << ", mode " << mode;
          ASSERT_EQ(fft.GetArray(1)[j * kWidth + i].im, 0);
        }
      }
    }
  }
}

/// A plane with the spectrum of a shift, and one of ones: CalcPOC meets a peak between the elements.
template <class T>
void PutShift(T& fft, double dx, double dy, int sign) {
  const int width = fft.GetWidth(), height = fft.GetHeight();
  for (int i = 0; i < width * height; ++i) {
    const int x = i % width, y = i / width;
    const double turns =
        dx * (x < width / 2 ? x : x - width) / width + dy * (y < height / 2 ? y : y - height) / height;
    const Number w = std::polar(30.0, sign * 2 * kPi * turns);
    fft.GetArray(0)[i] = {2e15F, 0};  // squares of which are no floats
    fft.GetArray(1)[i] = {static_cast<float>(w.real() * 1e9), static_cast<float>(w.imag() * 1e9)};
  }
}

TEST(CFftd, FindsPeaksBetweenElements) {
  for (const auto& [width, height] : {std::pair(64, 64), {128, 32}}) {
    for (const auto& [dx, dy] : {std::pair(0.0, 0.0), {3.25, -4.4}, {-7.8, 0.5}, {0.5, 10.0}, {-20.1, 7.3}}) {
      CFftd fft;
      ASSERT_EQ(fft.Create(width, height), 1);
      PutShift(fft, dx, dy, 1);
      fft.CalcPOC();
      EXPECT_EQ(fft.GetArray(0)[width / 4].re, 0) << "half of the band";
      EXPECT_EQ(fft.GetArray(0)[(height / 4) * width].re, 0);
      EXPECT_NEAR(std::hypot(fft.GetArray(0)[1].re, fft.GetArray(0)[1].im), 1, 1e-6);
      fft.Do(1, 0);
      fft.Swap(0);
      double x = 9, y = 9, peak = 9;
      fft.PeakOfPOC(nullptr, nullptr, x, y, peak);
      EXPECT_NEAR(x, dx, 0.02);
      EXPECT_NEAR(y, dy, 0.02);
      EXPECT_LT(peak, 0.2501);
      EXPECT_GT(peak, dx == 0 ? 0.2499 : 0.1);
      const int px = static_cast<int>(std::lround(dx)) + width / 2,
                py = static_cast<int>(std::lround(dy)) + height / 2;
      double againX = 0, againY = 0;
      fft.PeakOfPOC(&px, &py, againX, againY, peak);
      EXPECT_NEAR(againX, dx, 0.02);
      EXPECT_NEAR(againY, dy, 0.02);
      EXPECT_EQ(peak, fft.GetArray(0)[py * width + px].re);
    }
  }
}

/// The peak evaluation along a line of values r, from p and its neighbour q, with the band of a half.
double FittedPeak(int p, int q, int size, const std::function<double(int)>& value) {
  const auto inside = [=](int i) { return std::clamp(i, 0, size - 1); };
  double above = 0, below = 0;
  for (const int s : {p, q}) {
    for (int i = 1; i <= 3; ++i) {
      const double k = 2 * std::cos(kPi * i / 2);
      const auto r = [&](int at) { return value(inside(at)); };
      const auto c = [&](int at) { return inside(at) - size / 2; };
      const double u = r(s - i) + r(s + i) - k * r(s);
      const double v = k * c(s) * r(s) - c(s - i) * r(s - i) - c(s + i) * r(s + i);
      above += u * v, below += u * u;
    }
  }
  return -above / below;
}

TEST(CFftd, PeaksFollowTheirFormulaOnAnySurface) {
  for (const auto& [width, height] : {std::pair(16, 8), {8, 32}}) {
    CFftd fft;
    ASSERT_EQ(fft.Create(width, height), 1);
    for (int round = 0; round < 40; ++round) {
      Fill(fft, 100 + round);
      // Anywhere, the edges and corners among them.
      const int px = round < 20 ? round % 3 * (width - 1) / 2 : static_cast<int>(Noise(round) * width);
      const int py =
          round < 20 ? round / 3 % 3 * (height - 1) / 2 : static_cast<int>(Noise(round + 99) * height);
      const auto inRow = [&, width = width, py](int x) { return fft.GetArray(0)[py * width + x].re; };
      const auto inColumn = [&, width = width, px](int y) { return fft.GetArray(0)[y * width + px].re; };
      fft.GetArray(0)[py * width + px].re = std::abs(inRow(px)) + 1;
      const auto clamped = [](int i, int size) { return std::clamp(i, 0, size - 1); };
      const int q = inRow(clamped(px - 1, width)) > inRow(clamped(px + 1, width)) ? px - 1 : px + 1;
      const int above = std::abs(py - 1), below = py + 1 < height ? py + 1 : height - 1;
      double x = 0, y = 0, peak = 0;
      fft.PeakOfPOC(&px, &py, x, y, peak);
      EXPECT_NEAR(x, FittedPeak(px, q, width, inRow), 1e-6) << px << ", " << py;
      EXPECT_NEAR(y, FittedPeak(py, inColumn(above) > inColumn(below) ? above : below, height, inColumn),
                  1e-6)
          << px << ", " << py;
    }
  }
}

TEST(CFft, APeakIsTheCentroidAboveTheFloorOfItsWindow) {
  constexpr int kWidth = 64, kHeight = 32;
  for (const auto& [px, py] : {std::pair(40, 10), {2, 3}, {63, 31}}) {
    CFft fft;
    ASSERT_EQ(fft.Create(kWidth, kHeight), 1);
    Fill(fft, 7);
    fft.GetArray(0)[py * kWidth + px].re =
        500;  // the array is swapped about its middle before it is searched
    const int sx = (px + kWidth / 2) % kWidth, sy = (py + kHeight / 2) % kHeight;
    const auto value = [before = Values(fft, 0)](int x, int y) {
      return before[(y + kHeight / 2) % kHeight * kWidth + (x + kWidth / 2) % kWidth].real();
    };
    const int left = std::max(sx - 11, 0), right = std::min(sx + 11, kWidth), top = std::max(sy - 11, 0),
              bottom = std::min(sy + 11, kHeight);
    double floor = value(0, 0), sum = 0, sumX = 0, sumY = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int x = i % kWidth, y = i / kWidth;
      if (x >= left && x < right && y >= top && y < bottom) floor = std::min(floor, value(x, y));
    }
    for (int y = top; y < bottom; ++y) {
      for (int x = left; x < right; ++x) {
        sum += value(x, y) - floor, sumX += x * (value(x, y) - floor), sumY += y * (value(x, y) - floor);
      }
    }
    double x = 0, y = 0;
    fft.PeakOfPOC(x, y);
    EXPECT_NEAR(x, sumX / sum - kWidth / 2, 1e-4);
    EXPECT_NEAR(y, sumY / sum - kHeight / 2, 1e-4);
  }
}

TEST(CFftd, PartsCorrelateAsPlanesDo) {
  for (const auto& [width, height] :
       {std::pair(1, 1), {2, 1}, {1, 2}, {2, 2}, {4, 2}, {4, 4}, {8, 16}, {64, 16}, {16, 128}}) {
    for (const float scale : {1.0f, 2e-6f, 5e5f, 0.0f}) {
      CFftd planes, parts;
      ASSERT_EQ(planes.Create(width, height) + parts.Create(width, height), 2);
      Fill(planes);
      for (int i = 0; i < width * height; ++i) {
        const float a = planes.GetArray(0)[i].re, b = planes.GetArray(1)[i].re * scale;
        planes.GetArray(0)[i] = {a, 0};
        planes.GetArray(1)[i] = {b, 0};
        parts.GetArray(0)[i] = {a, b};
        parts.GetArray(1)[i] = {7, 7};
      }
      for (const int p : {0, 1}) {
        planes.Windowing(p);
        planes.Do(0, p);
      }
      planes.CalcPOC();
      planes.Do(1, 0);
      planes.Swap(0);
      parts.CorrelateParts();
      EXPECT_LT(Distance(Values(parts, 0), Values(planes, 0)), 1e-4)
          << width << " x " << height << ", times " << scale;
      EXPECT_EQ(parts.GetArray(1)[width * height - 1].re, 7);
    }
  }
}

TEST(CFftd, WithoutAPeakAllIsZero) {
  for (const float value : {0.0f, -3.0f, std::nanf("")}) {
    for (const auto& [width, height] : {std::pair(16, 16), {1, 1}, {1, 8}}) {
      CFftd fft;
      ASSERT_EQ(fft.Create(width, height), 1);
      std::fill_n(fft.GetArray(0), width * height, dcomplex{value, 0});
      for (const int at : {-5, 0, 100}) {
        double x = 9, y = 9, peak = 9, row = 9;
        fft.PeakOfPOC(at < 0 ? nullptr : &at, &at, x, y, peak);
        fft.PeakOfPOC1D(0, row);
        EXPECT_EQ(std::abs(x) + std::abs(y) + std::abs(peak) + std::abs(row), 0);
      }
    }
  }
}

TEST(CFftd, TransformsOfRowsWriteAcross) {
  for (const auto& [width, height] : {std::pair(8, 4), {4, 16}, {16, 1}}) {
    CFftd fft;
    ASSERT_EQ(fft.Create(width, height), 1);
    Fill(fft);
    auto expected = Values(fft, 0);
    for (int y = 0; y < height; ++y) {
      std::vector<Number> row(width);
      std::copy_n(expected.begin() + y * width, width, row.begin());
      const auto line = DirectSum(row, width, 1, -1, 1.0 / width);
      std::copy(line.begin(), line.end(), expected.begin() + y * width);
      for (int k = 0; k < width; ++k) {
        if (y + k * (height + 1) < width * height) expected[y + k * (height + 1)] = line[k];
      }
    }
    EXPECT_EQ(fft.Do1D(1, 0), 0);
    EXPECT_LT(Distance(Values(fft, 0), expected), 1e-6) << width << " x " << height;
  }
}

TEST(CFftd, PeaksOfRows) {
  for (const int height : {32, 64}) {
    CFftd fft;
    ASSERT_EQ(fft.Create(64, height), 1);
    PutShift(fft, 5.3, 0, 1);
    fft.CalcPOC1D();
    EXPECT_GT(std::abs(Number(fft.GetArray(0)[64 * height / 2].re, 0)), 0.9) << "all rows keep their band";
    fft.Do(1, 0);
    fft.Swap(0);
    double dx = 9;
    fft.PeakOfPOC1D(height / 2, dx);
    EXPECT_NEAR(dx, 5.3, 0.02);
    dx = 9;
    fft.PeakOfPOC1D(dx);
    EXPECT_EQ(dx, height > 40 ? 0 : 9);
    for (int x = 0; x < 64 && height > 40; ++x) {
      EXPECT_EQ(fft.GetArray(0)[x].re, 0);
    }
  }
}

TEST(CFftd, SwapsQuadrants) {
  for (const auto& [width, height] : {std::pair(8, 4), {1, 8}, {8, 1}, {2, 2}}) {
    CFftd fft;
    ASSERT_EQ(fft.Create(width, height), 1);
    Fill(fft);
    const auto before = Values(fft, 1);
    auto expected = before, halves = before;
    for (int i = 0; i < width * height; ++i) {
      const int x = i % width, y = i / width, sx = (x + width / 2) % width;
      expected[(y + height / 2) % height * width + sx] = before[i];
      halves[y * width + sx] = before[i];
    }
    fft.Swap(1);
    EXPECT_EQ(Values(fft, 1), expected);
    fft.Swap(1);
    fft.SwapX(1);
    EXPECT_EQ(Values(fft, 1), halves);
  }
}

TEST(CFftd, ThreadsAndProcessorsGiveTheSameBits) {
  std::vector<Number> first;
  for (const int threads : {1, 3, 8}) {
    for (const unsigned features : {2u, ~0u}) {
      const WithThreads team(threads);
      const WithFeatures simd(features);
      CFftd fft;
      ASSERT_EQ(fft.Create(128, 64), 1);
      Fill(fft);
      fft.Windowing(0);
      fft.Do(0, 0);
      fft.Do(0, 1);
      fft.CalcPOC();
      fft.ToAmpPhase(1);
      fft.ToLogPolar(0, 1, 0, 180, 1, 1);
      fft.Do(1, 0);
      auto result = Values(fft, 0);
      const auto polar = Values(fft, 1);
      result.insert(result.end(), polar.begin(), polar.end());
      if (first.empty()) first = result;
      EXPECT_EQ(result, first) << threads << " threads";
    }
  }
}

TEST(CFft, CorrelationAndItsForms) {
  CFft fft;
  ASSERT_EQ(fft.Create(64, 32), 1);
  PutShift(fft, 6, -3, -1);
  fft.ToAmpPhase(1);
  std::string noted;
  SetDebugSink([&](const std::wstring& line) { noted = Narrow(line); });
  const auto a = Values(fft, 0), b = Values(fft, 1);
  fft.CalcPOC();
  EXPECT_EQ(noted, "CFft::CalcPOC(): FFT array B is amplitude.");
  EXPECT_EQ(Values(fft, 0), a);
  EXPECT_EQ(Values(fft, 1), b);
  fft.ToReIm(1);
  fft.ToAmpPhase(0);
  fft.CalcPOC();
  EXPECT_EQ(noted, "CFft::CalcPOC(): FFT array A is amplitude.");
  SetDebugSink(nullptr);
  fft.ToAmpPhase(1);
  fft.CalcPOC();  // both are brought back
  fft.Do(1, 0);
  double x = 0, y = 0;
  fft.PeakOfPOC(x, y);
  EXPECT_NEAR(x, 6, 0.01);
  EXPECT_NEAR(y, -3, 0.01);
  fft.Init();
  fft.PeakOfPOC(x, y);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
}

TEST(CFft, GaussianConvolutionAndExtremes) {
  CFft a, b, small;
  ASSERT_EQ(a.Create(16, 8) + b.Create(16, 8) + small.Create(8, 8), 3);
  for (const double sigma : {2.0, 0.0}) {
    a.SetGauss(sigma);
    for (int i = 0; i < 16 * 8; ++i) {
      const int x = i % 16 > 8 ? i % 16 - 16 : i % 16, y = i / 16 > 4 ? i / 16 - 8 : i / 16;
      const double value = i == 0 ? 1 : sigma == 0 ? 0 : std::exp(-(x * x + y * y) / (2 * sigma * sigma));
      EXPECT_NEAR(a.GetArray(0)[i].re, value * 159.1551, 2e-3);
      EXPECT_EQ(a.GetArray(0)[i].im, 0);
    }
  }
  Fill(a, 3);
  Fill(b, 4);
  auto expected = Values(a, 0);
  const auto others = Values(b, 0);
  double least = INFINITY, most = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    least = std::min(least, std::norm(expected[i]));
    most = std::max(most, std::norm(expected[i]));
    expected[i] *= std::conj(others[i]) / (std::norm(others[i]) + 0.5);
  }
  double low = 9, high = 9;
  a.GetMinMax(&low, &high);
  EXPECT_NEAR(low, least, 1e-6 * most);
  EXPECT_NEAR(high, most, 1e-6 * most);
  a.Convolution(&b, 0.5);
  EXPECT_LT(Distance(Values(a, 0), expected), 1e-6);
  a.Convolution(&small, 0.5);
  EXPECT_LT(Distance(Values(a, 0), expected), 1e-6) << "another size";
  CFft().GetMinMax(&low, &high);
  EXPECT_EQ(low + high, 0);
  EXPECT_EQ(CFft::GetCeilPowerOf2(1000), 1024);
  EXPECT_EQ(CFft::GetCeilPowerOf2(1024), 1024);
  EXPECT_EQ(CFft::GetFloorPowerOf2(1023), 512);
  EXPECT_EQ(CFft::GetFloorPowerOf2(0), 0);
  EXPECT_EQ(CFft::GetCeilPowerOf2((1 << 30) + 1), 0);
}

}  // namespace
