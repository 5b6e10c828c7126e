#include "korimg/filters/CImgFilterBlur.h"

#include <gtest/gtest.h>

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

constexpr double kSigma[] = {1.3, 0.0, 5.0};

double Gaussian(CVelImage& src, bool paged, int p, int x, int y) {
  return Separable(src, GaussianRow(kSigma[p]), p, x, y, paged ? BottomRepeated : Interior,
                   paged ? Nearest : Interior);
}

TEST(CImgFilterBlur, Gaussian) {
  CheckFilter<CImgFilterBlur>(
      [](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        double sigma[3];
        std::copy_n(kSigma, 3, sigma);
        target.GaussianFilter(sigma, &src, rect, 0);
      },
      Gaussian, 2e-6);
}

TEST(CImgFilterBlur, GaussianOfABand) {
  CheckFilter<CImgFilterBlur>(
      [](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        double sigma[3];
        std::copy_n(kSigma, 3, sigma);
        TestBand b;
        target.GaussianFilter(sigma, b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight,
                              b.highlightRange, &src, rect, 0);
      },
      [](CVelImage& src, bool paged, int p, int x, int y) {
        return TestBand()(src, p, src.GetPixelGrayRaw(x, y, p), Gaussian(src, paged, p, x, y));
      },
      1e-5);
}

TEST(CImgFilterBlur, TheBandAtItsLimits) {
  // Levels 0 to 255; one bright pixel, so that the filtered value differs from the pixel.
  for (const StoreCase& store : Stores()) {
    for (const auto& [s, share] : {std::pair(79.0, 0.0),
                                   {80.0, 0.0},
                                   {90.0, 0.5},
                                   {100.0, 1.0},
                                   {150.0, 1.0},
                                   {200.0, 1.0},
                                   {205.0, 0.75},
                                   {220.0, 0.0},
                                   {221.0, 0.0}}) {
      const auto src =
          Make(store.make(), 9, 9, 1, [s = s](int, int x, int y) { return x == 3 && y == 4 ? 4000 : s; });
      src->SetLevel(0, 0, 255);
      const auto plain = Make<CImgFilterBlur>(src->VmManager(), 9, 9, 1, Random(0, 1)),
                 band = Make<CImgFilterBlur>(src->VmManager(), 9, 9, 1, Random(0, 1)),
                 open = Make<CImgFilterBlur>(src->VmManager(), 9, 9, 1, Random(0, 1));
      plain->GaussianFilter(1.0, src.get(), nullptr, 0);
      band->GaussianFilter(1.0, 1, 100, 20, 1, 200, 20, src.get(), nullptr, 0);
      open->GaussianFilter(1.0, 0, 100, 20, 0, 200, 20, src.get(), nullptr, 0);
      EXPECT_EQ(Difference(*open, *plain), "") << store.name;
      const double f = plain->GetPixelGrayRaw(4, 4, 0);
      EXPECT_NEAR(band->GetPixelGrayRaw(4, 4, 0), (1 - share) * s + share * f, 1e-3) << store.name << s;
    }
  }
}

TEST(CImgFilterBlur, MeanIsASquareAndOfABandADisc) {
  double r[] = {2.0, 3.9, 0.0}, weight[] = {1.0, 0.5, 1.0};
  const auto square = [&](CVelImage& src, bool, int p, int x, int y) {
    const int half = std::trunc(r[p]), reach = std::max(2 * half, 1);
    std::vector<double> row(2 * reach + 1);
    for (int d = -half; d <= half; ++d) {
      row[reach + d] = (d == 0 ? 1 : weight[p]) / (1 + 2 * half * weight[p]);
    }
    return Separable(src, row, p, x, y, BottomRepeated, Nearest);
  };
  const auto disc = [&](CVelImage& src, bool, int p, int x, int y) {
    double sum = 0, weights = 0;
    Around(src, p, x, y, std::max<int>(r[p], 1), Folded, Nearest, [&](int dx, int dy, double pixel) {
      if (!Disc(r[p])(dx, dy)) return;
      const double w = dx == 0 && dy == 0 ? 1 : weight[p];
      sum += w * pixel;
      weights += w;
    });
    return TestBand()(src, p, src.GetPixelGrayRaw(x, y, p), sum / weights);
  };
  CheckFilter<CImgFilterBlur>([&](CImgFilterBlur& target, CVelImage& src,
                                  CRect* rect) { target.MeanFilter(r, weight, &src, rect, 0); },
                              square, 2e-6);
  CheckFilter<CImgFilterBlur>(
      [&](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        TestBand b;
        target.MeanFilter(r, weight, b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight,
                          b.highlightRange, &src, rect, 0);
      },
      disc, 1e-5);
}

TEST(CImgFilterBlur, MeanWithoutEdgeKeepsEdges) {
  double r[] = {1.0, 2.0, 0.5}, weight[] = {1.0, 0.5, 1.0};
  const auto levels = Make<CImgFilterBlur>(MemoryStore(), 1, 1, 3, Random(0, 1));  // of all targets
  const auto filtered = [&](CVelImage& src, int p, int x, int y) {
    const int reach = std::max<int>(r[p], 1);
    std::vector<double> mean(2 * reach + 1), edge(2 * reach + 1);
    int cells = 0;
    double meanSum = 0, edgeSum = 0;
    for (int d = -reach; d <= reach; ++d) {
      for (int e = -reach; e <= reach; ++e) {
        cells += (d || e) && d * d + e * e <= r[p];
      }
    }
    for (int d = -reach; d <= reach; ++d) {
      mean[reach + d] = d == 0 ? 1 : Disc(r[p])(d, 0) ? weight[p] : 0;
      edge[reach + d] = d == 0 ? cells : d * d <= r[p] ? -1 : 0;
      meanSum += mean[reach + d];
      edgeSum += edge[reach + d];
    }
    for (int i = 0; i <= 2 * reach; ++i) {
      mean[i] /= meanSum;
      edge[i] /= edgeSum != 0 ? edgeSum : 1;
    }
    const double e = Separable(src, edge, p, x, y, BottomRepeated, Nearest);
    const double q = std::clamp(e / levels->GetLevelRange(p), 0.0, 1.0);
    return (1 - q * q) * Separable(src, mean, p, x, y, BottomRepeated, Nearest) +
           q * q * src.GetPixelGrayRaw(x, y, p);
  };
  CheckFilter<CImgFilterBlur>(
      [&](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        target.MeanWithoutEdgeFilter(r, weight, &src, rect, 0);
      },
      [&](CVelImage& src, bool, int p, int x, int y) { return filtered(src, p, x, y); }, 1e-5);
  CheckFilter<CImgFilterBlur>(
      [&](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        TestBand b;
        target.MeanWithoutEdgeFilter(r, weight, b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight,
                                     b.highlightRange, &src, rect, 0);
      },
      [&](CVelImage& src, bool, int p, int x, int y) {
        return TestBand()(src, p, src.GetPixelGrayRaw(x, y, p), filtered(src, p, x, y));
      },
      1e-5);
}

/// Element n / 2 of the disc's pixels inside the image.
float Median(CVelImage& src, double r, int p, int x, int y) {
  const auto sorted = Sorted(src, p, x, y, std::max<int>(r, 1), Nearest, Nearest, [&](int dx, int dy) {
    return Disc(r)(dx, dy) && x + dx >= 0 && x + dx < src.GetWidth() && y + dy >= 0 &&
           y + dy < src.GetHeight();
  });
  return sorted[sorted.size() / 2];
}

TEST(CImgFilterBlur, MedianEqualsSorting) {
  for (const StoreCase& store : Stores()) {
    // Few values, so that many are equal; NaN and infinities among them; and tiles of several widths.
    const PixelRule rule = [wild = Wild(-3, 9)](int p, int x, int y) { return std::round(wild(p, x, y)); };
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {530, 3}, {1, 71}, {75, 99}}) {
      const auto src = Make(store.make(), width, height, 3, rule);
      for (double r : {0.5, 1.0, 2.0, 3.0, 4.5, 6.0, 9.0, 45.0}) {
        if (r > 10 && width > 3) continue;
        const WithThreads team(r > 2 ? 8 : 1);
        const auto target = Make<CImgFilterBlur>(src->VmManager(), width, height, 3, Random(0, 1));
        double radii[] = {r, r, 1.0};
        target->MedianFilter(radii, src.get(), nullptr, 0);
        ASSERT_EQ(Difference(
                      *target, [&](int p, int x, int y) { return Median(*src, radii[p], p, x, y); }, 0),
                  "")
            << store.name << " " << width << "x" << height << " r " << r;
      }
    }
  }
}

TEST(CImgFilterBlur, MedianOfABandAndAWindow) {
  CheckFilter<CImgFilterBlur>(
      [](CImgFilterBlur& target, CVelImage& src, CRect* rect) {
        TestBand b;
        double r[] = {1.5, 4.0, 2.0};
        target.MedianFilter(r, b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight, b.highlightRange,
                            &src, rect, 0);
      },
      [](CVelImage& src, bool, int p, int x, int y) {
        const double r[] = {1.5, 4.0, 2.0};
        return TestBand()(src, p, src.GetPixelGrayRaw(x, y, p), Median(src, r[p], p, x, y));
      },
      1e-5);
}

TEST(CImgFilterBlur, NanStaysNearAndNothingHangs) {
  for (const StoreCase& store : Stores()) {
    const auto src =
        Make(store.make(), 60, 40, 1, [](int, int x, int y) { return x == 30 && y == 20 ? NAN : 5.0; });
    const auto target = Make<CImgFilterBlur>(src->VmManager(), 60, 40, 1, Random(0, 1));
    const auto check = [&](int reach, const char* what) {
      for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 60; ++x) {
          const bool near = std::abs(x - 30) <= reach && std::abs(y - 20) <= reach;
          const float value = target->GetPixelGrayRaw(x, y, 0);
          ASSERT_TRUE(near || std::abs(value - 5) < 1e-5) << what << " " << x << " " << y << " " << value;
        }
      }
    };
    target->GaussianFilter(2.0, src.get(), nullptr, 0);
    EXPECT_TRUE(std::isnan(target->GetPixelGrayRaw(31, 20, 0)));
    check(6, "gaussian");
    target->ClearFilterProc();
    target->MeanFilter(3.0, 1.0, src.get(), nullptr, 0);
    check(6, "mean");
    target->MedianFilter(3.0, src.get(), nullptr, 0);
    check(0, "median");
  }
}

TEST(CImgFilterBlur, PlanesThatDoNotFitAreLeftAlone) {
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 1000));
  const auto target = Make<CImgFilterBlur>(MemoryStore(), 9, 8, 1, Random(0, 1, 7));
  target->GaussianFilter(1.0, src.get(), nullptr, 0);
  target->MedianFilter(1.0, src.get(), nullptr, 0);
  EXPECT_EQ(
      Difference(
          *target, [&](int p, int x, int y) { return static_cast<float>(Random(0, 1, 7)(p, x, y)); }, 0),
      "");
}

}  // namespace
