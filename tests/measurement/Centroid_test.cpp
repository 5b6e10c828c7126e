#include <cmath>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

PixelRule Star(double cx, double cy) {
  return [=](int p, int x, int y) {
    return 200 + 20 * p + 500 * std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / 8) +
           Random(0, 1)(p, x, y);
  };
}

TEST(Centroid, FindsAStarOnBothStores) {
  for (const int planes : {1, 2, 3}) {
    for (const bool partial : {false, true}) {
      CRect rect(20, 10, 61, 44), *window = partial ? &rect : nullptr;
      const auto image = Make(MemoryStore(), 83, 57, planes, Star(40.3, 25.8)),
                 paged = Make(TinyPool(), 83, 57, planes, Star(40.3, 25.8));
      double x, y, pagedX, pagedY;
      image->GetCentroid(x, y, window);
      EXPECT_NEAR(x, 40.3, 0.05) << planes;
      EXPECT_NEAR(y, 25.8, 0.05) << planes;
      paged->GetCentroid(pagedX, pagedY, window);
      EXPECT_NEAR(pagedX, x, 1e-5);
      EXPECT_NEAR(pagedY, y, 1e-5);
      int roundedX, roundedY;
      image->GetCentroid(roundedX, roundedY, window);
      EXPECT_EQ(CPoint(roundedX, roundedY), CPoint(40, 26));
      // Raw weights: the sky pulls towards the middle.
      double sum = 0, sumX = 0, sumY = 0;
      for (int i = 0; i < 83 * 57; ++i) {
        const int px = i % 83, py = i / 83;
        if (partial && (px < 20 || px >= 61 || py < 10 || py >= 44)) continue;
        const auto raw = [&](int p) { return image->GetPixelGrayRaw(px, py, std::min(p, planes - 1)); };
        const double v = planes == 1 ? raw(0) : 0.299 * raw(0) + 0.587 * raw(1) + 0.114 * raw(2);
        sum += v, sumX += v * px, sumY += v * py;
      }
      paged->GetCentroidRaw(x, y, window);
      EXPECT_NEAR(x, sumX / sum, 1e-9);
      EXPECT_NEAR(y, sumY / sum, 1e-9);
    }
  }
}

TEST(Centroid, IsTheMiddleWithoutWeights) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const PixelRule& rule :
         {PixelRule([](int, int, int) { return 300; }),
          PixelRule([](int, int x, int y) { return x == 3 && y == 3 ? NAN : 300; })}) {
      const auto image = Make(store, 30, 21, 1, rule);
      double x, y;
      image->GetCentroid(x, y, nullptr);
      EXPECT_EQ(x, 15);
      EXPECT_EQ(y, 10);
    }
    const auto signs = Make(store, 30, 21, 1, [](int, int x, int) { return x < 15 ? -1 : 1.01; });
    double x, y;
    signs->GetCentroidRaw(x, y, nullptr);
    EXPECT_EQ(x, 15);
    CRect outside(50, 50, 60, 60);
    signs->GetCentroid(x, y, &outside);
    EXPECT_EQ(x, 0);
  }
}

TEST(FitPrm, FollowsTheReferencePoints) {
  const auto here = Make(MemoryStore(), 100, 80, 1, Star(50, 40)),
             there = Make(MemoryStore(), 100, 80, 1, Star(44.5, 43));
  double dx = 9, dy = 9, degrees = 9;
  for (CVelImage* image : {here.get(), there.get()}) {
    image->InitStdPtCtr();
  }
  EXPECT_EQ(here->GetFitPrm(there.get(), dx, dy, degrees), 0);
  EXPECT_EQ(dx, 0);
  EXPECT_EQ(there->GetStdCtr().x, 50);
  here->SetStdPt(0, {50.5, 40.25});
  there->SetStdPt(0, {44.0, 43.0});
  EXPECT_EQ(here->GetFitPrm(there.get(), dx, dy, degrees, 1, 2, 3), 1);
  EXPECT_DOUBLE_EQ(dx, 7.5);
  EXPECT_DOUBLE_EQ(dy, -0.75);
  EXPECT_EQ(degrees, 0);
  here->SetStdPt(1, {50, 20});   // up
  there->SetStdPt(1, {64, 43});  // to the right
  EXPECT_EQ(here->GetFitPrm(there.get(), dx, dy, degrees, 1, 2, 3), 2);
  EXPECT_NEAR(degrees, -90 + 3, 1e-9);
  there->SetStdPt(1, {44, 43});
  EXPECT_EQ(here->GetFitPrm(there.get(), dx, dy, degrees), 1) << "no direction";
  EXPECT_EQ(here->GetFitPrmFromCentroid(there.get(), dx, dy), 1);
  EXPECT_NEAR(dx, 5.5, 0.05);
  EXPECT_NEAR(dy, -3, 0.05);
}

}  // namespace
