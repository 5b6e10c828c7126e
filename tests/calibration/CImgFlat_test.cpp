// Models of the background, against their formulas, and the flat of an image itself.
#include "korimg/calibration/CImgFlat.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "korimg/calibration/CImgSelfFlat.h"
#include "korimg/composite/stacking/FrameLevels.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

enum Model { kRamp, kPlane, kBowl, kParaboloid };

/// Numbers of three planes that have nothing in common.
struct Numbers {
  CPoint p1[3] = {{10, 4}, {5, 9}, {3, 3}}, p2[3] = {{2, 31}, {5, -20}, {3, 3}};
  CPoint centre[3] = {{4, 7}, {-3, 2}, {100, 30}};
  double slope[3] = {0.7, -0.3, 0.02}, level[3] = {400, 350, 20}, bottom[3] = {-5, 30, 0};
  double a[3] = {0.5, -0.25, 0}, b[3] = {-1, 0.125, 2}, square[3] = {0.01, -0.02, 0},
         constant[3] = {50, 700, 9};
};

double Expected(Model model, int mode, const Numbers& n, double smallest, int p, int x, int y, double v) {
  double t = 0, base = n.level[p], bottom = n.bottom[p];
  if (model == kRamp) {
    const double dx = n.p2[p].x - n.p1[p].x, dy = n.p2[p].y - n.p1[p].y, length = std::hypot(dx, dy);
    const double ux = length == 0 ? 0 : dx / length, uy = length == 0 ? -1 : dy / length;
    const int middle = (n.p1[p].y + n.p2[p].y) / 2;  // the packed pair of a small number
    const int originX = middle, originY = middle < 0 ? -1 : 0;
    t = n.slope[p] * ((x - originX) * ux + (y - originY) * uy);
  } else if (model == kPlane) {
    t = n.a[p] * x + n.b[p] * y;
  } else if (model == kBowl) {
    t = n.slope[p] * (std::pow(x - n.centre[p].x, 2) + std::pow(y - n.centre[p].y, 2));
    if (n.slope[p] >= 0) bottom = n.level[p];
  } else {
    t = n.square[p] * (1.0 * x * x + 1.0 * y * y) + n.a[p] * x + n.b[p] * y + n.constant[p];
    const double A = n.square[p];
    base = A == 0 ? 0 : n.constant[p] - (n.b[p] * n.b[p] + n.a[p] * n.a[p]) * 0.25 / A;
    if (A >= 0) bottom = base;
  }
  if (mode == 0) return model == kParaboloid ? v - t + base : v - t;
  if (mode != 1) return 0;
  double k = -std::min(bottom, smallest);
  if (k == 0) k = 1;
  return (base + k) / ((model == kParaboloid ? t : t + base) + k) * (v + k) - k;
}

TEST(CImgFlat, TakesEveryModelOff) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : {std::pair(1, 1), {1, 9}, {41, 29}, {1500, 5}}) {
      for (const Model model : {kRamp, kPlane, kBowl, kParaboloid}) {
        for (const int mode : {0, 1, 2}) {
          Numbers n;
          const auto rule = Random(100, 900);
          const auto known = Make<CVelImage>(MemoryStore(), width, height, 3, rule);
          known->CalcMinMax();
          const auto src = Make<CVelImage>(store.make(), width, height, 3, rule);
          src->CalcMinMax();
          const auto target = Make<CImgFlat>(store.make(), width, height, 3, Random(0, 1));
          OptionalRect rect;
          if (width == 41) rect = CRect(3, 2, 37, 28);
          if (model == kRamp)
            target->DoFlat(src.get(), n.p1, n.p2, n.slope, n.level, n.bottom, mode, Address(rect), 0);
          if (model == kPlane)
            target->DoFlatPoint(src.get(), n.a, n.b, n.level, n.bottom, mode, Address(rect), 0);
          if (model == kBowl)
            target->DoParabolic(src.get(), n.centre, n.slope, n.level, n.bottom, mode, Address(rect), 0);
          if (model == kParaboloid)
            target->DoParabolicPoint(src.get(), n.square, n.a, n.b, n.constant, n.bottom, mode, Address(rect),
                                     0);
          const auto expected = [&](int p, int x, int y) {
            if (!IsInside(rect, x, y)) return Random(0, 1)(p, x, y);
            return Expected(model, mode, n, known->GetMinPixel(p), p, x, y,
                            static_cast<float>(rule(p, x, y)));
          };
          EXPECT_EQ(Difference(*target, expected, 1e-5), "")
              << store.name << " " << width << " x " << height << ", model " << model << ", mode " << mode;
          EXPECT_EQ(target->GetLevelMin(1), 137);
        }
      }
    }
  }
}

TEST(CImgFlat, OriginsOfRampsAreTwoNumbersInOne) {
  // 5 rows of 65536 and 7: the point (7, 5).
  const auto src = Make<CVelImage>(MemoryStore(), 20, 20, 1, [](int, int, int) { return 100; });
  const auto target = Make<CImgFlat>(MemoryStore(), 20, 20, 1, Random(0, 1));
  CPoint p1[] = {{0, 5 * 65536 + 7}}, p2[] = {{10, 5 * 65536 + 7}};
  double slope[] = {2}, level[] = {0}, bottom[] = {0};
  target->DoFlat(src.get(), p1, p2, slope, level, bottom, 0, nullptr, 0);
  EXPECT_EQ(target->GetPixelGrayRaw(7, 3, 0), 100);
  EXPECT_EQ(target->GetPixelGrayRaw(9, 3, 0), 96);
}

TEST(CImgSelfFlat, LevelsAVignetteUnderStars) {
  constexpr int kWidth = 1500, kHeight = 1100;
  for (const StoreCase& store : Stores()) {
    const auto src = Make<CVelImage>(store.make(), kWidth, kHeight, 1, [&](int, int x, int y) {
      const double r2 = (std::pow(x - 750.0, 2) + std::pow(y - 550.0, 2)) / (750.0 * 750 + 550 * 550);
      const double star = x % 200 > 90 && x % 200 < 100 && y % 170 > 40 && y % 170 < 50 ? 20000 : 0;
      return (1000 + star) * (1 - 0.3 * r2);
    });
    src->SetLevel(0, 0, 4000);
    const auto target = Make<CImgSelfFlat>(store.make(), kWidth, kHeight, 1, Random(0, 1));
    target->Do(0.1, 1, src.get(), nullptr, 0);
    const auto local = [&](int left, int top) {
      std::vector<float> pixels;
      for (int y = top; y < top + 31; ++y) {
        for (int x = left; x < left + 31; ++x) {
          pixels.push_back(target->GetPixelGrayRaw(x, y, 0));
        }
      }
      std::nth_element(pixels.begin(), pixels.begin() + pixels.size() / 2, pixels.end());
      return pixels[pixels.size() / 2];
    };
    // Corners were a quarter darker than the middle.
    const double middle = local(740, 540);
    for (const auto& [x, y] :
         {std::pair(100, 100), {1350, 90}, {120, 950}, {1360, 960}, {700, 100}, {400, 300}}) {
      EXPECT_NEAR(local(x, y) / middle, 1, 0.01) << store.name << " at " << x << ", " << y;
    }
  }
  // Too small for a cell: nothing is done.
  const auto small = Make<CVelImage>(MemoryStore(), 9, 9, 1, Random(1, 2));
  const auto target = Make<CImgSelfFlat>(MemoryStore(), 9, 9, 1, Random(0, 1));
  target->Do(0.3, 1, small.get(), nullptr, 0);
  EXPECT_EQ(Difference(*target, Random(0, 1), 1e-6), "");
}

}  // namespace
