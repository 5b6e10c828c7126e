#include "korimg/measurement/CFrameFitter.h"

#include <cmath>
#include <functional>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 1000, kHeight = 700;
const double kHalf = Length(kWidth, kHeight) / 2;

using Way = std::function<Point(Point)>;

/// Where the lens shows what belongs at a place: a barrel by a share of the corner's distance. It is no
/// polynomial of what CLensDistortion knows, but the inverse of one.
Way Barrel(double share) {
  return [=](Point p) {
    const double x = p.x - 499.5, y = p.y - 349.5, r2 = (x * x + y * y) / (kHalf * kHalf);
    return Point{499.5 + x * (1 - share * r2), 349.5 + y * (1 - share * r2)};
  };
}

/// A session as truth has it: where a place of the sky, in pixels of the reference without its lens, is seen.
struct Session {
  const char* name;
  CFrameMap::Model model;
  bool hasLens;
  Way lens;
  std::function<Way(int frame)> sky;
};

Way Turned(double dx, double dy, double degrees, double scale = 1) {
  const double c = scale * std::cos(degrees * std::numbers::pi / 180),
               s = scale * std::sin(degrees * std::numbers::pi / 180);
  return [=](Point p) {
    const double x = p.x - 499.5, y = p.y - 349.5;
    return Point{499.5 + dx + c * x - s * y, 349.5 + dy + s * x + c * y};
  };
}

Way Dithered(int frame, double scale = 1) {
  return Turned(200 * Noise(frame) - 100, 140 * Noise(frame + 100) - 70, 2 * Noise(frame + 200) - 1, scale);
}

/// A camera that looks elsewhere: the gnomonic planes of two directions, 1000 pixels for 27 degrees.
Way Pointed(int frame) {
  const double f = 500 / std::tan(13.5 * std::numbers::pi / 180);
  const double a = 0.05 * (2 * Noise(frame) - 1), b = 0.03 * (2 * Noise(frame + 100) - 1);
  return [=](Point p) {
    const double x = (p.x - 499.5) / f, y = (p.y - 349.5) / f;
    const double z = std::cos(a) - x * std::sin(a), u = (x * std::cos(a) + std::sin(a)) / z, v = y / z;
    const double w = std::cos(b) - v * std::sin(b);
    return Point{499.5 + f * u / w, 349.5 + f * (v * std::cos(b) + std::sin(b)) / w};
  };
}

std::vector<Session> Sessions() {
  const Way none = [](Point p) { return p; };
  return {{"rigid", CFrameMap::Rigid, false, none, [](int i) { return Dithered(i); }},
          {"0.3 % larger", CFrameMap::Similarity, false, none,
           [](int i) { return Dithered(i, 1 + 0.003 * (i % 3)); }},
          {"refracted", CFrameMap::Affine, false, none,
           [](int i) {
             return [=](Point p) {
               const Point q = Dithered(i)(p);
               return Point{q.x, q.y * (1 - 0.001 * i) + 0.0005 * i * q.x};
             };
           }},
          {"a wide field", CFrameMap::Homography, false, none, Pointed},
          {"a barrel of 1.8 %", CFrameMap::Rigid, true, Barrel(0.018), [](int i) { return Dithered(i); }},
          {"a barrel of 6 %", CFrameMap::Rigid, true, Barrel(0.06), [](int i) { return Dithered(i); }},
          {"a wide field by a barrel of 3 %", CFrameMap::Homography, true, Barrel(0.03), Pointed}};
}

/// The stars that a frame shows, each off by `error` pixels, some of them missing and others strange.
std::vector<CStar> Stars(const Way& way, int count, double error, int seed) {
  std::vector<CStar> stars;
  for (int i = 0; i < count; ++i) {
    const auto random = [&](int k) { return Noise(1000003LL * seed + 13 * i + k); };
    const auto normal = [&](int k) {
      return std::sqrt(-2 * std::log(1 - random(k))) * std::cos(2 * std::numbers::pi * random(k + 1));
    };
    const bool strange = random(0) < 0.1;
    const Point p = strange ? Point{1000 * random(1), 700 * random(2)}
                            : way({1600 * Noise(5 * i) - 300, 1200 * Noise(5 * i + 1) - 250});
    CStar star;
    star.x = p.x + error * normal(3);
    star.y = p.y + error * normal(5);
    star.flux = 1000 / (0.02 + Noise(5 * i + 2)) * (0.9 + 0.2 * random(7));
    star.fwhm = 3;
    star.snr = 1.5 / std::sqrt(std::max(error * error - 0.015 * 0.015, 1e-8));
    if (p.x >= 0 && p.y >= 0 && p.x < kWidth && p.y < kHeight && random(8) < 0.9) stars.push_back(star);
  }
  return stars;
}

/// Where map and truth differ most on what both frames show, in pixels.
double WorstOf(const CFrameMap& map, const Way& frame, const Way& reference) {
  double worst = 0;
  for (double y = -300; y < 1100; y += 20) {
    for (double x = -300; x < 1300; x += 20) {
      const auto isSeen = [](Point p) { return p.x >= 0 && p.y >= 0 && p.x < kWidth && p.y < kHeight; };
      const Point from = frame({x, y}), to = reference({x, y});
      if (!isSeen(from) || !isSeen(to)) continue;
      const auto is = map(from);
      worst = std::max(worst, is ? Distance(*is, to) : 1e9);
    }
  }
  return worst;
}

TEST(CFrameFitter, FindsWhatTheStarsTell) {
  constexpr int kFrames = 9;
  constexpr double kError = 0.06;
  for (const Session& session : Sessions()) {
    const auto way = [&](int frame) -> Way {
      return [=](Point p) { return session.lens(session.sky(frame)(p)); };
    };
    const CStarMatcher matcher(Stars(way(0), 1200, kError, 0));
    CFrameFitter fitter(kWidth, kHeight);
    std::vector<std::vector<CStarPair>> pairs;
    for (int i = 1; i < kFrames; ++i) {
      const CStarMatch match = matcher.Match(Stars(way(i), 1200, kError, i), kWidth, kHeight);
      pairs.push_back(match.pairs);
      EXPECT_GT(match.pairs.size(), 150u) << session.name << " " << i;
      fitter.Add(match.pairs);
    }
    fitter.Choose();
    EXPECT_EQ(fitter.GetModel(), session.model) << session.name << ": " << fitter.Text();
    EXPECT_EQ(!fitter.GetDistortion().IsNone(), session.hasLens) << session.name << ": " << fitter.Text();
    for (int i = 1; i < kFrames; ++i) {
      const auto fit = fitter.FitFrame(pairs[i - 1]);
      ASSERT_TRUE(fit) << session.name;
      EXPECT_LT(WorstOf(fit->map, way(i), way(0)), 0.15) << session.name << " " << i;
      EXPECT_LT(fit->residual, 2.2 * kError) << session.name;  // two errors, of x and of y
      EXPECT_GT(fit->stars, 140) << session.name;
    }
    std::printf("%s: %s\n", session.name, fitter.Text().c_str());
  }
}

}  // namespace
