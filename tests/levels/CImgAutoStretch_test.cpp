// Planes brought together, against sums that are written out.
#include "korimg/levels/CImgAutoStretch.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

double Deviation(CVelImage& image, int p, int margin) {
  double sum = 0, squares = 0, n = 0;
  for (int y = margin; y < image.GetHeight() - margin; ++y) {
    for (int x = margin; x < image.GetWidth() - margin; ++x) {
      const double v = image.GetPixelGrayRaw(x, y, p);
      sum += v;
      squares += v * v;
      ++n;
    }
  }
  return std::sqrt(squares / n - sum / n * (sum / n));
}

/// Of the darker half of a rectangle's pixels, with the middle one.
double DarkMean(CVelImage& image, int p, const CRect& rect) {
  std::vector<double> values;
  for (int y = rect.top; y < rect.bottom; ++y) {
    for (int x = rect.left; x < rect.right; ++x) {
      values.push_back(image.GetPixelGrayRaw(x, y, p));
    }
  }
  std::sort(values.begin(), values.end());
  values.resize(std::min(values.size(), values.size() / 2 + 2));
  double sum = 0;
  for (const double v : values) {
    sum += v;
  }
  return sum / static_cast<double>(values.size());
}

struct Measured {
  int result = 0;
  double scale[3] = {7, 7, 7}, background[3] = {7, 7, 7}, spread[3] = {7, 7, 7};
};

Measured Measure(CVelImage* image, int margin, int autoSky, const CRect& sky) {
  Measured m;
  double filter[3] = {1, 1.5, 0.5};
  m.result = CImgAutoStretch::CalcAutoStretchParam(image, margin, autoSky, sky, filter, m.scale, m.background,
                                                   m.spread, 0);
  return m;
}

TEST(CImgAutoStretch, MeasuresSkyAndSpread) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [margin, sky, limited] : {std::tuple(0, CRect(10, 20, 60, 50), CRect(10, 20, 60, 50)),
                                               {12, CRect(3, 5, 60, 130), CRect(12, 12, 59, 121)},
                                               {0, CRect(-9, -9, 2, 2), CRect(0, 0, 2, 2)}}) {
      const auto image = Make(store.make(), 71, 133, 3, Random(50, 700));
      const Measured m = Measure(image.get(), margin, 0, sky);
      ASSERT_EQ(m.result, 1);
      const double filter[] = {1, 1.5, 0.5};
      for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(m.spread[p], Deviation(*image, p, margin), 1e-7) << store.name << " " << margin;
        EXPECT_NEAR(m.background[p], DarkMean(*image, p, limited), 1e-7) << store.name << " " << margin;
        EXPECT_EQ(m.scale[p], filter[p]);
      }
    }
  }
}

TEST(CImgAutoStretch, MeasuresNothingWhereNothingIs) {
  const auto image = Make(MemoryStore(), 71, 133, 3, Random(50, 700));
  const auto isUntouched = [](const Measured& m) {
    return m.result == 0 && m.background[0] == 7 && m.spread[2] == 7 && m.scale[1] == 7;
  };
  EXPECT_TRUE(isUntouched(Measure(nullptr, 0, 0, CRect(1, 1, 9, 9))));
  EXPECT_TRUE(isUntouched(Measure(image.get(), 0, 0, CRect(9, 9, 9, 20))));
  const auto small = Make(MemoryStore(), 9, 9, 3, Random(50, 700));
  EXPECT_TRUE(isUntouched(Measure(small.get(), 0, 1, CRect(1, 1, 9, 9))));
  // The margin leaves nothing of the sky, or nothing at all.
  for (const auto& [margin, sky] : {std::pair(20, CRect(0, 0, 15, 133)), {40, CRect(0, 0, 71, 133)}}) {
    const Measured m = Measure(image.get(), margin, 0, sky);
    EXPECT_EQ(m.result, 0);
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(m.background[p], 0);
      EXPECT_EQ(m.spread[p], 1);
      EXPECT_EQ(m.scale[p], 7);
    }
  }
  // One plane without spread.
  const auto flat = Make(MemoryStore(), 71, 133, 3,
                         [](int p, int x, int y) { return p == 1 ? 300 : Random(50, 700)(p, x, y); });
  const Measured m = Measure(flat.get(), 0, 0, CRect(0, 0, 71, 133));
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.background[1], 300);
  for (int p = 0; p < 3; ++p) {
    EXPECT_EQ(m.spread[p], 1);
    EXPECT_EQ(m.scale[p], 1);
  }
  const auto mono = Make(MemoryStore(), 71, 133, 1, Random(50, 700));
  const Measured one = Measure(mono.get(), 0, 0, CRect(0, 0, 71, 133));
  EXPECT_EQ(one.result, 1);
  EXPECT_EQ(one.spread[2], one.spread[0]);
  EXPECT_EQ(one.background[2], one.background[0]);
}

TEST(CImgAutoStretch, StretchesAboutTheBackground) {
  double scale[] = {1, 1.25, 0.5}, background[] = {200, 300.5, 100}, spread[] = {40, 20, 60},
         bias[] = {5, 0, -7};
  OnEveryPath([&](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect& rect : Windows(width, height)) {
        for (const int link : {0, 1}) {
          const auto src = Make(store.make(), width, height, 3, Wild(60, 1300));
          const auto target = Make<CImgAutoStretch>(src->VmManager(), width, height, 3, Random(0, 1, 7));
          target->DoStretch(src.get(), link, scale, background, spread, bias, Address(rect));
          const auto want = [&](int p, int x, int y) -> double {
            if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
            const double distance =
                (src->GetPixelGrayRaw(x, y, p) - background[p]) * 60 / spread[p] * scale[p];
            const double exact = distance + bias[p] + background[link ? 0 : p];
            // Floats on contiguous stores: to the rounding of the terms.
            const double got = target->GetPixelGrayRaw(x, y, p);
            return std::abs(got - exact) <= 3e-7 * (std::abs(distance) + 320) ? got : exact;
          };
          ASSERT_EQ(Difference(*target, want, 0), "") << store.name << " " << width << "x" << height;
        }
      }
    }
  });
  // From contiguous memory to a pool, and in place.
  const auto src = Make<CImgAutoStretch>(MemoryStore(), 71, 33, 3, Random(60, 1300));
  const auto target = Make<CImgAutoStretch>(TinyPool(), 71, 33, 3, Random(0, 1, 7));
  CRect rect(5, 3, 60, 30);
  target->DoStretch(src.get(), 1, scale, background, spread, bias, &rect);
  src->DoStretch(src.get(), 1, scale, background, spread, bias, nullptr);
  const auto want = [&](int p, int x, int y) -> double {
    const bool inside = x >= 5 && x < 60 && y >= 3 && y < 30;
    return inside ? src->GetPixelGrayRaw(x, y, p) : static_cast<float>(Random(0, 1, 7)(p, x, y));
  };
  EXPECT_EQ(Difference(*target, want, 0), "");
}

TEST(CImgAutoStretch, LevelsFollowTheFirstPlane) {
  const auto src = Make(MemoryStore(), 7, 5, 3, Random(60, 1300));
  const auto target = Make<CImgAutoStretch>(MemoryStore(), 7, 5, 3, Random(0, 1));
  double scale[] = {1.5, 1, 1}, background[] = {200, 300, 100}, spread[] = {40, 20, 60};
  EXPECT_EQ(CImgAutoStretch::AutoStretchAdjustLevel(nullptr, src.get(), scale, background, spread), 0);
  EXPECT_EQ(CImgAutoStretch::AutoStretchAdjustLevel(target.get(), nullptr, scale, background, spread), 0);
  EXPECT_EQ(CImgAutoStretch::AutoStretchAdjustLevel(target.get(), src.get(), scale, background, spread), 1);
  for (int p = 0; p < 3; ++p) {
    EXPECT_DOUBLE_EQ(target->GetLevelMin(p), (100 - 200) * 2.25 + 200);
    EXPECT_DOUBLE_EQ(target->GetLevelMax(p), (900 - 200) * 2.25 + 200);
  }
}

/// A colour sky: planes of other brightness, other spread and noise of their own, with the same stars.
double ColourSky(int p, int x, int y) {
  const double level[] = {900, 300, 2100}, gain[] = {1, 0.4, 2.5};
  double noise = 0, light = 0;
  for (int seed = 1; seed <= 8; ++seed) {
    noise += Random(-6, 6, seed)(p, x, y);
  }
  for (int star = 0; star < 120; ++star) {
    const double dx = x - 640 * Noise(2 * star), dy = y - 480 * Noise(2 * star + 1);
    light += 4000 / (1.0 + star) * std::exp(-(dx * dx + dy * dy) / 5);
  }
  return level[p] + gain[p] * (noise + light);
}

TEST(CImgAutoStretch, SkiesOfASimulatedColourImageAgree) {
  for (const StoreCase& store : {Stores()[0], Stores()[2]}) {
    const auto src = Make(store.make(), 640, 480, 3, ColourSky);
    Measured m = Measure(src.get(), 4, 1, CRect());
    ASSERT_EQ(m.result, 1);
    double ones[] = {1, 1, 1}, none[] = {0, 0, 0};
    const auto target = Make<CImgAutoStretch>(src->VmManager(), 640, 480, 3, Random(0, 1));
    target->DoStretch(src.get(), 1, ones, m.background, m.spread, none, nullptr);
    double median[3], noise[3];
    for (int p = 0; p < 3; ++p) {
      std::vector<double> values;
      for (const float v : Pixels(*target)) {
        values.push_back(v);
      }
      values = {values.begin() + p * 640 * 480, values.begin() + (p + 1) * 640 * 480};
      std::sort(values.begin(), values.end());
      median[p] = values[values.size() / 2];
      noise[p] = (median[p] - values[values.size() / 6]) / 0.967;  // of a normal distribution
    }
    for (int p = 1; p < 3; ++p) {
      EXPECT_NEAR(median[p], median[0], 0.1 * noise[0]) << store.name << " plane " << p;
      EXPECT_NEAR(noise[p], noise[0], 0.05 * noise[0]) << store.name << " plane " << p;
    }
  }
}

}  // namespace
