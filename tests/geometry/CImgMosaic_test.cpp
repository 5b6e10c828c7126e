#include "korimg/geometry/CImgMosaic.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// A bilinear read at a real place; false outside.
bool Sample(CVelImage& image, double x, double y, int p, double& value) {
  const int w = image.GetWidth(), h = image.GetHeight();
  if (!(x >= 0 && x < w && y >= 0 && y < h)) return false;
  x = std::min(x, w - 1.0);
  y = std::min(y, h - 1.0);
  const int ix = static_cast<int>(x), iy = static_cast<int>(y), jx = std::min(ix + 1, w - 1),
            jy = std::min(iy + 1, h - 1);
  const double a = x - ix, b = y - iy;
  value = (1 - a) * (1 - b) * image.GetPixelGrayRaw(ix, iy, p) +
          a * (1 - b) * image.GetPixelGrayRaw(jx, iy, p) + (1 - a) * b * image.GetPixelGrayRaw(ix, jy, p) +
          a * b * image.GetPixelGrayRaw(jx, jy, p);
  return true;
}

struct Case {
  int mode, use256, average;
  double angle;
};

TEST(CImgMosaic, JoinsByItsModes) {
  constexpr int kWidth = 43, kHeight = 37;
  const Case cases[] = {{0, 0, 0, 0},  {1, 0, 0, 0},   {2, 0, 0, 30}, {3, 0, 0, -75},
                        {9, 0, 0, 0},  {0, 0, 1, 12},  {0, 1, 0, 45}, {1, 1, 0, 0},
                        {2, 1, 0, 90}, {3, 1, 0, 200}, {7, 1, 1, 0}};
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int planes : {1, 3}) {
      const auto first = Make(store, 29, 31, planes, Random(100, 900));
      // Half of the second is its see-through value, give or take a little.
      const auto second = Make(store, 23, 19, planes, [](int p, int x, int y) {
        return x % 8 < 4 ? 500 + 0.1 * (y % 3) : Random(100, 900, 5)(p, x, y);
      });
      second->SetStdCtr(11.5, 9.0);
      for (int p = 0; p < planes; ++p) {
        second->SetLevel(p, 90, 800 + 30 * p);
      }
      for (const Case& c : cases) {
        for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(5, 3, 30, kHeight + 4))}) {
          const auto image = Make<CImgMosaic>(store, kWidth, kHeight, planes, Random(0, 1, 7));
          float transparent[] = {500, 500, 500}, fill[] = {7, 8, 9};
          image->Do(first.get(), 3, -2, second.get(), 15.25, 12.5, c.angle, c.mode, transparent, fill,
                    c.use256, c.average, Address(rect), 0);
          const double radians = c.angle * std::numbers::pi / 180, sin = std::sin(radians),
                       cos = std::cos(radians);
          const auto expected = [&](int p, int x, int y) -> double {
            if (rect && (x < rect->left || x >= rect->right || y < rect->top)) {
              return static_cast<float>(Random(0, 1, 7)(p, x, y));
            }
            const auto scaled = [&](CVelImage& from, double v) {
              return c.use256 ? (v - from.GetLevelMin(p)) / from.GetLevelRange(p) * 255 : v;
            };
            double s = 0, t = 0;
            const bool hasS = Sample(*first, x - 3, y + 2, p, s);
            // Turned clockwise about the centre, with y down.
            const double u = x - 15.25 - 11.5, v = y - 12.5 - 9.0;
            const bool hasT = Sample(*second, u * cos + v * sin + 11.5, v * cos - u * sin + 9.0, p, t);
            s = hasS ? scaled(*first, s) : fill[p];
            t = hasT ? scaled(*second, t) : fill[p];
            const double see = scaled(*image, 500);
            const double tolerance = c.use256 ? 1.0 : image->GetLevelRange(0) / 256;
            double r = t;
            if (c.average) {
              r = (s + t) / 2;
            } else if (!hasT) {
              r = s;
            } else if (!hasS) {
              r = t;
            } else if (c.mode == 1) {
              r = std::abs(see - t) < tolerance ? s : t;
            } else if (c.mode == 2) {
              r = std::max(s, t);
            } else if (c.mode == 3) {
              r = std::min(s, t);
            }
            return c.use256 ? r / 255 * image->GetLevelRange(p) + image->GetLevelMin(p) : r;
          };
          ASSERT_EQ(Difference(*image, expected, 1e-4), "")
              << "mode " << c.mode << ", 256 " << c.use256 << ", average " << c.average << ", angle "
              << c.angle;
        }
      }
    }
  }
}

}  // namespace
