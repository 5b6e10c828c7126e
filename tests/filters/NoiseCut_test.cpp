// Hot and cool pixels, and noise where an image is faint.
#include <gtest/gtest.h>

#include "korimg/filters/CImgFilterMisc.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

PixelRule Whole(double low, double high) {
  return [wild = Wild(low, high)](int p, int x, int y) { return std::round(wild(p, x, y)); };
}

TEST(NoiseCut, WhatStandsOutFromTheMedianBecomesIt) {
  struct Case {
    double radius;
    int cool;
    double coolShare;
    int hot;
    double hotShare;
  };
  // Shares that bounds of whole numbers reach exactly.
  for (const Case& c : {Case{1, 1, 0.125, 1, 0.25},
                        {1, 1, 0.125, 0, 0.25},
                        {1, 0, 0.125, 1, 0.25},
                        {1, 1, 1.5, 1, 1.25},
                        {1.5, 1, 0.25, 1, 0.125},
                        {0.4, 1, 0, 1, 0},
                        {2, 1, 0.375, 1, 0.25},
                        {5, 1, 0.25, 1, 0.25}}) {
    const int r = std::max<int>(std::ceil(c.radius), 1);
    const auto expected = [&](CVelImage& src, bool paged, int p, int x, int y) -> double {
      const bool mirrors = !paged && c.radius == 1 && c.cool && c.hot;
      const auto sorted =
          Sorted(src, p, x, y, r, mirrors ? Interior : Folded, mirrors ? Interior : Nearest, Disc(c.radius));
      const double pixel = src.GetPixelGrayRaw(x, y, p), median = sorted[sorted.size() / 2];
      const double share = std::abs(median / pixel - 1);
      if (c.cool && median > pixel && share > c.coolShare) return median;
      if (c.hot && pixel > median && share > c.hotShare) return median;
      return pixel;
    };
    for (const PixelRule& pixels : {Whole(60, 140), Whole(-3, 9)}) {
      CheckFilter<CImgFilterMisc>(
          [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
            target.NoiseCut(c.radius, c.cool, c.coolShare, c.hot, c.hotShare, &src, rect, 0);
          },
          expected, 0, pixels);
      ASSERT_FALSE(HasFailure()) << "radius " << c.radius << " cool " << c.cool << " hot " << c.hot;
    }
  }
}

TEST(NoiseCut, SharesAreOfThePixelAndExclusive) {
  for (const StoreCase& store : Stores()) {
    // Pixel, and what becomes of it among neighbours of 90, by shares of 0.5 for cool and 0.25 for hot ones.
    for (const auto& [pixel, result] :
         {std::pair(120, 120), {121, 90}, {60, 60}, {59, 90}, {0, 90}, {-5, 90}}) {
      const auto src = Make(store.make(), 9, 7, 1,
                            [pixel = pixel](int, int x, int y) { return x == 4 && y == 3 ? pixel : 90; });
      const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 7, 1, Random(0, 1, 7));
      target->NoiseCut(1, 1, 0.5, 1, 0.25, src.get(), nullptr, 0);
      EXPECT_EQ(target->GetPixelGrayRaw(4, 3, 0), result) << store.name << pixel;
      EXPECT_EQ(target->GetPixelGrayRaw(3, 3, 0), 90) << store.name;
    }
  }
}

/// Neighbours in a square of the half side of the weights, normalised, as CFilterProc has them.
double SquareMean(CVelImage& src, double radius, double flat, int p, int x, int y, bool paged) {
  const int half = std::trunc(radius), r = std::max(half, 1);
  double sum = 0, weights = 0;
  Around(src, p, x, y, r, paged ? BottomRepeated : Interior, paged ? Nearest : Interior,
         [&](int dx, int dy, double pixel) {
           if (std::abs(dx) > half || std::abs(dy) > half) return;
           const double weight = (dx ? flat : 1) * (dy ? flat : 1);
           sum += weight * pixel;
           weights += weight;
         });
  return sum / weights;
}

TEST(NoiseCutWithBrightness, FaintAndFlatPixelsAreBlurred) {
  struct Case {
    double threshold, radius, flat;
  };
  for (const Case& c :
       {Case{20, 1, 1}, {60, 2.6, 0.4}, {110, 4, 1}, {-30, 1, 0.5}, {255, 2, 1}, {250, 5.5, 1}, {40, 0, 1}}) {
    const auto expected = [&](CVelImage& src, bool paged, int p, int x, int y) {
      const double s = src.GetPixelGrayRaw(x, y, p), f = SquareMean(src, c.radius, c.flat, p, x, y, paged);
      const double extent = paged ? c.radius : std::ceil(c.radius);
      double laplacian = 0;
      Around(src, p, x, y, std::ceil(c.radius), paged ? Folded : Interior, paged ? Nearest : Interior,
             [&](int dx, int dy, double pixel) {
               if (dx * dx + dy * dy <= extent) laplacian += s - pixel;
             });
      const auto share = [&](double measure) {
        const double level = std::clamp((measure - TargetMin(p)) / TargetRange(p) * 255, 0.0, 255.0);
        return 1 - std::max(level - c.threshold, 0.0) / std::min(255.0, 255 - c.threshold);
      };
      const double w = c.threshold >= 255 ? 1 : share(f) * share(laplacian);
      return (1 - w) * s + w * f;
    };
    CheckFilter<CImgFilterMisc>(
        [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
          target.NoiseCutWithBrightness(c.threshold, c.radius, c.flat, 0, &src, rect, 0);
        },
        expected, 1e-4);
    ASSERT_FALSE(HasFailure()) << "threshold " << c.threshold << " radius " << c.radius;
  }
}

TEST(NoiseCutWithBrightness, NanReachesNoFurtherThanTheKernels) {
  for (const StoreCase& store : Stores()) {
    const auto src =
        Make(store.make(), 40, 30, 1, [](int, int x, int y) { return x == 20 && y == 15 ? NAN : 150; });
    const auto target = Make<CImgFilterMisc>(src->VmManager(), 40, 30, 1, Random(0, 1, 7));
    target->NoiseCutWithBrightness(20, 3, 1, 0, src.get(), nullptr, 0);
    for (int y = 0; y < 30; ++y) {
      for (int x = 0; x < 40; ++x) {
        const bool reached = std::abs(x - 20) <= 3 && std::abs(y - 15) <= 3;
        ASSERT_EQ(std::isnan(target->GetPixelGrayRaw(x, y, 0)), reached) << store.name << x << "," << y;
      }
    }
  }
}

TEST(NoiseCutWithBrightness, TellsItsRadii) {
  for (const auto& [radius, whole, blur, laplacian, answer] :
       {std::tuple(0.5, 0, 1, 1, 1), {2.6, 3, 4, 3, 4}, {2.6, 9, 4, 3, 9}, {3.0, 1, 6, 3, 6}}) {
    int ofBlur = 0, ofLaplacian = 0;
    EXPECT_EQ(CImgFilterMisc::GetNoiseCutWithBrightness_nR(radius, whole, &ofBlur, &ofLaplacian), answer);
    EXPECT_EQ(ofBlur, blur);
    EXPECT_EQ(ofLaplacian, laplacian);
  }
}

}  // namespace
