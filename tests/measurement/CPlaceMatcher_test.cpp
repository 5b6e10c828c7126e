#include "korimg/measurement/CPlaceMatcher.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/measurement/CDiscMatcher.h"
#include "korimg/measurement/CPhaseMatcher.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kWidth = 700, kHeight = 520;

/// A small planet with a ring, about as long as 30 pixels, in noise on a sky with a slope.
struct Scene {
  double x = 300, y = 240, light = 400, deviation = 20;
  int noise = 1;
  double slope = 0;

  PixelRule Rule() const {
    return [*this](int, int px, int py) {
      const double u = px - x, v = py - y, turned = v - 0.3 * u;
      const double globe = std::exp(-std::pow(std::hypot(u, v) / 7, 6));
      const double ring = std::exp(-std::pow(std::hypot(u / 15, turned / 4) - 1, 2) / 0.05);
      const std::uint64_t n = 1000000ull * noise + 2ull * (py * kWidth + px);
      return 500 + slope * px + light * (globe + 0.7 * ring) +
             deviation * std::sqrt(-2 * std::log(Noise(n) + 1e-12)) *
                 std::cos(2 * std::numbers::pi * Noise(n + 1));
    };
  }
};

std::shared_ptr<CVelImage> Image(const PixelRule& rule, int planes = 1) {
  return Make(MemoryStore(), kWidth, kHeight, planes, rule);
}

TEST(CPlaceMatcher, LaysWhatStandsAloneOnItself) {
  const Scene still;
  const auto reference = Image(still.Rule());
  const CPlaceMatcher matcher(*reference);
  for (int frame = 0; frame < 6; ++frame) {
    Scene moved = still;
    moved.x += 240 * Noise(10 * frame) - 120;
    moved.y += 240 * Noise(10 * frame + 1) - 120;
    moved.light *= 0.7 + 0.1 * frame;
    moved.slope = 0.1 * frame;
    moved.noise = 2 + frame;
    const auto image = Image(moved.Rule(), frame % 2 ? 3 : 1);
    const CStarMatch match = matcher.Match(*image);
    ASSERT_EQ(match.status, CStarMatch::Ok) << frame;
    EXPECT_NEAR(match.dx, still.x - moved.x, 0.4) << frame;
    EXPECT_NEAR(match.dy, still.y - moved.y, 0.4) << frame;
    EXPECT_EQ(match.degrees, 0);
    EXPECT_LT(match.residual, 3);
    // The others cannot tell.
    EXPECT_NE(CDiscMatcher(*reference).Match(*image).status, CStarMatch::Ok) << frame;
    EXPECT_NE(CPhaseMatcher(reference.get()).Match(*image).status, CStarMatch::Ok) << frame;
  }
}

TEST(CPlaceMatcher, WhatShowsNothingOfTheSameIsRefused) {
  const auto plain = [](int noise) {
    Scene scene;
    scene.light = 0;
    scene.noise = noise;
    return scene.Rule();
  };
  const auto hot = [&](int noise) -> PixelRule {
    return [rule = plain(noise)](int p, int x, int y) {
      return rule(p, x, y) + (Noise(77 + x + 1000 * y) > 0.9995 ? 30000 : 0);
    };
  };
  const auto sloped = [&](int noise, double across, double bent) -> PixelRule {
    return [=, rule = plain(noise)](int p, int x, int y) {
      return rule(p, x, y) + across * x - bent * (std::pow(x - 350, 2) + std::pow(y - 260, 2));
    };
  };
  const auto empty = [](int) -> PixelRule { return [](int, int, int) { return 0; }; };
  Scene unmoved;
  unmoved.noise = 9;
  const std::pair<PixelRule, PixelRule> pairs[] = {{plain(1), plain(2)},
                                                   {hot(1), hot(2)},
                                                   {sloped(1, 0.3, 3e-4), sloped(2, -0.5, 3e-4)},
                                                   {Scene().Rule(), plain(2)},
                                                   {plain(1), Scene().Rule()},
                                                   {empty(1), empty(2)},
                                                   {Scene().Rule(), empty(2)},
                                                   {Scene().Rule(), unmoved.Rule()}};
  for (size_t i = 0; i < std::size(pairs); ++i) {
    EXPECT_EQ(CPlaceMatcher(*Image(pairs[i].first)).Match(*Image(pairs[i].second)).status,
              CStarMatch::NoMatch)
        << i;
  }
  CVelImage none;
  EXPECT_EQ(CPlaceMatcher(none).Match(*Image(Scene().Rule())).status, CStarMatch::NoMatch);
  EXPECT_EQ(CPlaceMatcher(*Image(Scene().Rule())).Match(none).status, CStarMatch::NoMatch);
}

}  // namespace
