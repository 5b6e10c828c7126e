#include "korimg/measurement/CStarMatcher.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/composite/CImgComposit.h"
#include "korimg/geometry/CInterp.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kWidth = 3000, kHeight = 2000;

/// How a frame was taken: what lays it on the reference is the result that is wanted.
struct Pose {
  double dx, dy, degrees, scale = 1;
  bool mirrored = false;
};

/// Where a star of the reference is on the frame: the inverse of what a composite does.
CStar Seen(CStar star, const Pose& pose) {
  const double a = pose.degrees * std::numbers::pi / 180, x = (star.x - kWidth * 0.5 - pose.dx) / pose.scale,
               y = (star.y - kHeight * 0.5 - pose.dy) / pose.scale;
  star.x = kWidth * 0.5 + std::cos(a) * x + std::sin(a) * y;
  star.y = kHeight * 0.5 - std::sin(a) * x + std::cos(a) * y;
  if (pose.mirrored) star.x = kWidth - 1 - star.x;
  return star;
}

bool IsOn(const CStar& star) {
  return star.x >= 0 && star.y >= 0 && star.x < kWidth && star.y < kHeight;
}

/// Stars of the sky around the reference frame, bright ones few.
std::vector<CStar> Sky(int count, int seed) {
  std::vector<CStar> stars(count);
  for (int i = 0; i < count; ++i) {
    const std::uint64_t n = 1000000ull * seed + 3 * i;
    stars[i].x = kWidth * (3 * Noise(n) - 1);
    stars[i].y = kHeight * (3 * Noise(n + 1) - 1);
    stars[i].flux = 1000 * std::pow(Noise(n + 2), -1.2);
    stars[i].snr = stars[i].flux / 100;
    stars[i].fwhm = 3;
  }
  return stars;
}

/// What a frame shows of a sky, positions and fluxes a little off, and stars of its own beside it.
std::vector<CStar> Frame(const std::vector<CStar>& sky, const Pose& pose, double jitter, int strangers,
                         int seed) {
  std::vector<CStar> seen;
  for (size_t i = 0; i < sky.size(); ++i) {
    CStar star = Seen(sky[i], pose);
    const std::uint64_t n = 77000000ull * seed + 3 * i;
    star.x += jitter * (2 * Noise(n) - 1);
    star.y += jitter * (2 * Noise(n + 1) - 1);
    star.flux *= 0.8 + 0.3 * Noise(n + 2);
    if (IsOn(star)) seen.push_back(star);
  }
  for (CStar star : Sky(strangers * 9, 1000 + seed)) {
    if (IsOn(star)) seen.push_back(star);
  }
  return seen;
}

TEST(CStarMatcher, FindsShiftAndAngle) {
  struct Case {
    const char* name;
    int stars;  // on a frame, about
    Pose pose;
    int strangers;
  };
  for (const Case& c :
       {Case{"identity", 100, {0, 0, 0}, 0}, Case{"shift", 100, {12.4, -7.7, 0}, 10},
        Case{"a quarter turn", 100, {-30.2, 55.5, 90.1}, 10}, Case{"half a turn", 100, {3.3, -4.4, 180}, 10},
        Case{"half a turn, crowded", 5000, {3.3, -4.4, 179.7}, 500}, Case{"twenty", 20, {40, 30, 0.4}, 2},
        Case{"many outliers", 60, {15, 8, -0.3}, 60}, Case{"a tenth of the frame", 400, {2700, 40, 0.2}, 0},
        Case{"a tenth of the frame, crowded", 5000, {-400, 1760, -3}, 0}}) {
    const auto sky = Sky(c.stars * 9, 5);
    CStarMatcher matcher(Frame(sky, {0, 0, 0}, 0.05, 0, 1));
    const CStarMatch match = matcher.Match(Frame(sky, c.pose, 0.05, c.strangers, 2), kWidth, kHeight);
    ASSERT_EQ(match.status, CStarMatch::Ok) << c.name;
    const double lever = std::hypot(c.pose.dx, c.pose.dy) > 1000 ? 4 : 1;  // shifts are told from far away
    EXPECT_NEAR(match.dx, c.pose.dx, 0.03 * lever) << c.name;
    EXPECT_NEAR(match.dy, c.pose.dy, 0.03 * lever) << c.name;
    EXPECT_NEAR(std::remainder(match.degrees - c.pose.degrees, 360), 0, 0.002 * lever) << c.name;
    EXPECT_NEAR(match.scale, 1, 1e-4 * lever) << c.name;
    EXPECT_LT(match.residual, 0.1) << c.name;
  }
}

TEST(CStarMatcher, FewStars) {
  const std::vector<CStar> all = Frame(Sky(60, 8), {0, 0, 0}, 0, 0, 1);
  const Pose pose{25.5, -13.25, 177};
  for (const int count : {0, 1, 2, 3, 4, 5}) {
    ASSERT_GE(all.size(), 5u);
    const std::vector<CStar> reference(all.begin(), all.begin() + count);
    std::vector<CStar> frame;
    for (const CStar& star : reference) {
      frame.push_back(Seen(star, pose));
    }
    const CStarMatch match = CStarMatcher(reference).Match(frame, kWidth, kHeight);
    if (count < 3) {
      EXPECT_EQ(match.status, count < 2 ? CStarMatch::NoStars : CStarMatch::NoMatch) << count;
      continue;
    }
    ASSERT_EQ(match.status, CStarMatch::Ok) << count;
    EXPECT_EQ(match.stars, count);
    EXPECT_NEAR(match.dx, pose.dx, 1e-6);
    EXPECT_NEAR(match.dy, pose.dy, 1e-6);
    EXPECT_NEAR(match.degrees, pose.degrees, 1e-9);
  }
  CStar lost;
  lost.x = NAN;
  EXPECT_EQ(CStarMatcher({lost, lost, lost, lost}).Match(all, kWidth, kHeight).status, CStarMatch::NoStars);
  EXPECT_NE(CStarMatcher(std::vector<CStar>(50)).Match(std::vector<CStar>(50), kWidth, kHeight).status,
            CStarMatch::Ok);
}

/// Pixels by which the corner that is laid worst is off.
double CornerOff(const CStarMatch& match, const Pose& pose, int width, int height) {
  const auto lay = [&](double x, double y, double dx, double dy, double degrees) {
    const double a = degrees * std::numbers::pi / 180;
    return std::pair(std::cos(a) * x - std::sin(a) * y + dx, std::sin(a) * x + std::cos(a) * y + dy);
  };
  double worst = 0;
  for (const double x : {-0.5 * width, 0.5 * width}) {
    for (const double y : {-0.5 * height, 0.5 * height}) {
      const auto is = lay(x, y, match.dx, match.dy, match.degrees),
                 wanted = lay(x, y, pose.dx, pose.dy, pose.degrees);
      worst = std::max(worst, std::hypot(is.first - wanted.first, is.second - wanted.second));
    }
  }
  return worst;
}

// Small frames, where chance is not far: what a few stars share is a turn, never a shift alone.
TEST(CStarMatcher, FewStarsTellATurn) {
  constexpr int kSmallWidth = 800, kSmallHeight = 600;
  const auto random = [](std::uint64_t& n) { return Noise(n++); };
  for (const int common : {2, 3, 4, 5}) {
    for (const double degrees : {0.1, -0.3, 2.0}) {
      for (std::uint64_t layout = 0; layout < 6; ++layout) {
        std::uint64_t n = 1000 * (layout + 10 * common);
        const Pose pose{20 * random(n) - 10, 20 * random(n) - 10, degrees};
        const double a = degrees * std::numbers::pi / 180;
        std::vector<CStar> reference, frame;
        for (int i = 0; i < common; ++i) {
          CStar star;
          star.x = 60 + (kSmallWidth - 120) * random(n);
          star.y = 60 + (kSmallHeight - 120) * random(n);
          star.flux = 5000 * (1 + i) + 1000 * random(n);
          star.fwhm = 3;
          star.snr = 60;
          reference.push_back(star);
          const double x = star.x - kSmallWidth / 2 - pose.dx, y = star.y - kSmallHeight / 2 - pose.dy;
          star.x = kSmallWidth / 2 + std::cos(a) * x + std::sin(a) * y + 0.1 * (random(n) - 0.5);
          star.y = kSmallHeight / 2 - std::sin(a) * x + std::cos(a) * y + 0.1 * (random(n) - 0.5);
          frame.push_back(star);
        }
        const CStarMatch match = CStarMatcher(reference).Match(frame, kSmallWidth, kSmallHeight);
        const auto name = ::testing::Message()
                          << common << " stars, " << degrees << " degrees, layout " << layout;
        ASSERT_EQ(match.status, CStarMatch::Ok) << name;
        EXPECT_EQ(match.stars, common) << name;
        EXPECT_LT(CornerOff(match, pose, kSmallWidth, kSmallHeight), 4 * match.cornerError) << name;
        EXPECT_LT(match.cornerError, common > 3 ? 0.25 : 3) << name;
      }
    }
  }
  // Two stars close to each other tell the shift; their turn is lost in what they may be off by.
  std::vector<CStar> near(2);
  for (CStar& star : near) {
    star.flux = 1000;
    star.fwhm = 4;
    star.snr = 8;
  }
  near[0].x = near[0].y = near[1].y = 300;
  near[1].x = 315;
  std::vector<CStar> moved = near;
  moved[0].x += 12;
  moved[1].x += 12.2;
  moved[1].y += 0.2;
  const CStarMatch shift = CStarMatcher(near).Match(moved, kSmallWidth, kSmallHeight);
  ASSERT_EQ(shift.status, CStarMatch::Ok);
  EXPECT_EQ(shift.degrees, 0);
  EXPECT_NEAR(shift.dx, -12.1, 0.01);
  EXPECT_GT(shift.cornerError, 5);
}

TEST(CStarMatcher, TwoStarsTellAShift) {
  std::vector<CStar> stars = Frame(Sky(40, 8), {0, 0, 0}, 0, 0, 1);
  ASSERT_GE(stars.size(), 3u);
  stars.resize(2);
  const auto match = [&](const Pose& pose, int strangers) {
    auto frame = Frame(stars, pose, 0.2, strangers, 3);
    frame[0].flux = 1e9;  // strangers are not brighter
    return CStarMatcher(Frame(stars, {0, 0, 0}, 0, 1, 4)).Match(frame, kWidth, kHeight);
  };
  stars[0].flux = 1e9;
  for (const int strangers : {0, 1, 5}) {
    const CStarMatch shifted = match({-40.5, 12.25, 0}, strangers);
    ASSERT_EQ(shifted.status, CStarMatch::Ok) << strangers;
    EXPECT_EQ(shifted.stars, 2);
    EXPECT_NEAR(shifted.dx, -40.5, 0.3);
    EXPECT_NEAR(shifted.dy, 12.25, 0.3);
    EXPECT_NEAR(shifted.degrees, 0, 0.05);
  }
  EXPECT_NEAR(match({-40.5, 12.25, 1}, 0).degrees, 1, 0.1);
  EXPECT_EQ(match({-40.5, 12.25, 90}, 1).status, CStarMatch::NoMatch) << "turned too far to be believed";
  EXPECT_EQ(match({0.1, 0, 0}, 1).status, CStarMatch::NoMatch) << "perhaps hot pixels";
}

TEST(CStarMatcher, FailuresAreToldApart) {
  const auto sky = Sky(900, 11);
  const auto reference = Frame(sky, {0, 0, 0}, 0.05, 0, 1);
  CStarMatcher matcher(reference);
  const auto statusOf = [&](const std::vector<CStar>& frame) {
    return matcher.Match(frame, kWidth, kHeight).status;
  };
  EXPECT_EQ(statusOf(Frame(sky, {20, 30, 5, 1, true}, 0.05, 0, 2)), CStarMatch::Mirrored);
  EXPECT_EQ(statusOf(Frame(sky, {20, 30, 5}, 0.3, 0, 2)), CStarMatch::Ok);
  const CStarMatch binned = matcher.Match(Frame(sky, {20, 30, 5, 1.5}, 0.05, 0, 2), kWidth, kHeight);
  EXPECT_EQ(binned.status, CStarMatch::ResidualTooLarge);
  EXPECT_NEAR(binned.scale, 1.5, 1e-3);
  matcher.SetResidualLimit(0.02);
  EXPECT_EQ(statusOf(Frame(sky, {20, 30, 5}, 0.3, 0, 2)), CStarMatch::ResidualTooLarge);
  // Another field is never taken for this one.
  matcher.SetResidualLimit(5);
  for (int seed = 100; seed < 112; ++seed) {
    for (const int count : {6, 20, 100, 1000}) {
      EXPECT_EQ(statusOf(Frame(Sky(count * 9, seed), {0, 0, 0}, 0, 0, seed)), CStarMatch::NoMatch)
          << seed << " " << count;
    }
  }
}

// So many meet by chance there that the odds of it are no numbers.
TEST(CStarMatcher, StarsOnTopOfEachOtherAreNoMatch) {
  const auto heap = [](int count, double side, int seed) {
    std::vector<CStar> stars = Sky(count, seed);
    for (CStar& star : stars) {
      star.x = 300 + side * (star.x / kWidth + 1) / 3;
      star.y = 200 + side * (star.y / kHeight + 1) / 3;
    }
    return stars;
  };
  for (const double side : {1.0, 12.0, 40.0}) {
    const CStarMatcher matcher(heap(200, side, 1));
    EXPECT_NE(matcher.Match(heap(150, side, 2), 400, 300).status, CStarMatch::Ok) << side;
  }
  const CStarMatcher crowd(heap(2000, 60, 3));
  EXPECT_NE(crowd.Match(heap(2000, 60, 4), 60, 60).status, CStarMatch::Ok);
}

TEST(CStarMatcher, ACompositeLaysTheFrameOnTheReference) {
  constexpr int kSide = 200;
  const auto image = [&](const std::vector<CStar>& stars) {
    return Make<CImgComposit>(MemoryStore(), kSide, kSide, 1, [&](int p, int x, int y) {
      double v = 100 + Random(0, 2)(p, x, y);
      for (const CStar& s : stars) {
        v += 500 * std::exp(-(std::pow(x - s.x, 2) + std::pow(y - s.y, 2)) / (2 * 1.7 * 1.7));
      }
      return v;
    });
  };
  std::vector<CStar> stars, moved;
  const double a = 7 * std::numbers::pi / 180;
  for (int i = 0; i < 14; ++i) {
    CStar star;
    star.x = 45 + 110 * Noise(2 * i + 500);
    star.y = 45 + 110 * Noise(2 * i + 501);
    stars.push_back(star);
    const double x = star.x - 99, y = star.y - 104;
    star.x = 107 + std::cos(a) * x - std::sin(a) * y;
    star.y = 95 + std::sin(a) * x + std::cos(a) * y;
    moved.push_back(star);
  }
  const auto reference = image(stars), frame = image(moved), laid = image(stars);
  const auto find = [](CVelImage& of) {
    CStarFinder finder(&of);
    finder.Find();
    return finder.GetStars();
  };
  const CStarMatch match = CStarMatcher(find(*reference)).Match(find(*frame), kSide, kSide);
  ASSERT_EQ(match.status, CStarMatch::Ok);
  EXPECT_NEAR(match.degrees, -7, 0.05);
  laid->Do(reference.get(), frame.get(), match.dx, match.dy, match.degrees, 0, 6, CInterp::MethodBicubic, 0);
  float worst = 0;
  for (int y = 40; y < 160; ++y) {
    for (int x = 40; x < 160; ++x) {
      worst = std::max(worst, laid->GetPixelGrayRaw(x, y, 0));
    }
  }
  EXPECT_LT(worst, 25) << "of stars 500 high";
}

}  // namespace
