// Rings of filtered rows, windows of rows, sortable pixels.
#include <gtest/gtest.h>

#include "korimg/filters/CFilterBlock.h"
#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/CPixelSort.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

/// A kernel with nothing symmetric about it.
CFilterMatrix Lopsided(int r) {
  CFilterMatrix matrix(r, 0);
  for (int dy = -r; dy <= r; ++dy) {
    for (int dx = -r; dx <= r; ++dx) {
      *matrix.GetMtxPtr(dx, dy) = static_cast<float>(Noise((dy + 50) * 101 + dx) + 0.1);
    }
  }
  return matrix;
}

/// The middle row applied along both axes.
double Separable(CVelImage& image, const CFilterMatrix& m, bool normalize, int p, int x, int y) {
  double result = 0, sum = 0;
  for (int dx = -m.GetR(); dx <= m.GetR(); ++dx) {
    sum += m.GetPrm(dx, 0);
  }
  if (!normalize) sum = 1;
  Around(image, p, x, y, m.GetR(), BottomRepeated, Nearest, [&](int dx, int dy, double pixel) {
    result += m.GetPrm(dx, 0) / sum * m.GetPrm(dy, 0) / sum * pixel;
  });
  return result;
}

TEST(CFilterProc, FiltersByTheMiddleRowAlongBothAxes) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& size : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {41, 57}}) {
      const int width = size.first, height = size.second;
      for (const int r : {1, 3, 10}) {
        const auto src = Make(store.make(), width, height, 2, Random(-5, 30));
        const CFilterMatrix matrix = Lopsided(r);
        const bool normalize = r != 3;
        CFilterProc proc;
        proc.MakeBuf(src.get(), &matrix, 1, normalize);
        // By lines on the team, and by pixels in an order that rises, jumps, repeats and steps back.
        std::vector<float> lines(1LL * width * height);
#pragma omp parallel for schedule(static)
        for (int y = 0; y < height; ++y) {
          proc.CalcLine(0, width, y, &lines[1LL * y * width]);
        }
        std::vector<int> rows;
        for (const int y : {0, 1, 3, 3, 2, 2 + r, 5 + 4 * r, height - 1, 0, height / 2}) {
          if (y < height) rows.push_back(y);
        }
        for (const int y : rows) {
          for (int x = 0; x < width; ++x) {
            const double expected = Separable(*src, matrix, normalize, 1, x, y);
            ASSERT_NEAR(proc.Calc(x, y), expected, 1e-5 * std::max(1.0, std::abs(expected)))
                << store.name << " " << width << "x" << height << " r " << r << " at " << x << ", " << y;
            ASSERT_EQ(proc.Calc(x, y), lines[1LL * y * width + x]);
          }
        }
      }
    }
  });
}

TEST(CFilterProc, RowsAndColumnsBeyondTheEdges) {
  // A kernel that fetches the pixel two rows up and two columns to the left, and one that goes the other way.
  const auto src = Make(MemoryStore(), 3, 4, 1, [](int, int x, int y) { return 10 * y + x; });
  CFilterMatrix back(2, 0), ahead(2, 0);
  *back.GetMtxPtr(-2, 0) = 1;
  *ahead.GetMtxPtr(2, 0) = 1;
  CFilterProc b(src.get(), &back, 0), a(src.get(), &ahead, 0);
  EXPECT_EQ(b.Calc(1, 0), 20) << "above the first row comes the second";
  EXPECT_EQ(b.Calc(1, 1), 10);
  EXPECT_EQ(a.Calc(1, 2), 32) << "below the last row comes the last";
  EXPECT_EQ(a.Calc(0, 3), 22);
}

TEST(CFilterProc, CopiesAndEmptyOnesAreSafe) {
  const auto src = Make(TinyPool(), 9, 7, 1, Random(0, 9));
  const CFilterMatrix matrix = Lopsided(1);
  CFilterProc a(src.get(), &matrix, 0), empty;
  {
    CFilterProc copy = a;
    EXPECT_EQ(copy.Calc(4, 4), a.Calc(4, 4));
    copy.Empty();
    EXPECT_TRUE(copy.IsEmpty());
  }
  EXPECT_FALSE(a.IsEmpty());
  EXPECT_NEAR(a.Calc(4, 4), Separable(*src, matrix, true, 0, 4, 4), 1e-5);
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_EQ(empty.Calc(0, 0), 0);
  CFilterMatrix hollow(1, 0);
  *hollow.GetMtxPtr(-1, 0) = 1, *hollow.GetMtxPtr(1, 0) = -1;
  EXPECT_TRUE(std::isfinite(CFilterProc(src.get(), &hollow, 0).Calc(3, 3))) << "a sum of 0 divides nothing";
}

TEST(CVelImage, PreparedFiltersKeepTheirWeights) {
  const auto src = Make(MemoryStore(), 9, 7, 3, Random(0, 9)),
             other = Make(MemoryStore(), 20, 30, 3, Random(5, 7));
  const CFilterMatrix first = Lopsided(1), second = Lopsided(2);
  CVelImage image;
  EXPECT_EQ(image.CalcFilterProc(3, 3), 0) << "nothing is prepared";
  EXPECT_EQ(image.MakeFilterProc(src.get(), &first, 1, 1), 1);
  EXPECT_EQ(image.MakeFilterProc(src.get(), &first, 3, 1), 0);
  EXPECT_EQ(image.MakeFilterProc(src.get(), &first, -1, 1), 0);
  const float before = image.CalcFilterProc(3, 3, 1);
  EXPECT_EQ(image.MakeFilterProc(other.get(), &second, 1, 1), 1);
  EXPECT_NEAR(image.CalcFilterProc(15, 3, 1), Separable(*other, first, true, 1, 15, 3), 1e-5)
      << "the old kernel on the new source";
  image.MakeFilterProc(src.get(), &second, 0, 1);
  image.SetFilterProcPln(1);
  image.MakeFilterProc(src.get(), &second, 1, 1);
  EXPECT_EQ(image.CalcFilterProc(3, 3), before);
  image.SetFilterProcPln(3);
  EXPECT_EQ(image.CalcFilterProc(3, 3), image.CalcFilterProc(3, 3, 0));
  image.MakeFilterProcEx(5, src.get(), &second, 2, 1);
  image.SetFilterProcPlnEx(5, 2);
  EXPECT_NEAR(image.CalcFilterProcEx(5, 3, 3), Separable(*src, second, true, 2, 3, 3), 1e-5);
  EXPECT_EQ(image.CalcFilterProcEx(5, 3, 3, 2), image.CalcFilterProcEx(5, 3, 3));
  image.ClearFilterProc();
  image.MakeFilterProc(src.get(), &second, 1, 1);
  EXPECT_NEAR(image.CalcFilterProc(3, 3, 1), Separable(*src, second, true, 1, 3, 3), 1e-5);
}

TEST(CFilterBlock, ConvolvesAndSortsInTwoDimensions) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& size : {std::pair(1, 1), {3, 2}, {97, 23}, {1, 9}}) {
      const int width = size.first, height = size.second;
      const auto src = Make(store.make(), width, height, 1, Random(-9, 30));
      for (const auto& radii : {std::pair(1, 1), {5, 5}, {3, 1}, {1, 3}}) {
        const int blockR = radii.first, matrixR = radii.second;
        const CFilterMatrix matrix = Lopsided(matrixR);
        CFilterMatrix mask;
        mask.MakeMask(matrixR, matrixR);
        const int r = std::min(blockR, matrixR);
        std::string failure;
#pragma omp parallel for schedule(static)
        for (int y = 0; y < height; ++y) {
          CFilterBlock block(src.get(), blockR, 0, y, 0, CImage::Locked);
          const int left = width / 3;
          std::vector<float> line(width);
          block.ConvolveLine(&matrix, left, width, line.data() + left);
          std::string wrong;
          for (int x = 0; x < width; ++x) {
            double sum = 0, clamped = 0;
            Around(*src, 0, x, y, r, Folded, Nearest, [&](int dx, int dy, double pixel) {
              sum += matrix.GetPrm(dx, dy) * pixel;
              clamped += matrix.GetPrm(dx, dy) * std::clamp(pixel, 0.0, 20.0);
            });
            const auto sorted = Sorted(*src, 0, x, y, r, Folded, Nearest, Disc(matrixR));
            const auto near = [](double a, double b) { return std::abs(a - b) < 1e-3; };
            const int last = static_cast<int>(sorted.size()) - 1;
            if (!near(block.Convolve(&matrix, x), sum)) wrong = "sum";
            if (x >= left && line[x] != block.Convolve(&matrix, x)) wrong = "line";
            if (!near(block.ConvolveClamped(&matrix, x, 0, 20), clamped)) wrong = "clamped";
            if (block.GetSorted(&mask, x, last) != sorted[last] ||
                block.GetSorted(&mask, x, 0) != sorted[0] || block.GetSorted(&mask, x, last + 1) != 0)
              wrong = "sorted";
          }
          if (!wrong.empty()) {
#pragma omp critical
            failure = wrong + " in row " + std::to_string(y);
          }
        }
        ASSERT_EQ(failure, "") << store.name << " " << width << "x" << height << " " << blockR << matrixR;
      }
    }
  });
}

TEST(CFilterBlock, KnowsItsBounds) {
  const auto src = Make(MemoryStore(), 9, 7, 1, [](int, int x, int y) { return 10 * y + x; });
  CFilterBlock block(src.get(), 1, 2, 3, 0, CImage::Locked), none(src.get(), 1, 0, 3, 1, CImage::Locked);
  CFilterBlock raw(src->GetLine(0, 0, 0), 9, 7, 1, 2, 3);
  for (CFilterBlock* b : {&block, &raw}) {
    EXPECT_EQ(b->GetPixel(2, 3), 32);
    EXPECT_EQ(b->GetPixel(8, 4), 48);
    for (const auto& [x, y] : {std::pair(1, 3), {9, 3}, {4, 1}, {4, 5}}) {
      EXPECT_EQ(b->GetPixel(x, y), 0) << x << " " << y;
    }
  }
  const CFilterMatrix matrix = Lopsided(1), point(0, 1);
  EXPECT_EQ(none.GetPixel(0, 3), 0);
  EXPECT_EQ(none.Convolve(&matrix, 0), 0);
  EXPECT_EQ(none.GetSorted(&matrix, 0, 0), 0);
  EXPECT_EQ(block.Convolve(&point, 0), 0) << "a radius of 0";
}

TEST(CFilterBlock, CellsOfZeroDoNotCountWhateverLiesUnderThem) {
  const auto src =
      Make(MemoryStore(), 9, 7, 1, [](int, int x, int y) { return x == 4 && y == 3 ? NAN : x + 10 * y; });
  CFilterMatrix cross;
  cross.MakeMean(1, 1.0, 1.0);
  for (const auto& [y, x] : {std::pair(2, 3), {2, 5}, {4, 3}, {4, 5}}) {
    const CFilterBlock block(src.get(), 1, 0, y, 0, CImage::Locked);
    float line[9];
    block.ConvolveLine(&cross, 0, 9, line);
    EXPECT_NEAR(block.Convolve(&cross, x), x + 10 * y, 1e-5);
    EXPECT_EQ(line[x], block.Convolve(&cross, x));
    EXPECT_TRUE(std::isnan(line[4]));
  }
}

TEST(CPixelSort, SortsByValueAndScattersEquals) {
  CPixelSort list;
  int x, y;
  float value;
  EXPECT_EQ(list.Get(0, &x, &y, &value), 0);
  list.SetSize(100);
  for (int i = 0; i < 105; ++i) {
    list.Add(i, 2 * i, i == 7 ? NAN : static_cast<float>((i * 37) % 3));
  }
  list.Sort();
  std::vector<float> values;
  std::vector<int> columns;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(list.Get(i, &x, &y, &value), 1);
    EXPECT_EQ(y, 2 * x);
    values.push_back(value);
    columns.push_back(x);
  }
  EXPECT_EQ(list.Get(100, &x, &y, &value), 0);
  EXPECT_TRUE(std::is_sorted(values.begin(), values.end(), Before));
  EXPECT_EQ(columns.back(), 7) << "NaN last";
  EXPECT_FALSE(std::is_sorted(columns.begin(), columns.begin() + 30)) << "equal values in no order of place";
}

}  // namespace
