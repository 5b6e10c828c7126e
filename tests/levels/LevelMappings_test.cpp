// Equalisation, posterisation, the correction curve and the window.
#include <gtest/gtest.h>

#include "korimg/levels/CImgCorrectCurve.h"
#include "korimg/levels/CImgHstEql.h"
#include "korimg/levels/CImgReduceTone.h"
#include "korimg/levels/CImgWindowing.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Pixels of many equal values with NaN among them, and a plane of one value.
double Stepped(int p, int x, int y) {
  if (p == 2) return 7.5;
  if ((x * 5 + y * 3) % 31 == 4) return NAN;
  const double noise = Random(-40, 90)(p, x, y);
  return p == 0 ? std::round(noise) : noise * std::abs(noise) * 1e6;
}

TEST(CImgHstEql, GivesEachPixelItsRank) {
  for (const auto& [width, height] : Sizes()) {
    std::vector<float> first;
    for (const StoreCase& store : Stores()) {
      for (const int threads : {1, 8}) {
        const WithThreads team(threads);
        const auto src = Make(store.make(), width, height, 3, Stepped);
        const auto target = Make<CImgHstEql>(src->VmManager(), width, height, 3, Random(0, 1));
        ASSERT_EQ(target->Do(src.get()), 1);
        for (int p = 0; p < 3; ++p) {
          // Sorted by the source's values, results are all ranks in order, and NaN has none.
          std::vector<std::pair<float, float>> pixels;
          for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
              const float from = src->GetPixelGrayRaw(x, y, p), to = target->GetPixelGrayRaw(x, y, p);
              ASSERT_EQ(std::isnan(from), std::isnan(to));
              if (!std::isnan(from)) pixels.emplace_back(from, to);
            }
          }
          if (pixels.empty()) continue;
          std::sort(pixels.begin(), pixels.end());
          const double min = pixels.front().first, max = pixels.back().first;
          EXPECT_EQ(src->GetLevelMin(p), min);
          EXPECT_EQ(src->GetLevelMax(p), max);
          for (size_t n = 0; n < pixels.size(); ++n) {
            ASSERT_EQ(pixels[n].second, static_cast<float>(n * (max - min) / (1.0 * width * height) + min))
                << store.name << " " << width << "x" << height << " plane " << p << " rank " << n;
          }
        }
        const auto pixels = Pixels(*target);
        if (first.empty()) first = pixels;
        for (size_t i = 0; i < pixels.size(); ++i) {
          ASSERT_TRUE(pixels[i] == first[i] || std::isnan(first[i])) << store.name << " " << threads;
        }
      }
    }
  }
}

TEST(CImgHstEql, ScattersEqualPixels) {
  // Half black, half white: each half must not become a ramp along its rows.
  const auto src = Make(MemoryStore(), 64, 64, 1, [](int, int, int y) { return y < 32 ? 0.0 : 1.0; });
  const auto target = Make<CImgHstEql>(MemoryStore(), 64, 64, 1, Random(0, 1));
  ASSERT_EQ(target->Do(src.get()), 1);
  for (const int top : {0, 32}) {
    int rising = 0;
    double sum = 0;
    for (int x = 1; x < 64; ++x) {
      rising += target->GetPixelGrayRaw(x, top, 0) > target->GetPixelGrayRaw(x - 1, top, 0);
      sum += target->GetPixelGrayRaw(x, top, 0);
    }
    EXPECT_GT(rising, 16);
    EXPECT_LT(rising, 48);
    EXPECT_NEAR(sum / 63, top == 0 ? 0.25 : 0.75, 0.08) << "a row has all tones of its half";
  }
}

TEST(CImgHstEql, RefusesWhatDoesNotFit) {
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 9));
  EXPECT_EQ(Make<CImgHstEql>(MemoryStore(), 9, 8, 1, Random(0, 1))->Do(src.get()), 0);
  EXPECT_EQ(Make<CImgHstEql>(MemoryStore(), 8, 8, 3, Random(0, 1))->Do(src.get()), 0);
  EXPECT_EQ(src->GetLevelMin(0), 100) << "the levels of the source are as they were";
}

TEST(CImgReduceTone, PixelsFallToTheLowerEdgeOfTheirStep) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [tones, values] : std::vector<std::pair<int, std::vector<std::pair<double, double>>>>{
             {4,
              {{-9, 0}, {63.9, 0}, {64.1, 63.75}, {200, 191.25}, {256, 191.25}, {999, 191.25}, {NAN, NAN}}},
             {1, {{3, 0}, {200, 0}, {256, 0}}},
             {0, {{200, 0}}},
             {300, {{100.5, 100 / 256.0 * 255}, {256, 255 / 256.0 * 255}}}}) {
      // The target's levels count, which are not the source's.
      for (const auto& [t, want] : values) {
        const auto target = Make<CImgReduceTone>(store.make(), 5, 3, 3, Random(0, 1));
        const auto src = Make(target->VmManager(), 5, 3, 3, [&, t = t](int p, int, int) {
          return t / 255 * target->GetLevelRange(p) + target->GetLevelMin(p);
        });
        CRect rect(1, 1, 4, 3);
        const auto before = Pixels(*target);
        target->Do(tones, src.get(), &rect, 0);
        for (int p = 0; p < 3; ++p) {
          EXPECT_EQ(target->GetPixelGrayRaw(0, 1, p), before[p * 15 + 5]);
          const double raw = want / 255 * target->GetLevelRange(p) + target->GetLevelMin(p);
          const float got = target->GetPixelGrayRaw(2, 1, p);
          EXPECT_TRUE(std::isnan(want) ? std::isnan(got) : std::abs(got - raw) < 1e-4)
              << tones << " tones at " << t << ": " << got << ", not " << raw;
        }
      }
    }
  }
}

TEST(CImgCorrectCurve, BendsBetweenItsEnds) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      for (const double power : {0.05, 0.4, 1.0, 2.5, 30.0}) {
        const auto src = Make(store.make(), width, height, 3, Wild(80, 1100));
        const auto target = Make<CImgCorrectCurve>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        OptionalRect rect;
        if (width == 71) rect = CRect(3, 2, 60, 300);
        ASSERT_EQ(target->Do(power, 20, 230, src.get(), Address(rect), 0), 1);
        const auto want = [&](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
          const double v = src->GetPixelGrayRaw(x, y, p), range = src->GetLevelRange(p);
          const double low = range * 20 / 255 + src->GetLevelMin(p),
                       high = range * 230 / 255 + src->GetLevelMin(p);
          if (!(low < v && v < high)) return v;
          return std::pow(1 - std::pow(1 - (v - low) / (high - low), power), 1 / power) * (high - low) + low;
        };
        ASSERT_EQ(Difference(*target, want, 1e-6), "") << store.name << " " << width << " power " << power;
      }
    }
  }
}

TEST(CImgCorrectCurve, RunsIntoItsLowerEnd) {
  // 1 - (1 - t)^power is 0 or a few last digits of 1 there.
  const auto src =
      Make(MemoryStore(), 200, 1, 1, [](int, int x, int) { return std::ldexp(1.3, -60 + x / 4); });
  src->SetLevel(0, 0, 255);
  for (const double power : {0.3, 1.0, 7.0, 1000.0}) {
    const auto target = Make<CImgCorrectCurve>(MemoryStore(), 200, 1, 1, Random(0, 1));
    ASSERT_EQ(target->Do(power, 0, 255, src.get(), nullptr, 0), 1);
    const auto want = [&](int p, int x, int y) {
      const double t = src->GetPixelGrayRaw(x, y, p) / 255.0;
      return 255 * std::pow(1 - std::pow(1 - t, power), 1 / power);
    };
    EXPECT_EQ(Difference(*target, want, 0.05), "") << power;
  }
}

TEST(CImgCorrectCurve, RefusesAndTakesWhatImagesHaveInCommon) {
  const auto src = Make(MemoryStore(), 9, 7, 1, Random(150, 800));
  const auto target = Make<CImgCorrectCurve>(MemoryStore(), 12, 5, 3, Random(0, 1, 7));
  CVelImage none;
  CRect outside(9, 0, 12, 5);
  EXPECT_EQ(target->Do(0, 0, 255, src.get(), nullptr, 0), 0);
  EXPECT_EQ(target->Do(-1, 0, 255, src.get(), nullptr, 0), 0);
  EXPECT_EQ(target->Do(NAN, 0, 255, src.get(), nullptr, 0), 0);
  EXPECT_EQ(target->Do(2, 10, 9, src.get(), nullptr, 0), 0);
  EXPECT_EQ(target->Do(2, 0, 255, nullptr, nullptr, 0), 0);
  EXPECT_EQ(target->Do(2, 0, 255, &none, nullptr, 0), 0);
  EXPECT_EQ(target->Do(2, 0, 255, src.get(), &outside, 0), 0);
  for (const int plane : {-1, 0, 1, 2, 3}) {
    EXPECT_EQ(target->Do(2, 0, 800, plane, src.get(), nullptr, 0), 0) << plane;
  }
  const auto untouched = [](int p, int x, int y) -> double {
    return static_cast<float>(Random(0, 1, 7)(p, x, y));
  };
  EXPECT_EQ(Difference(*target, untouched, 0), "");
  ASSERT_EQ(target->Do(1, 0, 255, src.get(), nullptr, 0), 1);
  const auto want = [&](int p, int x, int y) {
    return p == 0 && x < 9 ? src->GetPixelGrayRaw(x, y, 0) : untouched(p, x, y);
  };
  EXPECT_EQ(Difference(*target, want, 1e-6), "");
}

TEST(CImgWindowing, RaisedCosineAboutTheMiddle) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      for (const auto& [mode, radius] : {std::pair(0, 0.0), {0, 2.5}, {0, 40.0}, {1, 5.0}, {-1, 0.0}}) {
        const auto src = Make(store.make(), width, height, 2, Random(-100, 1200));
        const auto target = Make<CImgWindowing>(src->VmManager(), width, height, 2, Random(0, 1));
        ASSERT_EQ(target->Do(mode, radius, src.get(), 0), 1);
        const auto want = [&, width = width, height = height, mode = mode, radius = radius](int p, int x,
                                                                                            int y) {
          const double r = std::hypot(x - width / 2, y - height / 2);
          const double w = mode ? 1 : r < radius ? 0.5 + 0.5 * std::cos(3.14159265358979 * r / radius) : 0;
          return src->GetPixelGrayRaw(x, y, p) * w;
        };
        ASSERT_EQ(Difference(*target, want, 1e-6), "") << store.name << " " << width << " radius " << radius;
      }
    }
  }
}

}  // namespace
