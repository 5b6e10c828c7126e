#include "korimg/measurement/CPhaseMatcher.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// How a frame was taken: what lays it on the reference is the result that is wanted.
struct Pose {
  double dx, dy, degrees;
};

/// Round objects around a field, and what frames of it show in noise of deviation 10.
struct Field {
  int width = 420, height = 330;
  double sigma = 1.4, peak = 300;
  int objects = 150, seed = 1;

  PixelRule Seen(const Pose& pose, int noise) const {
    auto pixels = std::make_shared<std::vector<double>>(width * height);
    const double a = pose.degrees * std::numbers::pi / 180, reach = 5 * sigma;
    for (int i = 0; i < objects; ++i) {
      const std::uint64_t n = 1000000ull * seed + 3 * i;
      const double x = width * (1.6 * Noise(n) - 0.8) - pose.dx,
                   y = height * (1.6 * Noise(n + 1) - 0.8) - pose.dy;
      const double cx = width * 0.5 + std::cos(a) * x + std::sin(a) * y,
                   cy = height * 0.5 - std::sin(a) * x + std::cos(a) * y;
      for (int v = std::max(0.0, cy - reach); v < std::min<double>(height, cy + reach); ++v) {
        for (int u = std::max(0.0, cx - reach); u < std::min<double>(width, cx + reach); ++u) {
          const double r2 = (u - cx) * (u - cx) + (v - cy) * (v - cy);
          (*pixels)[v * width + u] += peak * (0.5 + Noise(n + 2)) * std::exp(-r2 / (2 * sigma * sigma));
        }
      }
    }
    return [=, width = width](int p, int x, int y) {
      const std::uint64_t n = 100000000ull * noise + 4ull * (1000000ull * p + y * width + x);
      return 1000 + 0.3 * x + (*pixels)[y * width + x] +
             10 * std::sqrt(-2 * std::log(Noise(n) + 1e-12)) * std::cos(2 * std::numbers::pi * Noise(n + 1));
    };
  }
};

CStarMatch Match(CVelImage& reference, CVelImage& image) {
  return CPhaseMatcher(&reference).Match(image);
}

constexpr int kWidth = Field{}.width, kHeight = Field{}.height;

std::shared_ptr<CVelImage> Image(const PixelRule& rule, int planes = 1) {
  return Make(MemoryStore(), kWidth, kHeight, planes, rule);
}

TEST(CPhaseMatcher, FindsShiftAndAngle) {
  struct Case {
    const char* name;
    Pose pose;
    double tolerance;
    Field field = {};
  };
  for (const Case& c :
       {Case{"shift", {-31.4, 22.3, 0}, 0.15}, Case{"turned", {9.7, -14.6, 3.2}, 0.15},
        Case{"half a turn", {-7.2, 5.5, 180}, 0.15}, Case{"half a turn, and more", {4.4, 12.6, -176.5}, 0.15},
        // No pixel of these is two deviations above the sky.
        Case{"wide and faint", {45.5, -22.1, 0.4}, 1, {1000, 800, 7, 12}}}) {
    const auto make = [&](const Pose& pose, int noise) {
      return Make(MemoryStore(), c.field.width, c.field.height, 1, c.field.Seen(pose, noise));
    };
    const auto reference = make({0, 0, 0}, 1), frame = make(c.pose, 2);
    const CStarMatch match = Match(*reference, *frame);
    ASSERT_EQ(match.status, CStarMatch::Ok) << c.name;
    EXPECT_NEAR(match.dx, c.pose.dx, c.tolerance) << c.name;
    EXPECT_NEAR(match.dy, c.pose.dy, c.tolerance) << c.name;
    EXPECT_NEAR(std::remainder(match.degrees - c.pose.degrees, 360), 0, c.tolerance / 2) << c.name;
    EXPECT_LT(match.residual, 3 * c.tolerance) << c.name;
  }
}

// What looks the same turned over is not turned over.
TEST(CPhaseMatcher, HalfATurnNeedsProof) {
  for (int seed = 1; seed <= 8; ++seed) {
    const Field field{.objects = 60, .seed = seed};
    const PixelRule half = field.Seen({0, 0, 0}, 1);
    const auto both = [&](double noise, int dx, int dy) {
      return [=](int p, int x, int y) {
        x += dx;
        y += dy;
        const bool inside = x >= 0 && y >= 0 && x < kWidth && y < kHeight;
        const double light = inside ? half(p, x, y) + half(p, kWidth - 1 - x, kHeight - 1 - y) : 2000;
        return light + noise * Noise(p + 1000ull * x + y + static_cast<std::uint64_t>(1e7 * noise));
      };
    };
    const auto reference = Image(both(10, 0, 0)), frame = Image(both(11, 9, -6));
    const CStarMatch match = Match(*reference, *frame);
    ASSERT_EQ(match.status, CStarMatch::Ok) << seed;
    EXPECT_NEAR(match.degrees, 0, 0.1) << seed;
    EXPECT_NEAR(match.dx, 9, 0.1) << seed;
  }
}

TEST(CPhaseMatcher, EveryStoreNumberOfThreadsAndKindOfImage) {
  const Pose pose{12.3, -20.2, 1.1};
  const PixelRule sky = Field().Seen({0, 0, 0}, 1), moved = Field().Seen(pose, 2);
  const auto wild = [](const PixelRule& rule) -> PixelRule {
    return [=](int p, int x, int y) {
      const int n = (31 * x + 57 * y) % 997;
      return n == 5 ? NAN : n == 6 ? INFINITY : n == 7 ? -INFINITY : rule(p, x, y);
    };
  };
  for (const int planes : {1, 3}) {
    for (const StoreCase& store : Stores()) {
      std::vector<CStarMatch> found;
      for (const int threads : {1, 5}) {
        const WithThreads team(threads);
        const auto reference = Image(sky, planes),
                   frame = Make(store.make(), kWidth, kHeight, planes, wild(moved));
        found.push_back(Match(*reference, *frame));
        EXPECT_EQ(found.back().status, CStarMatch::Ok) << store.name;
        EXPECT_NEAR(found.back().dx, pose.dx, 0.1) << store.name;
        EXPECT_NEAR(found.back().dy, pose.dy, 0.1) << store.name;
        EXPECT_NEAR(found.back().degrees, pose.degrees, 0.05) << store.name;
      }
      EXPECT_EQ(found[0].dx, found[1].dx) << store.name;
      EXPECT_EQ(found[0].degrees, found[1].degrees) << store.name;
    }
  }
  // A smaller frame shows a part of the field about its own middle.
  constexpr int kLeft = 50, kTop = 30, kRight = 10;
  const auto reference = Image(sky),
             part = Make(TinyPool(), kWidth - kLeft - kRight, kHeight - kTop, 1,
                         [&](int p, int x, int y) { return sky(p, x + kLeft, y + kTop); });
  const CStarMatch match = Match(*reference, *part);
  ASSERT_EQ(match.status, CStarMatch::Ok);
  EXPECT_NEAR(match.dx, kLeft, 0.1);
  EXPECT_NEAR(match.dy, kTop, 0.1);
}

TEST(CPhaseMatcher, NothingIsTakenForAMatch) {
  const auto sky = [](int seed, int noise) { return Field{.seed = seed}.Seen({0, 0, 0}, noise); };
  const auto none = [](int noise) { return Field{.objects = 0}.Seen({0, 0, 0}, noise); };
  const auto withHotPixels = [](const PixelRule& rule) -> PixelRule {
    return
        [=](int p, int x, int y) { return rule(p, x, y) + ((x / 2 * 31 + y / 2 * 17) % 97 == 0 ? 4000 : 0); };
  };
  struct Case {
    const char* name;
    PixelRule reference, image;
  };
  for (const Case& c :
       {Case{"other stars", sky(5, 1), sky(6, 2)}, Case{"other stars again", sky(7, 1), sky(8, 2)},
        Case{"noise", none(1), none(2)}, Case{"stars and noise", sky(5, 1), none(2)},
        Case{"the same noise", none(1), none(1)}, Case{"constants", Random(7, 7), Random(7, 7)},
        Case{"no numbers", Random(NAN, NAN), sky(5, 1)},
        // Clumps of hot pixels, alike under any sky.
        Case{"one sensor", withHotPixels(none(1)), withHotPixels(none(2))},
        Case{"one sensor, other stars", withHotPixels(sky(5, 1)), withHotPixels(sky(6, 2))}}) {
    const auto reference = Image(c.reference), frame = Image(c.image);
    EXPECT_EQ(Match(*reference, *frame).status, CStarMatch::NoMatch) << c.name;
  }
  CVelImage empty;
  const auto reference = Image(sky(5, 1));
  EXPECT_EQ(Match(*reference, empty).status, CStarMatch::NoMatch);
  for (const auto& [width, height] : Sizes()) {
    EXPECT_EQ(Match(*reference, *Make(MemoryStore(), width, height, 1, Wild(0, 1e30))).status,
              CStarMatch::NoMatch);
  }
}

}  // namespace
