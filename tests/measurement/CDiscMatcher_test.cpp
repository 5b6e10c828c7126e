#include "korimg/measurement/CDiscMatcher.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kWidth = 300, kHeight = 260;

/// A planet: flattened, dark toward its limb, banded, with a spot; in noise.
struct Planet {
  double x = 150, y = 130, radius = 70, contrast = 0.03, spot = 0.3, flattening = 0.94, tilt = 12,
         deviation = 8, slope = 0;
  int noise = 1;

  double At(double px, double py) const {
    const double a = tilt * std::numbers::pi / 180,
                 u = ((px - x) * std::cos(a) + (py - y) * std::sin(a)) / radius,
                 v = (-(px - x) * std::sin(a) + (py - y) * std::cos(a)) / radius / flattening,
                 r = std::hypot(u, v);
    // Air makes the limb soft.
    const double limb = 0.5 - 0.5 * std::tanh((r - 1) * radius / 1.8);
    const double bands = std::sin(9 * v + 0.7) + 0.6 * std::sin(17 * v - 1.1) -
                         2 * std::exp(-(std::pow(u - spot, 2) + std::pow(v - 0.3, 2)) / 0.01);
    return 1500 * limb * (0.4 + 0.6 * std::sqrt(std::max(1 - r * r, 0.0))) *
           (1 + contrast * bands + slope * u);
  }

  PixelRule Rule() const {
    return [*this](int, int px, int py) {
      const std::uint64_t n = 1000000ull * noise + 2ull * (py * kWidth + px);
      return 60 + At(px, py) +
             deviation * std::sqrt(-2 * std::log(Noise(n) + 1e-12)) *
                 std::cos(2 * std::numbers::pi * Noise(n + 1));
    };
  }
};

std::shared_ptr<CVelImage> Image(const PixelRule& rule, int planes = 1) {
  return Make(MemoryStore(), kWidth, kHeight, planes, rule);
}

PixelRule TurnedOver(const PixelRule& rule) {
  return [=](int p, int x, int y) { return rule(p, kWidth - 1 - x, kHeight - 1 - y); };
}

TEST(CDiscMatcher, LaysMiddlesOnEachOther) {
  const Planet still;
  for (const int planes : {1, 3}) {
    const CDiscMatcher matcher(*Image(still.Rule(), planes));
    ASSERT_TRUE(matcher.HasDisc());
    for (int frame = 0; frame < 8; ++frame) {
      Planet moved = still;
      moved.x += 40 * Noise(10 * frame) - 20;
      moved.y += 40 * Noise(10 * frame + 1) - 20;
      moved.spot -= 0.03 * frame;
      moved.noise = 2 + frame;
      const CStarMatch match = matcher.Match(*Image(moved.Rule(), planes));
      ASSERT_EQ(match.status, CStarMatch::Ok) << frame;
      EXPECT_EQ(match.degrees, 0) << frame;
      EXPECT_NEAR(match.dx, still.x - moved.x, 0.1) << frame;
      EXPECT_NEAR(match.dy, still.y - moved.y, 0.1) << frame;
      EXPECT_LT(match.residual, 0.3);
      // Turned over, the middle of a pixel at (x, y) is at (width - 1 - x, height - 1 - y).
      const CStarMatch over = matcher.Match(*Image(TurnedOver(moved.Rule()), planes));
      ASSERT_EQ(over.status, CStarMatch::Ok) << frame;
      EXPECT_EQ(std::abs(over.degrees), 180) << frame;
      EXPECT_NEAR(over.dx, match.dx - 1, 0.1) << frame;
      EXPECT_NEAR(over.dy, match.dy - 1, 0.1) << frame;
    }
  }
}

TEST(CDiscMatcher, WithoutProofNothingIsTurned) {
  // What is even about the middle says nothing of half a turn, and noise neither, nor thin clouds that
  // darken one side of the disc and then the other.
  for (const double deviation : {8.0, 0.2}) {
    Planet plain;
    plain.contrast = 0;
    plain.deviation = deviation;
    plain.slope = 0.02;
    const CDiscMatcher matcher(*Image(plain.Rule()));
    for (int frame = 0; frame < 12; ++frame) {
      Planet moved = plain;
      moved.x += 6 * Noise(frame + 700);
      moved.noise = 30 + frame;
      moved.slope = -0.02;
      const CStarMatch match = matcher.Match(*Image(frame % 2 ? moved.Rule() : TurnedOver(moved.Rule())));
      ASSERT_EQ(match.status, CStarMatch::Ok);
      EXPECT_EQ(match.degrees, 0) << frame << ' ' << deviation;
    }
  }
}

TEST(CDiscMatcher, OtherThingsAreNoDiscs) {
  const auto sky = [](int seed) { return Random(90, 110, seed); };
  Planet cut, small, large;
  cut.x = 40;
  small.radius = 6;
  large.radius = 100;
  const auto blob = [&](double sigma) -> PixelRule {
    return [=](int p, int x, int y) {
      return sky(5)(p, x, y) +
             9000 * std::exp(-(std::pow(x - 140, 2) + std::pow(y - 120, 2)) / (2 * sigma * sigma));
    };
  };
  const std::vector<std::pair<const char*, PixelRule>> others = {
      {"noise", sky(1)},
      {"constant", [](int, int, int) { return 7; }},
      {"no numbers", [](int, int, int) { return std::nan(""); }},
      {"infinite", [](int, int, int) { return INFINITY; }},
      {"a star", blob(2)},
      {"a wide glow", blob(30)},
      {"cut by the edge", cut.Rule()},
      {"small", small.Rule()},
      {"two",
       [=](int p, int x, int y) {
         return Planet{.x = 80, .radius = 40}.Rule()(p, x, y) + Planet{.x = 220, .radius = 40}.At(x, y);
       }},
      {"a ring",
       [=](int p, int x, int y) {
         return sky(2)(p, x, y) + (std::abs(std::hypot(x - 150, y - 130) - 60) < 5 ? 3000 : 0);
       }},
      {"a bar", [=](int p, int x, int y) {
         return sky(3)(p, x, y) + (x > 20 && x < 280 && std::abs(x - y - 10) < 30 ? 3000 : 0);
       }}};
  const CDiscMatcher matcher(*Image(Planet().Rule()));
  for (const auto& [name, rule] : others) {
    EXPECT_FALSE(CDiscMatcher(*Image(rule)).HasDisc() && std::string(name) != "a bar") << name;
    EXPECT_EQ(matcher.Match(*Image(rule)).status, CStarMatch::NoMatch) << name;
  }
  EXPECT_EQ(matcher.Match(*Image(large.Rule())).status, CStarMatch::NoMatch) << "of another size";
  for (const auto& [width, height] : Sizes()) {
    EXPECT_FALSE(CDiscMatcher(*Make(TinyPool(), width, height, 1, Wild(-1e30, 1e30))).HasDisc());
  }
}

}  // namespace
