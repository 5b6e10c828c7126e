#include "korimg/measurement/CImgMatching.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr double kNone = 3.402823466e38;

/// The mean square difference pixel by pixel, by the image's own reading between pixels.
double Reference(CVelImage& image, CVelImage& other, double x, double y, const double* ratio) {
  const int left = std::max(0, static_cast<int>(std::ceil(x))),
            top = std::max(0, static_cast<int>(std::ceil(y)));
  const int right = std::min(static_cast<int>(std::floor(x + other.GetWidth())), image.GetWidth());
  const int bottom = std::min(static_cast<int>(std::floor(y + other.GetHeight())), image.GetHeight());
  const int planes = std::min(image.GetPlanes(), other.GetPlanes());
  if (left >= right || top >= bottom) return kNone;
  double sum = 0;
  for (int p = 0; p < planes; ++p) {
    for (int v = top; v < bottom; ++v) {
      for (int u = left; u < right; ++u) {
        const float theirs = other.GetPixelGrayRaw(u - x, v - y, p) * static_cast<float>(ratio[p]);
        const double d = image.GetPixelGrayRaw(u, v, p) - theirs;
        sum += d * d;
      }
    }
  }
  return sum / (static_cast<double>(right - left) * (bottom - top) * planes);
}

TEST(Matching, DifferencesAreMeanSquaresOfTheOverlap) {
  struct Case {
    int width, height, planes, otherWidth, otherHeight, otherPlanes;
  };
  double ratio[] = {1.25, 0.5, 2};
  for (const Case& c : {Case{40, 31, 3, 27, 45, 3},
                        {40, 31, 1, 40, 31, 3},
                        {753, 70, 3, 741, 69, 1},
                        {33, 1, 2, 1, 9, 2},
                        {1, 1, 1, 1, 1, 1}}) {
    for (const auto& store : {MemoryStore(), TinyPool()}) {
      const auto image = Make<CImgMatching>(store, c.width, c.height, c.planes, Random(100, 900));
      const auto other = Make(store, c.otherWidth, c.otherHeight, c.otherPlanes, Random(-500, 900, 2));
      for (const auto& [x, y] :
           {std::pair(0, 0), {3, -2}, {-11, 7}, {-26, 30}, {39, -44}, {752, 3}, {-1, 0}}) {
        const double expected = Reference(*image, *other, x, y, ratio);
        EXPECT_NEAR(image->CalcValue(other.get(), x, y, ratio) / expected, 1, 1e-12) << x << "," << y;
        EXPECT_EQ(image->CalcValue(other.get(), 1.0 * x, 1.0 * y, ratio),
                  image->CalcValue(other.get(), x, y, ratio));
        for (const auto& [dx, dy] : {std::pair(0.25, 0.0), {0.0, 0.7}, {-0.3, 0.6}, {0.0078125, -0.1}}) {
          const double between = Reference(*image, *other, x + dx, y + dy, ratio);
          EXPECT_NEAR(image->CalcValue(other.get(), x + dx, y + dy, ratio) / between, 1, 1e-6)
              << x + dx << "," << y + dy;
        }
      }
      for (const double far : {1e4, -1e4, 1e300, -1e300, double{NAN}}) {
        EXPECT_EQ(image->CalcValue(other.get(), far, 0.0, ratio), kNone);
        EXPECT_EQ(image->CalcValue(other.get(), 0.0, far, ratio), kNone);
      }
      EXPECT_EQ(image->CalcValue(other.get(), c.width, 0, ratio), kNone);
      EXPECT_EQ(image->CalcValue(other.get(), 0, -c.otherHeight, ratio), kNone);
      EXPECT_EQ(image->CalcValue(other.get(), 2147483647, -2147483647, ratio), kNone);
    }
  }
}

/// The search as it is told, each place in full.
struct Found {
  int answer = 0;
  double x = 0, y = 0;
};
Found Search(CImgMatching& image, CVelImage& other, double x, double y, int range, int fine, double* ratio) {
  double best = kNone, atX = std::floor(x + 0.5), atY = std::floor(y + 0.5);
  const auto look = [&](auto px, auto py) {
    const double value = image.CalcValue(&other, px, py, ratio);
    if (!(value < best)) return;
    best = value, atX = px, atY = py;
  };
  for (int from[] = {static_cast<int>(atX), static_cast<int>(atY)}, v = -(range / 2); v < range / 2; v += 2) {
    for (int u = -(range / 2); u < range / 2; u += 2) {
      look(from[0] + u, from[1] + v);
    }
  }
  for (int from[] = {static_cast<int>(atX), static_cast<int>(atY)}, v = -1; v <= 1; ++v) {
    for (int u = -1; u <= 1; ++u) {
      look(from[0] + u, from[1] + v);
    }
  }
  for (const double step : {0.3, 0.1}) {
    const double fromX = atX, fromY = atY;
    for (int k = 0; k < 25 && fine && best < kNone; ++k) {
      if (k != 12) look(fromX + (k % 5 - 2) * step, fromY + (k / 5 - 2) * step);
    }
  }
  return best < kNone ? Found{1, atX, atY} : Found{0, x, y};
}

TEST(Matching, TheFirstOfTheBestPlacesWins) {
  // Few values, so that many places are equally good.
  const PixelRule coarse = [](int, int x, int y) { return 1 + static_cast<int>(2 * Random(0, 1)(0, x, y)); };
  const PixelRule stripes = [](int, int x, int) { return 1 + x / 2 % 2; };
  const PixelRule smooth = [](int, int x, int y) {
    return 300 + 100 * std::sin(0.2 * x) * std::cos(0.23 * y);
  };
  const PixelRule holes = [](int p, int x, int y) {
    return x > 20 && y > 50 ? NAN : Random(100, 900)(p, x, y);
  };
  struct Case {
    int width, height, otherWidth, otherHeight;
    double x, y;
    int range;
  };
  const Case cases[] = {{12, 9, 10, 11, 0, 0, 12},     {12, 9, 10, 11, 2.4, -1.6, 7},
                        {30, 150, 29, 149, 0, 0, 16},  {20, 20, 20, 20, 30, 0, 12},
                        {20, 20, 20, 20, 0, -19, 6},   {20, 20, 20, 20, 1, 1, 1},
                        {20, 20, 20, 20, 0, 0, -8},    {8, 8, 8, 8, 1000, 0, 10},
                        {9, 70, 40, 80, -10.5, 0, 40}, {16, 16, 16, 16, 0, 0, 5000}};
  const auto ratioOf = [](CVelImage& a, CVelImage& b) {
    double ratio = a.GetAvrGrayRaw(0) / static_cast<double>(b.GetAvrGrayRaw(0));
    return std::isnan(ratio) ? NAN : ratio;
  };
  for (const PixelRule& rule : {coarse, stripes, smooth, holes}) {
    for (const Case& c : cases) {
      for (const int fine : {0, 1}) {
        const auto image = Make<CImgMatching>(MemoryStore(), c.width, c.height, 1, rule);
        const auto other = Make(MemoryStore(), c.otherWidth, c.otherHeight, 1,
                                [&](int p, int x, int y) { return rule(p, x + 3, y + 2); });
        double ratio = ratioOf(*image, *other), x = c.x, y = c.y;
        const Found expected = Search(*image, *other, x, y, std::min(c.range, 64), fine, &ratio);
        const int answer = image->Do(other.get(), &x, &y, c.range, fine, 0);
        EXPECT_EQ(std::tuple(answer, x, y), std::tuple(expected.answer, expected.x, expected.y))
            << c.width << "x" << c.height << " range " << c.range;
      }
    }
  }
}

TEST(Matching, FindsShiftsInsideItsRange) {
  const auto scene = [](double dx, double dy, double light) -> PixelRule {
    return [=](int p, int x, int y) {
      double value = 20;
      for (int i = 0; i < 25; ++i) {
        const double u = x - dx - 120 * Noise(i), v = y - dy - 90 * Noise(i + 100);
        value += 400 * Noise(i + 200) * std::exp(-(u * u + v * v) / 12);
      }
      return light * (1 + p) * value + Random(-2, 2, static_cast<int>(light * 8))(p, x, y);
    };
  };
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int planes : {1, 3}) {
      for (const auto& [dx, dy] : {std::pair(0.0, 0.0), {-7.0, 12.0}, {9.3, -5.6}}) {
        const auto image = Make<CImgMatching>(store, 120, 90, planes, scene(0, 0, 1));
        const auto other = Make(store, 120, 90, planes, scene(dx, dy, 2.5));
        double x = 0, y = 0;
        EXPECT_EQ(image->Do(other.get(), &x, &y, 32, 0, 0), 1);
        EXPECT_EQ(std::pair(x, y), std::pair(std::round(-dx), std::round(-dy)));
        x = 2, y = -3;
        EXPECT_EQ(image->Do(other.get(), &x, &y, 32, 1, 0), 1);
        EXPECT_NEAR(x, -dx, 0.15);
        EXPECT_NEAR(y, -dy, 0.15);
      }
    }
  }
}

TEST(Matching, MeansOfNothingLeaveTheLightAlone) {
  // Of a mean of 0 on either side, by planes; of a colour image and a mono one plane 0 counts.
  for (const auto& [mean, otherMean, planes, otherPlanes] :
       {std::tuple(0.0, 40.0, 1, 1), {40.0, 0.0, 1, 1}, {0.0, 40.0, 3, 3}, {40.0, 0.0, 3, 1}}) {
    const auto wave = [](double level) -> PixelRule {
      return [=](int, int x, int y) {
        return level + (Noise(x / 2 + 1000 * y) < 0.5 ? 1 : -1) * (x % 2 ? 1 : -1);
      };
    };
    const auto image = Make<CImgMatching>(MemoryStore(), 64, 64, planes, wave(mean));
    const auto other = Make(MemoryStore(), 64, 64, otherPlanes, wave(otherMean));
    double ones[] = {1, 1, 1}, x = 0, y = 0;
    const Found expected = Search(*image, *other, 0, 0, 8, 0, ones);
    EXPECT_EQ(image->Do(other.get(), &x, &y, 8, 0, 0), 1);
    EXPECT_EQ(std::pair(x, y), std::pair(expected.x, expected.y));
  }
  CImgMatching empty;
  const auto image = Make<CImgMatching>(MemoryStore(), 8, 8, 1, Random(1, 2));
  double x = 7.25, y = -3;
  EXPECT_EQ(image->Do(&empty, &x, &y, 8, 1, 0), 0);
  EXPECT_EQ(empty.Do(image.get(), &x, &y, 8, 1, 0), 0);
  EXPECT_EQ(std::pair(x, y), std::pair(7.25, -3.0));
}

}  // namespace
