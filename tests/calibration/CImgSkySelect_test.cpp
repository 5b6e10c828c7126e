// Clean sky, against a search that is written out.
#include "korimg/calibration/CImgSkySelect.h"

#include <algorithm>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "korimg/measurement/CImgPixelInfo.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

struct Square {
  int x, y;
  double deviation, median;
};

/// Squares of an area but for those with their corner in the hole, with the measures of CImgPixelInfo.
std::vector<Square> SquaresOf(CVelImage& image, int size, int stride, const CRect& area,
                              const std::optional<CRect>& hole) {
  CImgPixelInfo info;
  info.Swap(&image);
  std::vector<Square> squares;
  for (int y = area.top; y + stride < area.bottom; y += stride) {
    for (int x = area.left; x + stride < area.right; x += stride) {
      if (hole && x >= hole->left && x < hole->right && y >= hole->top && y < hole->bottom) continue;
      double min[3], max[3], mean[3], sd[3], median[3];
      info.Calc(CRect(x, y, x + size, y + size), min, max, mean, sd, median);
      Square square{x, y, 0, 0};
      for (int p = 0; p < info.GetPlanes(); ++p) {
        square.deviation += sd[p] / info.GetPlanes();
        square.median += median[p] / info.GetPlanes();
      }
      squares.push_back(square);
    }
  }
  info.Swap(&image);
  return squares;
}

/// The upper middle one, NaN last.
double MiddleOf(const std::vector<Square>& squares, double Square::*member) {
  std::vector<double> values;
  for (const Square& square : squares) {
    values.push_back(std::isnan(square.*member) ? INFINITY : square.*member);
  }
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// A sky that grows brighter and noisier to the right, with stars; the upper left corner is clean.
double Sky(int p, int x, int y) {
  const double noise = Random(-1, 1)(p, x, y) * (4 + x / 40.0);
  const bool star = x > 60 && (x * 37 + y * 91) % 501 == 0;
  return 200 + 30 * p + x * 0.05 + noise + (star ? 300 : 0);
}

double SkyWithNaN(int p, int x, int y) {
  return (x + 3 * y) % 97 == 0 && x > 300 ? NAN : Sky(p, x, y);
}

TEST(CImgSkySelect, MeasuresSquares) {
  OnEveryPath([](const StoreCase& store) {
    for (const PixelRule& rule : {PixelRule(Sky), PixelRule(SkyWithNaN)}) {
      for (const int planes : {1, 3}) {
        const auto image = Make<CImgSkySelect>(store.make(), 420, 200, planes, rule);
        for (const auto& [size, area, hole] : {std::tuple(8, CRect(0, 0, 420, 200), CRect(96, 48, 208, 112)),
                                               {8, CRect(-50, -10, 300, 900), CRect(0, 0, 0, 0)},
                                               {5, CRect(31, 17, 82, 78), CRect(-10, -10, 45, 35)},
                                               {16, CRect(0, 0, 97, 97), CRect(0, 0, 0, 0)}}) {
          const CRect within(std::max(area.left, 0), std::max(area.top, 0), std::min(area.right, 420),
                             std::min(area.bottom, 200));
          const auto squares = SquaresOf(*image, size, size * 2, within, hole);
          CRect a = area, h = hole;
          double deviation = -1, median = -1;
          ASSERT_EQ(image->CalcStddevMedian(size, &a, &h, &deviation, &median, 0), 1);
          EXPECT_DOUBLE_EQ(deviation, MiddleOf(squares, &Square::deviation)) << store.name << " " << size;
          EXPECT_DOUBLE_EQ(median, MiddleOf(squares, &Square::median)) << store.name << " " << size;
        }
      }
    }
  });
}

TEST(CImgSkySelect, FindsTheFirstCleanSquare) {
  OnEveryPath([](const StoreCase& store) {
    const auto image = Make<CImgSkySelect>(store.make(), 420, 200, 3, SkyWithNaN);
    const CRect all(0, 0, 420, 200), hole(0, 0, 40, 100);
    for (const int size : {8, 16, 32}) {
      const auto squares = SquaresOf(*image, size, size, all, hole);
      for (const double deviation : {3.0, 5.0, 20.0, static_cast<double>(NAN)}) {
        for (const double median : {231.0, 238.0, 300.0}) {
          const auto first = std::find_if(squares.begin(), squares.end(), [&](const Square& square) {
            return square.deviation <= deviation && square.median <= median;
          });
          CRect a = all, h = hole, out(1, 2, 3, 4);
          const int found = image->Do(size, &a, &h, deviation, median, &out, 0);
          ASSERT_EQ(found, first != squares.end()) << size << " " << deviation << " " << median;
          const CRect want =
              found ? CRect(first->x, first->y, first->x + size, first->y + size) : CRect(1, 2, 3, 4);
          EXPECT_EQ(out, want) << size << " " << deviation << " " << median;
        }
      }
    }
  });
}

TEST(CImgSkySelect, TakesTheLargestCleanSquareOutsideBorderAndMiddle) {
  // On a slope, the larger a square, the larger its deviation; a patch is dark and even.
  const auto sky = [](const CRect& patch) {
    return [patch](int p, int x, int y) {
      const bool clean = x >= patch.left && x < patch.right && y >= patch.top && y < patch.bottom;
      return (p + 1) * (clean ? 10 + (x + y) % 2 : 300 + 3.0 * x);
    };
  };
  struct Case {
    int width, height;
    CRect patch;
    std::optional<CRect> found;
  };
  for (const Case& c :
       std::vector<Case>{{800, 640, CRect(228, 80, 500, 340), CRect(228, 80, 356, 208)},    // of 128
                         {800, 640, CRect(164, 144, 290, 270), CRect(164, 144, 228, 208)},  // of 64
                         {800, 640, CRect(132, 112, 170, 150), CRect(132, 112, 164, 144)},  // of 32
                         {800, 640, CRect(0, 0, 100, 640), std::nullopt},                   // the border
                         {800, 640, CRect(300, 240, 340, 400), std::nullopt},               // the middle
                         {7, 9, CRect(0, 0, 7, 9), std::nullopt},
                         {30, 20, CRect(0, 0, 30, 20), std::nullopt}}) {
    for (const StoreCase& store : Stores()) {
      const auto image = Make<CImgSkySelect>(store.make(), c.width, c.height, 3, sky(c.patch));
      CRect out(1, 2, 3, 4);
      EXPECT_EQ(image->AutoSelect(&out, 0), c.found.has_value()) << store.name << " " << c.patch.left;
      EXPECT_EQ(out, c.found.value_or(CRect(1, 2, 3, 4)))
          << store.name << " " << c.patch.left << " got " << out.left << "," << out.top << "," << out.right;
    }
  }
}

}  // namespace
