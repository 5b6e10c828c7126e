#include "korimg/measurement/CImgEvaluateGuideError.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/measurement/PSF.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

struct Light {
  double x, y, peak;
};

/// Stars of one shape on a sky of 200 with some noise.
PixelRule Sky(std::vector<Light> stars, double sigma, double ratio, double degrees, double noise = 2) {
  const double a = degrees * std::numbers::pi / 180, c = std::cos(a), s = std::sin(a);
  return [=](int p, int x, int y) {
    double light = 200 + Random(-noise, noise)(p, x, y);
    for (const Light& star : stars) {
      const double dx = x - star.x, dy = y - star.y;
      if (std::abs(dx) > 60 || std::abs(dy) > 60) continue;
      const double u = (dx * c + dy * s) / ratio, v = dy * c - dx * s;
      light += star.peak * (1 + 0.1 * p) * std::exp(-(u * u + v * v) / (2 * sigma * sigma));
    }
    return light;
  };
}

/// Up to 15 stars in each of the regions that are looked at, the later ones brighter, and as many outside.
std::vector<Light> Field(int width, int height, int count) {
  std::vector<Light> stars;
  for (int i = 0; i < 4 * count; ++i) {
    const int k = i / 4;
    const double column = (k % 5 + 0.3 + 0.4 * Noise(i)) / 5,
                 row = (k / 5 + 0.35 + 0.3 * Noise(1000 + i)) / 3;
    stars.push_back({((i & 1 ? 3.0 : 1.5) + column) * width / 5, ((i & 2 ? 3.0 : 1.5) + row) * height / 5,
                     3000 + 250.0 * k});
    stars.push_back({0.1 * width, height * Noise(2000 + i), 9000});
  }
  return stars;
}

TEST(GuideError, IsTheMeanElongationWhicheverWayItLies) {
  struct Case {
    int width, height, planes;
    double ratio, degrees;
  };
  const Case cases[] = {{700, 560, 1, 1, 0},  {700, 560, 1, 1.5, 0}, {700, 560, 3, 2, 90},
                        {700, 560, 1, 2, 45}, {2200, 300, 1, 2, 0},  {2200, 300, 1, 1.5, 135},
                        {3100, 240, 1, 2, 90}};
  for (const Case& c : cases) {
    const PixelRule sky = Sky(Field(c.width, c.height, 4), 2.5, c.ratio, c.degrees);
    std::vector<double> values;
    for (const auto& store : {MemoryStore(), TinyPool()}) {
      const auto image = Make(store, c.width, c.height, c.planes, sky);
      int found = -1;
      CStarPosEx stars;
      values.push_back(CImgEvaluateGuideError().Do(image.get(), &found, &stars));
      EXPECT_EQ(found, 1);
      EXPECT_NEAR(values.back(), c.ratio, 0.06 * c.ratio) << c.width << " " << c.degrees;
      EXPECT_EQ(values.back(), CImgEvaluateGuideError().Do(image.get(), nullptr, nullptr));
      // The mean of what the stars show that it lists.
      double sum = 0;
      for (std::ptrdiff_t i = 0; i < stars.first.GetSize(); ++i) {
        const CStarPos& star = stars.first[i];
        double w[4];
        ASSERT_EQ(PSF(image.get())
                      .GetFWHMXY(CPoint(static_cast<int>(star.x), static_cast<int>(star.y)), w, w + 1, w + 2,
                                 w + 3, nullptr),
                  1);
        sum += std::max(w[0] + w[1], w[2] + w[3]) / std::min(w[0] + w[1], w[2] + w[3]);
      }
      EXPECT_DOUBLE_EQ(values.back(), sum / static_cast<double>(stars.first.GetSize()));
    }
    EXPECT_NEAR(values[0], values[1], 1e-6);
  }
}

TEST(GuideError, ListsTheBrightestStarsOfFourRegions) {
  constexpr int kWidth = 2210, kHeight = 900;
  const std::vector<Light> field = Field(kWidth, kHeight, 15);
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto image = Make(store, kWidth, kHeight, 1, Sky(field, 2, 1, 0));
    CStarPosEx found;
    CImgEvaluateGuideError().Do(image.get(), nullptr, &found);
    // 1105 x 450 reduced pixels: 331 and 663, 135 and 270, of 221 x 90.
    const CRect regions[] = {
        {662, 270, 1104, 450}, {1326, 270, 1768, 450}, {662, 540, 1104, 720}, {1326, 540, 1768, 720}};
    ASSERT_EQ(found.second.GetSize(), 4);
    size_t at = 0;
    for (int k = 0; k < 4; ++k) {
      const CRect& region = regions[k];
      EXPECT_EQ(found.second[k].rect, region) << k;
      std::vector<Light> expected;
      std::copy_if(field.begin(), field.end(), std::back_inserter(expected), [&](const Light& star) {
        return star.x >= region.left && star.x < region.right && star.y >= region.top &&
               star.y < region.bottom;
      });
      ASSERT_EQ(expected.size(), 15u);
      const auto isIn = [&](size_t i) {
        return i < static_cast<size_t>(found.first.GetSize()) && found.first[i].x >= region.left &&
               found.first[i].x < region.right && found.first[i].y >= region.top &&
               found.first[i].y < region.bottom;
      };
      for (int i = 0; i < 10; ++i, ++at) {
        ASSERT_TRUE(isIn(at)) << k << " " << i;
        const CStarPos& star = found.first[at];
        const auto nearest =
            std::min_element(expected.begin(), expected.end(), [&](const Light& a, const Light& b) {
              return std::hypot(a.x + 0.5 - star.x, a.y + 0.5 - star.y) <
                     std::hypot(b.x + 0.5 - star.x, b.y + 0.5 - star.y);
            });
        EXPECT_NEAR(star.x, nearest->x + 0.5, 0.7);
        EXPECT_NEAR(star.y, nearest->y + 0.5, 0.7);
        for (int w = 0; w < 4; ++w) {
          EXPECT_NEAR(star.values[w], 2.3548, 0.7) << "half of the width at half height";
        }
        const int radius = static_cast<int>(1.8 * *std::max_element(star.values, star.values + 4) + 0.5);
        const int x = static_cast<int>(star.x), y = static_cast<int>(star.y);
        EXPECT_EQ(star.rect, CRect(x - radius, y - radius, x + radius + 1, y + radius + 1));
        expected.erase(nearest);  // none is found twice
      }
      EXPECT_FALSE(isIn(at));
    }
  }
}

TEST(GuideError, WhatCannotBeMeasuredIsLeftOut) {
  const auto none = [](const PixelRule& rule) {
    const auto image = Make(MemoryStore(), 400, 300, 1, rule);
    int found = -1;
    CStarPosEx stars;
    stars.first.SetSize(3);
    const double value = CImgEvaluateGuideError().Do(image.get(), &found, &stars);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(stars.first.GetSize(), 0);
  };
  none([](int, int, int) { return 500; });
  none([](int, int, int) { return NAN; });
  none([](int, int x, int y) { return 100 - 0.01 * ((x - 200) * (x - 200) + (y - 150) * (y - 150)); });
  CImgEvaluateGuideError empty;
  int found = -1;
  EXPECT_EQ(CImgEvaluateGuideError().Do(&empty, &found, nullptr), 0);
  EXPECT_EQ(found, 0);
  const auto flatAndLow = Make(MemoryStore(), 2500, 1, 1, Random(0, 1));
  EXPECT_EQ(CImgEvaluateGuideError().Do(flatAndLow.get(), nullptr, nullptr), 0)
      << "nothing is left of one row";
}

TEST(GuideError, OnePlaceThatCannotBeMeasuredCountsAsOneOfThem) {
  // Reduced by 3; the widest bright thing is no star, the others are found one after the other.
  constexpr int kFactor = 3;
  const std::vector<Light> stars = {{100, 60, 700}, {41, 93, 600}, {150, 120, 500}};
  const auto full = Make(MemoryStore(), 240, 180, 1, [&](int p, int x, int y) {
    return x >= 200 ? 1100 : Sky(stars, 2, 1, 0, 1)(p, x, y);
  });
  const auto reduced = Make<CImgEvaluateGuideError>(MemoryStore(), 80, 60, 1, [&](int, int x, int y) {
    double brightest = 0;
    for (int k = 0; k < kFactor * kFactor; ++k) {
      brightest = std::max<double>(
          brightest, full->GetPixelGrayRaw(x * kFactor + k % kFactor, y * kFactor + k / kFactor, 0));
    }
    return brightest;
  });
  CRect all(0, 0, 80, 60), column(67, 10, 68, 11);
  CArray<CStarPos, CStarPos&> list;
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &column, 5, list), 0);
  CRect left(0, 0, 66, 60);
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &left, 2, list), 2);
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &left, 1, list), 1) << "the list grows";
  ASSERT_EQ(list.GetSize(), 3);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(list[i].x, stars[i % 2].x + 0.5, 0.3) << "brightest first";
    EXPECT_NEAR(list[i].y, stars[i % 2].y + 0.5, 0.3);
  }
  // Each place of the bright strip counts as one.
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &all, 50, list), 0);
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &all, 2000, list), 3);
  CRect outside(90, 0, 99, 60);
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &outside, 5, list), 0);
  EXPECT_EQ(reduced->DetectStars(full.get(), kFactor, &left, 0, list), 0);
}

TEST(GuideError, OfEqualPeaksTheFirstByRowsIsTakenAndNoneBelowTheMean) {
  // Further from the left than the first ones of their row, and in an earlier lane of the sums.
  const CPoint places[] = {{77, 20}, {33, 40}, {66, 40}, {12, 60}};
  const auto image = Make<CImgEvaluateGuideError>(MemoryStore(), 100, 80, 1, [&](int, int x, int y) {
    double light = 10 + (x * 7 + y * 13) % 5 % 3;
    for (const CPoint& p : places) {
      light += 100 * std::exp(-0.3 * ((x - p.x) * (x - p.x) + (y - p.y) * (y - p.y)));
    }
    return std::round(light);
  });
  CArray<CStarPos, CStarPos&> list;
  CRect rect(2, 0, 100, 80);
  CVelImage measured(*image, nullptr);
  Paint(*image, [&](int, int x, int y) {
    return std::any_of(std::begin(places), std::end(places), [&](CPoint p) { return p == CPoint(x, y); }) ? 5
                                                                                                          : 3;
  });
  EXPECT_EQ(image->DetectStars(&measured, 1, &rect, 9, list), 4);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(list[i].x, places[i].x + 0.5, 0.1) << i;
    EXPECT_NEAR(list[i].y, places[i].y + 0.5, 0.1) << i;
  }
}

}  // namespace
