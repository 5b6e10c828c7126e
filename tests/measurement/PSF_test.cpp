#include "korimg/measurement/PSF.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>

#include <gtest/gtest.h>

#include "korimg/measurement/CImgPixelInfo.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// A star, elongated by `ratio` along a direction, on a noisy sky.
PixelRule Star(double cx, double cy, double sigma, double ratio = 1, double degrees = 0) {
  return [=](int p, int x, int y) {
    const double a = degrees * std::numbers::pi / 180, u = (x - cx) * std::cos(a) + (y - cy) * std::sin(a),
                 v = (y - cy) * std::cos(a) - (x - cx) * std::sin(a);
    const double r2 = u * u / (ratio * ratio) + v * v;
    return 100 + 1000 * std::exp(-r2 / (2 * sigma * sigma)) + Random(0, 4)(p, x, y);
  };
}

constexpr double kFwhm = 2.354820045829508;

TEST(PSF, WidthsOfGaussians) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const double sigma : {1.5, 2.2, 4.0}) {
      for (const int planes : {1, 3}) {
        const auto image = Make(store, 90, 80, planes, Star(41.3, 37.8, sigma));
        PSF psf(image.get());
        EXPECT_EQ(psf.Add(CPoint(43, 36)), 1);
        EXPECT_EQ(psf.GetCount(), 1);
        double mean = 0, median = 0, width = 0;
        EXPECT_EQ(psf.GetMeanFWHM(&mean), 1);
        EXPECT_NEAR(mean, kFwhm * sigma, 0.05 * kFwhm * sigma) << sigma;
        EXPECT_EQ(psf.GetMedianPSF(&median), 1);
        EXPECT_DOUBLE_EQ(PSF::PsfToFwhm(median), mean);
        EXPECT_NEAR(PSF::PsfToFwhm(PSF::FwhmToPsf(7.5)), 7.5, 1e-5);
        CImgPixelInfo info;
        info.CopyImage(*image, nullptr, nullptr);
        info.CalcFWHM(44, 33, &width);
        EXPECT_DOUBLE_EQ(width, mean) << "of the brightest pixel near by";
        info.CalcFWHM(5, 70, &width);
        EXPECT_LT(width, 3) << "noise only";
      }
    }
  }
}

TEST(PSF, TheMoreElongatedOfTwoCrossesIsGiven) {
  for (const auto& [degrees, elongation] : {std::pair(0.0, 1.8), {90.0, 1.8}, {45.0, 1.8}, {135.0, 1.8}}) {
    const auto image = Make(MemoryStore(), 90, 80, 1, Star(41, 37, 2.5, elongation, degrees));
    PSF psf(image.get());
    double left, right, up, down;
    CPoint peak;
    ASSERT_EQ(psf.GetFWHMXY(CPoint(41, 37), &left, &right, &up, &down, &peak), 1);
    EXPECT_EQ(peak, CPoint(41, 37));
    const double across = left + right, along = up + down;
    EXPECT_NEAR(std::max(across, along) / std::min(across, along), elongation, 0.1) << degrees;
    EXPECT_NEAR(left, right, 0.4);
    // The first pair lies along x.
    if (degrees == 0 || degrees == 90) {
      EXPECT_EQ(across > along, degrees == 0);
    }
  }
}

TEST(PSF, TheBaseIsTheMiddleOfTwelveValuesOnEachSide) {
  // All that walks from the peak at (20, 20) pass and collect: each way falls to its end and rises by one
  // step, from which two pixels further twelve values are taken. They tell where they were read.
  struct Way {
    int dx, dy, fall;
  };
  const Way ways[] = {{-1, 0, 3}, {1, 0, 5}, {0, -1, 2}, {0, 1, 7}};
  const auto base = [&](int width, int height, int peakX, int peakY, std::vector<double>* collected) {
    const auto value = [&](int x, int y) -> double {
      if (x == peakX && y == peakY) return 1000;
      for (const Way& way : ways) {
        const int along = way.dx * (x - peakX) + way.dy * (y - peakY);
        const int beside = way.dx ? y - peakY : x - peakX;
        if (beside != 0 || along <= 0) continue;
        return along <= way.fall ? 300 - 10 * along : 310 + (way.dx + 3 * way.dy) + 0.5 * along;
      }
      return 0;
    };
    const auto image = Make(MemoryStore(), width, height, 1, [&](int, int x, int y) { return value(x, y); });
    for (const Way& way : ways) {
      for (int i = 0; i < 12; ++i) {
        const int along = way.fall + 1 + 2 + i, x = peakX + way.dx * along, y = peakY + way.dy * along;
        if (x <= 0 && way.dx < 0) break;  // column 0 and row 0 are out on these sides
        if (y <= 0 && way.dy < 0) break;
        if (x >= width || y >= height) break;
        collected->push_back(value(x, y));
      }
    }
    std::sort(collected->begin(), collected->end());
    // Seen through the width: on each side half the height lies between the peak and the 290 beside it.
    PSF psf(image.get());
    double fwhm = 0;
    EXPECT_EQ(psf.Add(CPoint(peakX, peakY)), 1);
    EXPECT_EQ(psf.GetMeanFWHM(&fwhm), 1);
    return 2 * (1000 - fwhm / 2 * (1000 - 290)) - 1000;
  };
  for (const auto& [width, height, x, y] :
       {std::tuple(60, 60, 25, 25), {31, 29, 12, 9}, {60, 60, 8, 25}, {60, 60, 25, 9}, {40, 33, 20, 17}}) {
    std::vector<double> collected;
    const double got = base(width, height, x, y, &collected);
    EXPECT_NEAR(got, collected[collected.size() / 2], 0.01)
        << width << "x" << height << " at " << x << "," << y;
  }
}

TEST(PSF, WhatIsNoStarIsRefused) {
  const auto flat = Make(MemoryStore(), 60, 60, 1, [](int, int, int) { return 5; });
  // Half as high 47 pixels away, and smooth as far as that; the whole width is 94.
  const auto wide = Make(MemoryStore(), 260, 260, 1,
                         [](int p, int x, int y) {
                           const double r2 = (x - 130) * (x - 130) + (y - 130) * (y - 130);
                           return 1000 * std::exp(-r2 / 3200) + (r2 > 8100 ? Random(0, 4)(p, x, y) : 0);
                         }),
             star = Make(MemoryStore(), 60, 60, 1, Star(30, 30, 2));
  const auto edge = Make(MemoryStore(), 60, 60, 1, Star(0, 30, 3));
  const auto wild = Make(MemoryStore(), 60, 60, 1, Wild(0, 100));
  const auto onePixel = Make(MemoryStore(), 1, 1, 1, Random(0, 1));
  double out = -7, l, r, u, d;
  PSF psf(flat.get());
  EXPECT_EQ(psf.Add(CPoint(30, 30)), 0);
  EXPECT_EQ(psf.GetMeanFWHM(&out), 0);
  EXPECT_EQ(out, -7) << "results are left";
  EXPECT_EQ(PSF(wide.get()).Add(CPoint(130, 130)), 0) << "wider than the setting";
  EXPECT_EQ(PSF(edge.get()).Add(CPoint(1, 30)), 0) << "the walk leaves the image";
  EXPECT_EQ(PSF(edge.get()).GetFWHMXY(CPoint(1, 30), &l, &r, &u, &d, nullptr), 0);
  EXPECT_EQ(PSF(onePixel.get()).Add(CPoint(0, 0)), 0);
  EXPECT_EQ(PSF(star.get()).Add(CPoint(-50, 900)), 0) << "off the image";
  PSF any(wild.get());
  for (int i = 0; i < 60; ++i) {
    any.Add(CPoint(i, i));  // whatever it answers, it ends
  }
}

TEST(PSF, TheMedianOfTwoIsTheLarger) {
  const auto image = Make(MemoryStore(), 120, 60, 1, [](int p, int x, int y) {
    return x < 60 ? Star(30, 30, 1.5)(p, x, y) : Star(90, 30, 3)(p, x, y);
  });
  PSF psf(image.get());
  EXPECT_EQ(psf.Add(CPoint(90, 30)), 1);
  EXPECT_EQ(psf.Add(CPoint(30, 30)), 1);
  double median = 0, mean = 0;
  EXPECT_EQ(psf.GetMedianFWHM(&median), 1);
  EXPECT_NEAR(median, 3 * kFwhm, 0.3);
  EXPECT_EQ(psf.GetMeanFWHM(&mean), 1);
  const double root = (std::sqrt(3 * kFwhm) + std::sqrt(1.5 * kFwhm)) / 2;
  EXPECT_NEAR(mean, root * root, 0.3) << "a mean of roots";
}

}  // namespace
