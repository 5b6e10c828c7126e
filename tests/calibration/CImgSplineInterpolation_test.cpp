// Curves through points, against their segments' formulas.
#include "korimg/calibration/CImgSplineInterpolation.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

struct Curve : std::vector<tagSplinePoint> {
  std::vector<double> second;

  Curve(std::initializer_list<tagSplinePoint> points);
};

/// The natural spline's second derivatives at the points, by relaxation of their equations.
Curve::Curve(std::initializer_list<tagSplinePoint> points) : vector(points), second(points.size()) {
  const Curve& c = *this;
  std::vector<double>& m = second;
  for (int round = 0; round < 300; ++round) {
    for (size_t i = 1; i + 1 < c.size(); ++i) {
      const double h0 = c[i].x - c[i - 1].x, h1 = c[i + 1].x - c[i].x;
      const double right = 6 * ((c[i + 1].y - c[i].y) / h1 - (c[i].y - c[i - 1].y) / h0);
      m[i] = (right - h0 * m[i - 1] - h1 * m[i + 1]) / (2 * (h0 + h1));
    }
  }
}

/// A curve at t, limited, as the header tells.
double ValueOf(const Curve& c, double t) {
  if (t >= 1) return t;
  if (t <= 0) return 0;
  if (c.size() < 2) return 0;
  if (t < c.front().x || t > c.back().x) return t;
  size_t i = 0;
  while (i + 1 < c.size() && c[i + 1].x <= t) {
    ++i;
  }
  if (i + 1 == c.size()) return 0;  // the last point is no part of the curve
  const tagSplinePoint &a = c[i], &b = c[i + 1];
  const double h = b.x - a.x, u = (b.x - t) / h, v = (t - a.x) / h;
  double y = u * a.y + v * b.y;
  if (c.size() > 2) {
    if (a.type == 1) {
      const std::vector<double>& m = c.second;
      y += ((u * u * u - u) * m[i] + (v * v * v - v) * m[i + 1]) * h * h / 6;
    }
    if (a.type == 2) y = a.y;
    if (a.type == 3) y = t == a.x ? a.y : b.y;
  }
  return std::clamp(y, 0.0, 1.0);
}

struct Case {
  const char* name;
  Curve curves[4];
};

const Curve kStraight = {{0, 0}, {1, 1}};

std::vector<Case> Cases() {
  const Curve bent = {{0, 0, 1}, {0.2, 0.45, 1}, {0.6, 0.5, 1}, {1, 1, 1}};
  const Curve five = {{0, 0.1, 1}, {0.15, 0.3, 0}, {0.4, 0.35, 2}, {0.7, 0.9, 1}, {1, 0.8, 1}};
  const Curve overshoots = {{0, 0.9, 1}, {0.3, 0, 1}, {0.6, 1, 1}, {1, 0.1, 1}};
  const Curve line = {{0, 0.25, 1}, {1, 0.75, 1}};
  const Curve six = {{0, 0, 1}, {0.1, 0.3, 1}, {0.3, 0.4, 1}, {0.5, 0.45, 1}, {0.8, 0.9, 1}, {1, 1, 1}};
  const Curve jumps = {{0, 0, 3}, {0.5, 0.4, 3}, {1, 1, 0}};
  const Curve ends = {{0.2, 0.1, 1}, {0.5, 0.6, 1}, {0.75, 0.7, 1}};
  const Curve wide = {{-0.5, 0, 1}, {0.4, 0.3, 1}, {1.5, 1, 1}};
  return {{"one curve a plane", {kStraight, bent, five, overshoots}},
          {"the master alone", {bent, kStraight, kStraight, kStraight}},
          {"lines", {kStraight, line, kStraight, wide}},
          {"curves in a row", {bent, five, overshoots, line}},
          {"many segments", {kStraight, six, jumps, ends}},
          {"points missing", {kStraight, {}, {{0, 0.5}}, bent}}};
}

/// All pixels of the image are as the curves tell.
void Expect(CVelImage& target, CVelImage& src, const Case& c, const OptionalRect& rect,
            const std::string& what) {
  const auto want = [&](int p, int x, int y) -> double {
    if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
    const float v = src.GetPixelGrayRaw(x, y, p);
    if (std::isnan(v)) return v;
    double t = (v - target.GetLevelMin(p)) / target.GetLevelRange(p);
    if (t >= 1 - 1e-7) return v;
    if (target.IsColor()) t = ValueOf(c.curves[p + 1], t);
    t = ValueOf(c.curves[0], t);
    return t * target.GetLevelRange(p) + target.GetLevelMin(p);
  };
  ASSERT_EQ(Difference(target, want, 1e-6), "") << what << ", " << c.name;
}

void Take(CSpline::Points (&points)[4], const Case& c) {
  for (int i = 0; i < 4; ++i) {
    points[i].RemoveAll();
    for (const tagSplinePoint& point : c.curves[i]) {
      points[i].Add(point);
    }
  }
}

TEST(CImgSplineInterpolation, BendsByItsCurves) {
  const std::vector<Case> cases = Cases();
  OnEveryPath([&cases](const StoreCase& store) {
    for (const Case& c : cases) {
      for (const auto& [width, height] : Sizes()) {
        for (const int planes : {1, 3}) {
          for (OptionalRect& rect : Windows(width, height)) {
            if (rect && &c != &cases[0] && &c != &cases[3]) continue;
            const auto src = Make(store.make(), width, height, planes, Wild(60, 1300));
            const auto target =
                Make<CImgSplineInterpolation>(src->VmManager(), width, height, planes, Random(0, 1, 7));
            CSpline::Points curves[4];
            Take(curves, c);
            EXPECT_NE(target->CalcSplineParam(curves), 0);
            ASSERT_EQ(target->Do(curves, src.get(), Address(rect), 0), 1);
            Expect(*target, *src, c, rect, store.name + " " + std::to_string(width) + " columns");
          }
        }
      }
    }
  });
}

TEST(CImgSplineInterpolation, StoresAgreeToTheBit) {
  for (const Case& c : Cases()) {
    std::vector<float> first;
    for (const StoreCase& store : Stores()) {
      const auto src = Make(store.make(), 131, 67, 3, Random(130, 1100));
      const auto target = Make<CImgSplineInterpolation>(src->VmManager(), 131, 67, 3, Random(0, 1));
      CSpline::Points curves[4];
      Take(curves, c);
      target->CalcSplineParam(curves);
      ASSERT_EQ(target->Do(curves, src.get(), nullptr, 0), 1);
      if (first.empty()) first = Pixels(*target);
      EXPECT_EQ(Pixels(*target), first) << store.name << ", " << c.name;
    }
  }
}

TEST(CImgSplineInterpolation, EndsAndPointsOfCurves) {
  // At the points themselves, at black and white and beyond, and at a last point inside the levels.
  const Case c{"ends", {{{0, 0.1, 1}, {0.25, 0.5, 1}, {0.5, 0.25, 1}}, kStraight, kStraight, kStraight}};
  for (const StoreCase& store : Stores()) {
    for (const int planes : {1, 3}) {
      for (const auto& [share, want] :
           {std::pair(-0.5, 0.0), {0, 0}, {0.25, 0.5}, {0.5, 0}, {0.75, 0.75}, {1, 1}, {1.5, 1.5}}) {
        const auto target = Make<CImgSplineInterpolation>(store.make(), 5, 3, planes, Random(0, 1));
        const auto src =
            Make(target->VmManager(), 5, 3, planes, [s = share](int, int, int) { return 128 + 512 * s; });
        for (int p = 0; p < planes; ++p) {
          target->SetLevel(p, 128, 640);
        }
        CSpline::Points curves[4];
        Take(curves, c);
        target->CalcSplineParam(curves);
        ASSERT_EQ(target->Do(curves, src.get(), nullptr, 0), 1);
        EXPECT_FLOAT_EQ(target->GetPixelGrayRaw(2, 1, planes - 1), 128 + 512 * want)
            << store.name << " " << share;
      }
    }
  }
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 9));
  CSpline::Points curves[4];
  EXPECT_EQ(
      Make<CImgSplineInterpolation>(MemoryStore(), 9, 8, 1, Random(0, 1))->Do(curves, src.get(), nullptr, 0),
      0);
}

}  // namespace
