#include "korimg/filters/CImgFilter.h"

#include <gtest/gtest.h>

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

struct Filter : CImgFilter {
  using CImgFilter::CalcRect;
  using CImgFilter::CalcShift;
};

/// Whether a mode's neighbourhood has the cell.
bool Has(int mode, int dx, int dy) {
  const int a = std::abs(dx), b = std::abs(dy);
  return mode == 0   ? a + b <= 1
         : mode == 1 ? a <= 1 && b <= 1
         : mode == 2 ? a <= 2 && b <= 2 && a + b < 4
                     : a + b == 0;
}

/// The cells of a mode: beyond the left and right edges the cell on the other side of the pixel.
void Cells(CVelImage& src, int mode, int p, int x, int y, const std::function<void(int, int, double)>& cell) {
  for (int dy = -2; dy <= 2; ++dy) {
    for (int dx = -2; dx <= 2; ++dx) {
      if (!Has(mode, dx, dy)) continue;
      int column = x + dx;
      if (column < 0 || column >= src.GetWidth()) column = x - dx;
      cell(dx, dy,
           src.GetPixelGrayRaw(Nearest(column, src.GetWidth()), BottomRepeated(y + dy, src.GetHeight()), p));
    }
  }
}

std::vector<float> SortedCells(CVelImage& src, int mode, int p, int x, int y) {
  std::vector<float> values;
  Cells(src, mode, p, x, y, [&](int, int, double v) { values.push_back(static_cast<float>(v)); });
  std::sort(values.begin(), values.end(), Before);
  return values;
}

double Laplacian(CVelImage& src, double black, int mode, int p, int x, int y) {
  const double c = src.GetPixelGrayRaw(x, y, p);
  double sum = mode == 0 || mode == 1 || mode == 2 ? 0 : c;
  Cells(src, mode == 2 ? 1 : mode, p, x, y, [&](int dx, int dy, double v) {
    if (mode == 2) sum += (dx ? 1 : -2) * (dy ? 1 : -2) * v;
    if (mode < 2) sum += c - v;
  });
  return std::abs(sum) + black;
}

double Mean(CVelImage& src, int mode, double weight, int p, int x, int y) {
  double sum = 0, weights = 0;
  Cells(src, mode, p, x, y, [&](int dx, int dy, double v) {
    const double w = dx || dy ? weight : 1;
    sum += w * v;
    weights += w;
  });
  return sum / weights;
}

TEST(CImgFilter, FiltersBySmallNeighbourhoods) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& size : {std::pair(1, 1), {2, 1}, {3, 2}, {65, 1}, {1, 71}, {71, 40}}) {
      const int width = size.first, height = size.second;
      const auto src = Make(store.make(), width, height, 3, Random(1, 1000));
      for (const int mode : {0, 1, 2, 3}) {
        OptionalRect rect;
        if (mode == 1) rect = CRect(1, 0, width, height);
        const auto check = [&](auto&& run, const PixelRule& expected, double tolerance, const char* what) {
          const auto target = Make<CImgFilter>(src->VmManager(), width, height, 3, Random(0, 1, 7));
          run(*target);
          const auto want = [&](int p, int x, int y) -> double {
            return IsInside(rect, x, y) ? expected(p, x, y) : static_cast<float>(Random(0, 1, 7)(p, x, y));
          };
          ASSERT_EQ(Difference(*target, want, tolerance), "")
              << what << " " << mode << " " << store.name << " " << width << "x" << height;
        };
        double black = 0;  // the target's
        const auto edges = [&](CImgFilter& t) {
          black = t.GetLevelMin(0);
          t.LaplacianFilter(mode, src.get(), Address(rect), 0);
        };
        check(
            edges, [&](int p, int x, int y) { return Laplacian(*src, black, mode, p, x, y); }, 1e-5,
            "laplacian");
        check([&](CImgFilter& t) { t.MedianFilter(mode, src.get(), Address(rect), 0); },
              [&](int p, int x, int y) {
                const auto sorted = SortedCells(*src, mode, p, x, y);
                return sorted[sorted.size() / 2];
              },
              0, "median");
        check([&](CImgFilter& t) { t.MinMaxFilter(mode, 3, src.get(), Address(rect), 0); },
              [&](int p, int x, int y) {
                const auto sorted = SortedCells(*src, mode, p, x, y);
                return sorted[std::min<size_t>(3, sorted.size() - 1)];
              },
              0, "rank");
        check([&](CImgFilter& t) { t.UnSharpMask(1.5, mode, 0.5, 0.2, src.get(), Address(rect), 0); },
              [&](int p, int x, int y) -> double {
                const double c = src->GetPixelGrayRaw(x, y, p);
                const bool differs = std::abs(Mean(*src, mode, 1, p, x, y) / c - 1) >= 0.2;
                return differs ? (c - Mean(*src, mode, 0.5, p, x, y)) * 1.5 + c : c;
              },
              3e-4, "unsharp");
      }
    }
  });
}

TEST(CImgFilter, GivesValuesOfOnePixel) {
  const auto image = Make<CImgFilter>(TinyPool(), 11, 9, 2, Random(100, 900));
  for (const auto& [x, y] : {std::pair(0, 0), {1, 4}, {10, 8}, {5, 5}}) {
    for (const int mode : {0, 1, 2, 5}) {
      const double mean = Mean(*image, mode, 0.25, 1, x, y), min = image->GetLevelMin(1);
      EXPECT_NEAR(image->GetMeanRaw(x, y, mode, 0.25, 1), mean, 1e-3);
      EXPECT_NEAR(image->GetMeanGray(x, y, mode, 0.25, 1), mean - min, 1e-3);
      EXPECT_NEAR(image->GetMean256f(x, y, mode, 0.25, 1), (mean - min) / image->GetLevelRange(1) * 255,
                  1e-3);
      const auto sorted = SortedCells(*image, mode, 1, x, y);
      EXPECT_EQ(image->GetMedianRaw(x, y, mode, 1), sorted[sorted.size() / 2]);
      EXPECT_NEAR(image->GetLaplacianGray(x, y, mode, 1), Laplacian(*image, 0, mode, 1, x, y), 1e-2);
    }
    double sum = 0;
    Around(*image, 1, x, y, 1, Nearest, Nearest, [&](int, int, double v) { sum += v; });
    EXPECT_NEAR(image->HighPassRaw(x, y, 1), std::abs(9 * image->GetPixelGrayRaw(x, y, 1) - sum), 1e-2);
  }
  EXPECT_EQ(CImgFilter::GetMeanR(0), 1);
  EXPECT_EQ(CImgFilter::GetMeanR(2), 2);
  EXPECT_EQ(CImgFilter::GetMeanR(-1), 0);
}

TEST(CImgFilter, WorkImagesHaveMirroredMargins) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height, margin] :
         {std::tuple(10, 10, 0), {3, 5, 2}, {4, 2, 9}, {1, 1, 3}, {5, 3, 11}, {4, 7, 30}}) {
      for (const int planes : {1, 3}) {
        const auto image = Make<CImgFilter>(store.make(), width, height, planes, Random(0, 1000));
        const std::unique_ptr<CVelImage> work(image->MakeFilterWork(margin, 0)),
            dd(image->MakeDDWork(margin, 0));
        const int r = margin ? margin : 2;
        ASSERT_EQ(work->GetWidth(), width + 2 * r);
        ASSERT_EQ(work->GetPlanes(), planes);
        ASSERT_EQ(dd->GetPlanes(), planes == 3 ? 4 : 1);
        EXPECT_EQ(work->GetLevelMax(planes - 1), image->GetLevelMax(planes - 1));
        const auto pixel = [&, w = width, h = height](int p, int x, int y) -> double {
          return image->GetPixelGrayRaw(BottomRepeated(x - r, w), BottomRepeated(y - r, h), p);
        };
        EXPECT_EQ(Difference(*work, pixel, 0), "") << store.name << width;
        const auto brightness = [&](int p, int x, int y) {
          return p < 3 ? pixel(p, x, y) : (pixel(0, x, y) + pixel(1, x, y) + pixel(2, x, y)) / 3;
        };
        EXPECT_EQ(Difference(*dd, brightness, 1e-4), "") << store.name << width;
      }
    }
  }
  EXPECT_EQ(CImgFilter().MakeFilterWork(0, 0), nullptr);
  const auto image = Make<CImgFilter>(MemoryStore(), 10, 10, 1, Random(0, 1));
  for (const int margin : {-1, -6, 2147483647, 1 << 30}) {
    EXPECT_EQ(image->MakeFilterWork(margin, 0), nullptr) << margin;
    EXPECT_EQ(image->MakeDDWork(margin, 0), nullptr) << margin;
  }
}

TEST(CImgFilter, LimitsRectanglesAndCentresImages) {
  const auto image = Make<Filter>(MemoryStore(), 20, 10, 1, Random(0, 1));
  int left, top, right, bottom, dx = -7, dy = -7;
  CRect rect(25, -3, 5, 99);
  image->CalcRect(left, top, right, bottom, &rect);
  EXPECT_EQ(std::tuple(left, top, right, bottom), std::tuple(20, 0, 5, 10));
  image->CalcRect(left, top, right, bottom, nullptr);
  EXPECT_EQ(std::tuple(left, top, right, bottom), std::tuple(0, 0, 20, 10));
  const auto small = Make(MemoryStore(), 20, 10, 1, Random(0, 1)),
             large = Make(MemoryStore(), 26, 8, 1, Random(0, 1));
  image->CalcShift(dx, dy, 0, small.get());
  EXPECT_EQ(std::tuple(dx, dy), std::tuple(-7, -7));
  image->CalcShift(dx, dy, 0, large.get());
  EXPECT_EQ(std::tuple(dx, dy), std::tuple(3, -1));
}

}  // namespace
