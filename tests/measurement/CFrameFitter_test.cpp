#include "korimg/measurement/CFrameFitter.h"

#include <gtest/gtest.h>

#include "tests/support/StarFields.h"

using namespace korimg;
using namespace korimg::test;
using namespace korimg::test::field;

namespace {

/// A session as truth has it: where a place of the sky, in pixels of the reference without its lens, is seen.
struct Session {
  const char* name;
  CFrameMap::Model model;
  bool hasLens;
  Way lens;
  std::function<Way(int frame)> sky;
};

Way Dithered(int frame, double scale = 1) {
  return Turned(200 * Noise(frame) - 100, 140 * Noise(frame + 100) - 70, 2 * Noise(frame + 200) - 1, scale);
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
          {"a barrel of 4 % off the middle, seen from both sides", CFrameMap::Rigid, true,
           Barrel(0.04, {40, -30}),
           [](int i) {
             return [=](Point p) {
               const Point q = Dithered(i)(p);
               return i % 2 ? Point{999 - q.x, 699 - q.y} : q;
             };
           }},
          {"a wide field by a barrel of 3 %", CFrameMap::Homography, true, Barrel(0.03), Pointed}};
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
  }
}

TEST(CFrameFitter, NeverBendsAFieldWithFewStars) {
  // Rigid frames whose stars are off by a third of a pixel: whatever a richer map makes of that is noise.
  for (const int count : {8, 20, 60}) {
    for (int seed = 0; seed < 12; ++seed) {
      CFrameFitter fitter(kWidth, kHeight);
      for (int frame = 1; frame < 5; ++frame) {
        const auto random = [&](int k) { return Noise(100000LL * seed + 1000 * frame + k); };
        const Way way = Turned(60 * random(1), 40 * random(2), random(3));
        std::vector<CStarPair> pairs;
        for (int i = 0; i < count; ++i) {
          const Point p{900 * random(10 * i + 4), 650 * random(10 * i + 5)};
          const auto off = [&](int k) {
            return 0.3 * (random(10 * i + k) + random(10 * i + k + 1) - 1) * 2.4;
          };
          const Point q = way(p);
          pairs.push_back({q, {p.x + off(6), p.y + off(8)}, 1 / (0.3 * 0.3)});
        }
        fitter.Add(pairs);
      }
      fitter.Choose();
      EXPECT_TRUE(fitter.IsRigid()) << count << " stars: " << fitter.Text();
    }
  }
}

}  // namespace
