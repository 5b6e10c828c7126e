#include "korimg/geometry/CFrameMap.h"

#include <tuple>

#include <gtest/gtest.h>

#include "korimg/geometry/CImgWarp.h"
#include "korimg/platform/CArray.h"

#include "tests/geometry/Reference.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 1000, kHeight = 700;

/// Numbers of every kind, as large as those of a wide lens.
CLensDistortion Barrel() {
  return CLensDistortion::Of(kWidth, kHeight,
                             {0.06, 0.012, -0.003,  // radial
                              0.002, -0.001, 0.0015, 0.004, -0.002, 0.001, 0.003, -0.001, 0.002, 0.001,
                              -0.003, 0.001, 0.002, 0.0005});
}
CLensDistortion OtherLens() {
  return {{530, 310}, 600, {-0.04, 0.01}};
}

const CFrameMap::Matrix kTilted = {0.98, -0.21, 130, 0.19, 1.03, -44, 2e-5, -3e-5, 1};

struct NamedMap {
  const char* name;
  CFrameMap map;
  CFrameMap::Model model;
};

std::vector<NamedMap> Maps() {
  return {{"none", {}, CFrameMap::Rigid},
          {"turned", CFrameMap::FromPose(31.7, -12.25, 33, kWidth, kHeight), CFrameMap::Rigid},
          {"half turn", CFrameMap::FromPose(-3, 5, 179.8, kWidth, kHeight), CFrameMap::Rigid},
          {"larger", CFrameMap({1.2, -0.3, 5, 0.3, 1.2, -7, 0, 0, 1}), CFrameMap::Similarity},
          {"sheared", CFrameMap({1.2, -0.1, 5, 0.3, 0.9, -7, 0, 0, 1}), CFrameMap::Affine},
          {"tilted", CFrameMap(kTilted), CFrameMap::Homography},
          {"lens", CFrameMap(kTilted, Barrel(), Barrel()), CFrameMap::Homography},
          {"two lenses", CFrameMap({1, 0, 80, 0, 1, -60, 0, 0, 1}, Barrel(), OtherLens()), CFrameMap::Rigid}};
}

std::vector<Point> Places() {
  return {{0, 0}, {999, 0}, {0, 699}, {999, 699}, {499.5, 349.5}, {123.4, 600.9}, {-70, 820}};
}

TEST(CFrameMap, IsWhatItsFormulaSays) {
  // By hand: straightened, moved, and what is bent comes back to the same when it is straightened.
  const CFrameMap map(kTilted, Barrel(), OtherLens());
  const double n[2] = {(250 - 499.5) / Length(kWidth, kHeight) * 2,
                       (600 - 349.5) / Length(kWidth, kHeight) * 2};
  const double x = n[0], y = n[1], r2 = x * x + y * y;
  const double radial = 0.06 * r2 + 0.012 * r2 * r2 - 0.003 * r2 * r2 * r2;
  const double u = x + x * radial + 0.002 * x * x - 0.001 * x * y + 0.0015 * y * y + 0.004 * x * x * x -
                   0.002 * x * x * y + 0.001 * x * y * y + 0.003 * y * y * y;
  const double v = y + y * radial - 0.001 * x * x + 0.002 * x * y + 0.001 * y * y - 0.003 * x * x * x +
                   0.001 * x * x * y + 0.002 * x * y * y + 0.0005 * y * y * y;
  const double px = 499.5 + u * Length(kWidth, kHeight) / 2, py = 349.5 + v * Length(kWidth, kHeight) / 2;
  const double w = 2e-5 * px - 3e-5 * py + 1;
  const Point straight = {(0.98 * px - 0.21 * py + 130) / w, (0.19 * px + 1.03 * py - 44) / w};
  const auto place = map({250, 600});
  ASSERT_TRUE(place);
  EXPECT_LT(Distance(OtherLens().Straight(*place), straight), 1e-6);
  const auto [dx, dy, degrees] =
      CFrameMap::FromPose(31.7, -12.25, 33, kWidth, kHeight).PoseOf(kWidth, kHeight);
  EXPECT_NEAR(dx, 31.7, 1e-9);
  EXPECT_NEAR(dy, -12.25, 1e-9);
  EXPECT_NEAR(degrees, 33, 1e-9);
  // Clockwise on the screen: what is to the right of the middle comes below it.
  const auto turned = CFrameMap::FromPose(10, 20, 90, 100, 60)({60, 30});
  EXPECT_LT(Distance(*turned, {50 + 10, 30 + 10 + 20}), 1e-9);
}

TEST(CFrameMap, GoesThereAndBackAndOn) {
  for (const auto& [name, map, model] : Maps()) {
    EXPECT_EQ(map.GetModel(), model) << name;
    EXPECT_EQ(map.IsRigid(), model == CFrameMap::Rigid && std::string(name) != "two lenses") << name;
    const CFrameMap second({0.9, 0.1, 3, -0.1, 1.1, 4, 1e-5, 0, 1}, map.ReferenceDistortion(), OtherLens());
    const CFrameMap back = map.Inverse(), moved = map.Moved(-20.5, 33), twice = map.Then(second);
    for (const Point& p : Places()) {
      const auto there = map(p);
      ASSERT_TRUE(there) << name;
      EXPECT_LT(Distance(*back(*there), p), 1e-6) << name << " " << p.x << ", " << p.y;
      EXPECT_LT(Distance(*moved(p), {there->x - 20.5, there->y + 33}), 1e-6) << name;
      EXPECT_LT(Distance(*twice(p), *second(*there)), 1e-6) << name;
      const auto j = map.JacobianAt(p);
      const auto step = map({p.x + 0.2, p.y - 0.3});
      EXPECT_NEAR(step->x - there->x, 0.2 * j->xx - 0.3 * j->xy, 1e-3) << name;
      EXPECT_NEAR(step->y - there->y, 0.2 * j->yx - 0.3 * j->yy, 1e-3) << name;
    }
  }
  EXPECT_THROW(CFrameMap({1, 0, 0, 0, -1, 0, 0, 0, 1}), CInvalidArgException*) << "turned over";
  EXPECT_THROW(CFrameMap({1, 0, 0, 0, 1, 0, 0, 0, 0}), CInvalidArgException*);
  EXPECT_THROW(CFrameMap({}, Barrel(), Barrel()).Then({}), CInvalidArgException*);
  EXPECT_FALSE(CFrameMap({1, 0, 0, 0, 1, 0, -0.01, 0, 1})({200, 0})) << "behind the camera";
}

TEST(CFrameMap, BoundsHoldWhatIsInThem) {
  for (const auto& [name, map, model] : Maps()) {
    const auto bounds = map.BoundsOf(0, 300, kWidth - 1, 316);
    double left = 1e9, top = 1e9, right = -1e9, bottom = -1e9;
    for (int y = 300; y <= 316; y += 4) {
      for (int x = 0; x < kWidth; ++x) {
        const Point p = *map({1.0 * x, 1.0 * y});
        left = std::min(left, p.x), right = std::max(right, p.x);
        top = std::min(top, p.y), bottom = std::max(bottom, p.y);
      }
    }
    EXPECT_LE(bounds.left, left) << name;
    EXPECT_LE(bounds.top, top) << name;
    EXPECT_GE(bounds.right, right) << name;
    EXPECT_GE(bounds.bottom, bottom) << name;
    EXPECT_LT(right - left + bottom - top + 3, bounds.right - bounds.left + bounds.bottom - bounds.top + 6);
    EXPECT_GT(right - left + bottom - top + 3, bounds.right - bounds.left + bounds.bottom - bounds.top)
        << name;
  }
}

TEST(CLensDistortion, NeverFoldsOutsideTheFrame) {
  const CLensDistortion lens = Barrel(), pincushion = CLensDistortion::Of(kWidth, kHeight, {-0.08});
  EXPECT_TRUE(lens.IsSound(kWidth, kHeight));
  EXPECT_FALSE(CLensDistortion::Of(kWidth, kHeight, {-0.4}).IsSound(kWidth, kHeight));
  for (const CLensDistortion& own : {lens, pincushion}) {
    double before = 0;
    for (double r = 0; r < 4000; r += 7) {
      const Point straight = own.Straight({499.5 + r * 0.8, 349.5 + r * 0.6});
      const double now = Length(straight.x - 499.5, straight.y - 349.5);
      EXPECT_GE(now, before);
      before = now;
      const auto bent = own.Bent(straight);
      ASSERT_TRUE(bent) << r;
      EXPECT_LT(Distance(*bent, {499.5 + r * 0.8, 349.5 + r * 0.6}), 1e-5) << r;
    }
  }
}

TEST(CLensDistortion, ItsJacobianIsThatOfSmallSteps) {
  const CLensDistortion lens = Barrel();
  constexpr double kStep = 1e-3;
  for (const Point& p : {Point{20, 30}, {900, 650}, {450, 10}}) {
    CLensDistortion::Jacobian j;
    const Point at = lens.Straight(p, &j), right = lens.Straight({p.x + kStep, p.y}),
                below = lens.Straight({p.x, p.y + kStep});
    EXPECT_NEAR(j.xx, (right.x - at.x) / kStep, 1e-5);
    EXPECT_NEAR(j.yx, (right.y - at.y) / kStep, 1e-5);
    EXPECT_NEAR(j.xy, (below.x - at.x) / kStep, 1e-5);
    EXPECT_NEAR(j.yy, (below.y - at.y) / kStep, 1e-5);
  }
}

TEST(CImgWarp, ReadsThePlaneWhereTheMapSays) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : {std::pair(211, 163), std::pair(1, 40), std::pair(53, 1)}) {
      const auto source = Make(store.make(), 190, 150, 2, Random(0, 1000));
      source->SetLevel(1, -5, 70);
      const CLensDistortion lens = CLensDistortion::Of(190, 150, Barrel().Values());
      const CFrameMap map({1.05, -0.11, 9.3, 0.12, 0.97, 4.4, 5e-5, -8e-5, 1}, lens, lens);
      const CFrameMap back = map.Inverse();
      for (int method = 0; method < kMethodCount; ++method) {
        const auto target = Make<CImgWarp>(store.make(), width, height, 2, Random(-5, 5));
        ASSERT_EQ(target->Do(source.get(), map, method, -7, 0), 1);
        EXPECT_EQ(target->GetLevelMax(1), 70);
        int outside = 0;
        for (int p = 0; p < 2; ++p) {
          for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
              const Point from = *back({1.0 * x, 1.0 * y});
              const auto near = [](double v, double border) { return std::abs(v - border) < 1e-3; };
              if (near(from.x, 0) || near(from.y, 0) || near(from.x, 190) || near(from.y, 150)) continue;
              const auto near_half = [&](double v) { return near(v - std::floor(v), 0.5); };
              if (method == 4 && (near_half(from.x) || near_half(from.y))) continue;
              const bool on = from.x >= 0 && from.y >= 0 && from.x < 190 && from.y < 150;
              outside += !on;
              const double expected = on ? SampleBySum(*source, p, method, from.x, from.y) : -7;
              ASSERT_NEAR(target->GetPixelGrayRaw(x, y, p), expected, 0.5)
                  << store.name << " method " << method << " at " << x << ", " << y;
            }
          }
        }
        EXPECT_TRUE(width < 200 || outside > 100);
      }
    }
  }
  const auto source = Make(MemoryStore(), 9, 9, 1, Random(0, 1)),
             colour = Make(MemoryStore(), 9, 9, 3, Random(0, 1));
  const auto target = Make<CImgWarp>(MemoryStore(), 9, 9, 3, Random(0, 1)),
             kept = Make<CImgWarp>(MemoryStore(), 9, 9, 3, Random(0, 1));
  EXPECT_EQ(target->Do(source.get(), {}, 1, 0, 0), 0);
  EXPECT_EQ(target->Do(colour.get(), {}, 9, 0, 0), 0);
  EXPECT_EQ(Difference(*target, *kept), "");
}

TEST(CImgWarp, FollowsALensOverAWideRow) {
  // Of a ramp a linear kernel reads the position itself.
  constexpr int kWide = 6000;
  const CLensDistortion lens = CLensDistortion::Of(kWide, 4000, {0.06, 0.011, 0.0026});
  const CFrameMap map({0.9998, -0.02, 300, 0.02, 0.9998, -200, 3e-7, -2e-7, 1}, lens, lens);
  const CFrameMap back = map.Inverse();
  const auto columns = Make(MemoryStore(), kWide, 1200, 1, [](int, int x, int) { return x; });
  const auto target = Make<CImgWarp>(MemoryStore(), kWide, 900, 1, Random(0, 1));
  ASSERT_EQ(target->Do(columns.get(), map, 0, -1, 0), 1);
  double worst = 0;
  int count = 0;
  for (int y = 3; y < 900; y += 50) {
    for (int x = 0; x < kWide; ++x) {
      const Point from = *back({1.0 * x, 1.0 * y});
      if (from.x < 1 || from.y < 1 || from.x > kWide - 2 || from.y > 1198) continue;
      worst = std::max(worst, std::abs(target->GetPixelGrayRaw(x, y, 0) - from.x));
      ++count;
    }
  }
  EXPECT_GT(count, 5000);
  EXPECT_LT(worst, 0.003);  // of positions up to 6000 in single precision
}

}  // namespace
