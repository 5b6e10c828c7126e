// What developments of all mosaics have in common in tests.
#pragma once

#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

namespace korimg::test {

/// A colour of a reference by its definition: the brightness, and the mean over 3 x 3 pixels of how far a
/// plain interpolation lies from it.
template <class Reference>
double ColourOf(const Reference& reference, char c, int x, int y) {
  double sum = 0;
  for (int j = y - 1; j <= y + 1; ++j) {
    for (int i = x - 1; i <= x + 1; ++i) {
      sum += reference.Plain(c, i, j) - reference.Brightness(i, j);
    }
  }
  return reference.Brightness(x, y) + sum / 9;
}

/// Stars of three colours, a few tenths of a pixel apart, each developed by develop(its scene of three
/// planes, side): they keep their place and their light.
template <class F>
void CheckStars(double sigma, double pixels, F&& develop) {
  constexpr int kSide = 48;
  constexpr double kFlux[3] = {30000, 20000, 45000};
  for (int star = 0; star < 9; ++star) {
    const double cx = 23 + star % 3 * 0.37, cy = 24 + star / 3 * 0.41;
    const auto image = develop(
        [=](int p, int x, int y) {
          const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
          return kFlux[p] / (2 * M_PI * sigma * sigma) * std::exp(-r2 / (2 * sigma * sigma));
        },
        kSide);
    for (int p = 0; p < 3; ++p) {
      double sum = 0, mx = 0, my = 0;
      for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
          const double v = image->GetPixelGrayRaw(x, y, p);
          sum += v, mx += v * x, my += v * y;
        }
      }
      EXPECT_NEAR(mx / sum, cx, pixels) << "plane " << p;
      EXPECT_NEAR(my / sum, cy, pixels) << "plane " << p;
      EXPECT_NEAR(sum / kFlux[p], 1, 0.01) << "plane " << p;
    }
  }
}

/// Parameters that are changed so are refused, with the mosaic left as it is.
template <class Image, class Parameters>
void CheckRefusals(Image& mosaic, Parameters parameters,
                   const std::vector<std::pair<const char*, std::function<void(Parameters&)>>>& changes) {
  const std::vector<float> before = Pixels(mosaic);
  parameters.bSubtract = 1, parameters.fSubtract = 9;
  for (const auto& [name, change] : changes) {
    Parameters changed = parameters;
    change(changed);
    EXPECT_EQ(mosaic.Do(changed, 0), 0) << name;
    EXPECT_EQ(Pixels(mosaic), before) << name;
    EXPECT_EQ(mosaic.GetPlanes(), 1) << name;
    EXPECT_TRUE(mosaic.IsBayerImage() || mosaic.IsHoneyCombImage()) << name;
  }
}

/// A source is developed into an image as it is in its own place, and stays as it was.
template <class Image, class Parameters>
void CheckSourceStays(Image& source, Image& alone, Parameters parameters) {
  const std::vector<float> before = Pixels(source);
  Image image;
  parameters.bSubtract = 1, parameters.fSubtract = 5;
  ASSERT_EQ(image.Do(parameters, &source, 0), 1);
  ASSERT_EQ(alone.Do(parameters, 0), 1);
  EXPECT_EQ(Difference(image, alone), "");
  EXPECT_EQ(Pixels(source), before);
}

}  // namespace korimg::test
