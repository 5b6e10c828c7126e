#include "korimg/measurement/CImgPixelInfo.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

struct Figures {
  double min[3], max[3], mean[3], sd[3], median[3], peak[3], fwhm[3];
};

void Expect(const Figures& got, int p, std::vector<double> pixels, size_t medianAt, const std::string& what) {
  double mean = 0, squares = 0;
  for (const double v : pixels)
    mean += v / static_cast<double>(pixels.size());
  for (const double v : pixels)
    squares += (v - mean) * (v - mean) / static_cast<double>(pixels.size());
  std::sort(pixels.begin(), pixels.end());
  EXPECT_EQ(got.min[p], pixels.front()) << what;
  EXPECT_EQ(got.max[p], pixels.back()) << what;
  EXPECT_NEAR(got.mean[p], mean, 1e-6 * std::abs(mean)) << what;
  EXPECT_NEAR(got.sd[p], std::sqrt(squares), 1e-6 * mean) << what;
  EXPECT_EQ(got.median[p], pixels[medianAt]) << what;
}

TEST(CImgPixelInfo, FiguresOfRectanglesAndCircles) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto image = Make<CImgPixelInfo>(store, 67, 45, 3, Random(100, 900));
    const auto pixelsOf = [&](int p, auto&& within) {
      std::vector<double> pixels;
      for (int i = 0; i < 67 * 45; ++i) {
        if (within(i % 67, i / 67)) pixels.push_back(image->GetPixelGrayRaw(i % 67, i / 67, p));
      }
      return pixels;
    };
    for (const CRect& rect :
         {CRect(0, 0, 67, 45), CRect(5, 7, 6, 8), CRect(-9, 20, 11, 90), CRect(3, 4, 13, 9)}) {
      Figures f{};
      image->Calc(rect, f.min, f.max, f.mean, f.sd, f.median);
      for (int p = 0; p < 3; ++p) {
        const auto pixels = pixelsOf(p, [&](int x, int y) {
          return x >= rect.left && x < rect.right && y >= rect.top && y < rect.bottom;
        });
        Expect(f, p, pixels, (pixels.size() - 1) / 2, "rectangle");
        image->CalcSky(rect, f.min, f.max, f.mean, f.sd, f.median);
        Expect(f, p, pixels, pixels.size() / 2, "sky, untrimmed");
        image->Calc(rect, f.min, f.max, f.mean, f.sd, f.median);
      }
    }
    for (const auto& [low, high] : {std::pair(1.0, 1.0), {0.5, 0.3}, {0.0, 0.0}, {-5.0, 7.0}}) {
      for (const CPoint centre : {CPoint(30, 20), CPoint(2, 44), CPoint(66, 0)}) {
        constexpr int kRadius = 5;  // with pixels at just this distance off the axes
        Figures f{};
        image->CalcStar(centre.x, centre.y, kRadius, low, high, f.min, f.max, f.mean, f.sd, f.median, f.peak,
                        f.fwhm);
        auto pixels = pixelsOf(1, [&](int x, int y) {
          return (x - centre.x) * (x - centre.x) + (y - centre.y) * (y - centre.y) < kRadius * kRadius;
        });
        std::sort(pixels.begin(), pixels.end());
        const int n = static_cast<int>(pixels.size());
        const int first = std::clamp(static_cast<int>(n * (1 - high) / 2), 0, n / 2);
        const int last = std::min(std::max(static_cast<int>(n * (1 + low) / 2), n / 2 + 1), n - 1);
        const std::vector<double> kept(pixels.begin() + first, pixels.begin() + last + 1);
        Expect(f, 1, kept, kept.size() / 2, "circle");
        EXPECT_EQ(f.peak[1], pixels.back());
        const double half = (f.median[1] + f.peak[1]) / 2;
        const auto above = std::count_if(pixels.begin(), pixels.end(), [&](double v) { return v > half; });
        EXPECT_NEAR(f.fwhm[1], 2 * std::sqrt(static_cast<double>(above) / std::numbers::pi), 1e-9);
        Figures sky{};
        image->CalcSky(centre.x, centre.y, kRadius, low, high, sky.min, sky.max, sky.mean, sky.sd, nullptr);
        EXPECT_EQ(sky.mean[1], f.mean[1]);
      }
    }
  }
}

TEST(CImgPixelInfo, ExtremesAndPeaksPassNanOver) {
  const float column[] = {3, 9, 1, 5};
  for (int hole = 0; hole < 5; ++hole) {
    const auto image = Make<CImgPixelInfo>(MemoryStore(), 5, 5, 1, [&](int, int x, int y) -> double {
      return y == hole || x > 0 ? NAN : column[y < hole ? y : y - 1];
    });
    Figures f;
    const auto expect = [&](const char* what) {
      EXPECT_EQ(f.min[0], 1) << what << hole;
      EXPECT_EQ(f.max[0], 9) << what << hole;
    };
    image->Calc(CRect(0, 0, 3, 5), f.min, f.max, f.mean, f.sd, nullptr);
    expect("rectangle");
    image->CalcSky(CRect(0, 0, 3, 5), f.min, f.max, f.mean, f.sd, nullptr);
    expect("sky");
    image->CalcStar(0, 2, 4, 1, 1, f.min, f.max, f.mean, f.sd, nullptr, f.peak, f.fwhm);
    expect("circle");
    EXPECT_EQ(f.peak[0], 9);
    image->Calc(CRect(1, 0, 5, 5), f.min, f.max, f.mean, f.sd, nullptr);
    EXPECT_TRUE(std::isnan(f.min[0]) && std::isnan(f.max[0])) << "NaN alone";
  }
}

TEST(CImgPixelInfo, NothingGivesZeros) {
  const auto image = Make<CImgPixelInfo>(MemoryStore(), 9, 9, 1, Wild(1, 2));
  Figures f;
  const auto fill = [&] {
    for (double* results : {f.min, f.max, f.mean, f.sd, f.median, f.peak, f.fwhm}) {
      std::fill_n(results, 3, 7.0);
    }
  };
  fill();
  image->Calc(CRect(20, 20, 30, 30), f.min, f.max, f.mean, f.sd, f.median);
  image->CalcStar(-50, 3, 5, 1, 1, f.min, f.max, f.mean, f.sd, f.median, f.peak, f.fwhm);
  for (const double* results : {f.min, f.max, f.mean, f.sd, f.median, f.peak, f.fwhm}) {
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 7) << "an image of one plane has one result";
  }
  image->CalcStar(4, 4, 4, 1, 1, f.min, f.max, f.mean, f.sd, f.median, f.peak, f.fwhm);
  image->Calc(CPoint(4, 4), 9, f.min, f.max, f.mean, f.sd, f.median);
  double width;
  image->CalcFWHM(-2147483000, 0, &width);
  EXPECT_EQ(width, 0);
}

}  // namespace
