#include "korimg/measurement/PSF.h"

#include <cmath>
#include <numbers>

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
