#include "korimg/filters/CImgFilterMisc.h"

#include <gtest/gtest.h>

#include "korimg/filters/CFilterMatrix.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

float Rank(CVelImage& src, double r, int rank, int p, int x, int y, const EdgeRule& row,
           const EdgeRule& column) {
  const auto sorted = Sorted(src, p, x, y, std::max<int>(std::ceil(r), 1), row, column, Disc(r));
  return rank < static_cast<int>(sorted.size()) ? sorted[rank] : 0.0f;
}

PixelRule Rounded() {
  return [wild = Wild(-3, 9)](int p, int x, int y) { return std::round(wild(p, x, y)); };
}

TEST(CImgFilterMisc, CountsTheRanksOfADisc) {
  for (const auto& [r, count] : {std::pair(1.0, 5), {2.0, 13}, {1.5, 9}, {0.5, 1}, {0.0, 1}, {10.0, 317}}) {
    EXPECT_EQ(CImgFilterMisc().GetMinMaxFilterNmax(r), count) << r;
  }
}

TEST(CImgFilterMisc, MinimaAndMaximaOfEveryDisc) {
  for (const StoreCase& store : Stores()) {
    const WithThreads team(8);
    const bool paged = store.name == "paged";
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {47, 35}}) {
      const auto src = Make(store.make(), width, height, 1, Rounded());
      for (int radius = 1; radius <= 10; ++radius) {
        for (const bool largest : {false, true}) {
          for (double r : {radius - 0.5, radius + 0.0}) {
            const auto target = Make<CImgFilterMisc>(src->VmManager(), width, height, 1, Random(0, 1, 7));
            OptionalRect rect;
            if (width == 47 && radius % 2) rect = CRect(3, 2, 40, 35);
            int rank = largest ? target->GetMinMaxFilterNmax(r) - 1 : 0;
            target->MinMaxFilter(&r, &rank, src.get(), Address(rect), 0);
            // Pipelines take the whole radius, and mirror on both axes.
            const double disc = paged ? r : radius;
            const EdgeRule row = paged ? Folded : Interior, column = paged ? Nearest : Interior;
            const int place = paged || rank == 0 ? rank : target->GetMinMaxFilterNmax(radius) - 1;
            const auto want = [&](int p, int x, int y) -> double {
              return IsInside(rect, x, y) ? Rank(*src, disc, place, p, x, y, row, column)
                                          : static_cast<float>(Random(0, 1, 7)(p, x, y));
            };
            // NaN is the largest on both paths.
            ASSERT_EQ(Difference(*target, want, 0), "")
                << store.name << " " << width << "x" << height << " r " << r << (largest ? " max" : " min");
          }
        }
      }
    }
  }
}

TEST(CImgFilterMisc, AnyRankEqualsSorting) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {530, 2}, {1, 71}, {71, 90}}) {
      const auto src = Make(store.make(), width, height, 3, Rounded());
      struct Case {
        double r[3];
        int rank[3];
      };
      for (Case c : {Case{{1, 1.5, 2}, {2, 8, 0}}, Case{{3, 4, 0.3}, {14, 3, 0}},
                     Case{{5, 7, 1}, {40, 148, 5}}, Case{{12, 1, 1}, {200, 0, 0}}}) {
        const auto target = Make<CImgFilterMisc>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        target->MinMaxFilter(c.r, c.rank, src.get(), nullptr, 0);
        const auto want = [&](int p, int x, int y) {
          return Rank(*src, c.r[p], c.rank[p], p, x, y, Folded, Nearest);
        };
        ASSERT_EQ(Difference(*target, want, 0), "")
            << store.name << " " << width << "x" << height << " " << c.r[0];
      }
    }
  });
}

TEST(CImgFilterMisc, PipelinesPassOverLargeDiscs) {
  const auto src = Make(MemoryStore(), 30, 20, 1, Random(5, 9));
  const auto target = Make<CImgFilterMisc>(MemoryStore(), 30, 20, 1, Random(0, 1, 7));
  double r = 11;
  int rank = 0;
  target->MinMaxFilter(&r, &rank, src.get(), nullptr, 0);
  EXPECT_EQ(target->GetPixelGrayRaw(15, 10, 0), static_cast<float>(Random(0, 1, 7)(0, 15, 10)));
  r = 3;
  rank = -1;
  target->MinMaxFilter(&r, &rank, src.get(), nullptr, 0);
  EXPECT_EQ(target->GetPixelGrayRaw(15, 10, 0), 0) << "there is no such rank";
}

/// A kernel's sum about a pixel, with the edges of CFilterBlock.
double Sum(CVelImage& src, const std::function<double(int dx, int dy)>& cell, int r, int p, int x, int y) {
  double sum = 0;
  Around(src, p, x, y, r, Folded, Nearest,
         [&](int dx, int dy, double pixel) { sum += cell(dx, dy) * pixel; });
  return sum;
}

TEST(GuideErrorCanceller, MixesInItsKernel) {
  struct Case {
    double length, angle, width, strength;
  };
  for (const Case& c : {Case{3.0, 0.0, 1.0, 0.5}, {2.4, 30.0, 1.5, 1.0}, {0.3, 90.0, 2.0, 0.25}}) {
    CFilterMatrix kernel;
    kernel.MakeGuideErrorCanceller(std::max<int>(std::ceil(c.length), 1), c.length, c.angle, c.width);
    CheckFilter<CImgFilterMisc>(
        [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
          target.GuideErrorCanceller(c.length, c.angle, c.width, c.strength, &src, rect, 0);
        },
        [&](CVelImage& src, bool, int p, int x, int y) {
          const auto cell = [&](int dx, int dy) { return kernel.GetPrm(dx, dy); };
          return (1 - c.strength) * src.GetPixelGrayRaw(x, y, p) +
                 c.strength * Sum(src, cell, kernel.GetR(), p, x, y);
        },
        2e-4);
  }
}

TEST(BkgSmooth, TheSkyIsSmoothedUpToItsLevel) {
  double level[] = {580, 360, 940}, width[] = {40, 0, 150}, sigma[] = {1.3, 2.0, 0.0};
  const auto gaussian = [&](CVelImage& src, int p, int x, int y) {
    const int r = std::max(static_cast<int>(sigma[p] * 2.8 + 1), 1);
    double sum = 0, weights = 0;
    Around(src, p, x, y, r, BottomRepeated, Nearest, [&](int dx, int dy, double pixel) {
      const double w =
          sigma[p] == 0 ? dx == 0 && dy == 0 : std::exp(-(dx * dx + dy * dy) / (2 * sigma[p] * sigma[p]));
      sum += w * pixel;
      weights += w;
    });
    return sum / weights;
  };
  for (const int kind : {0, 1}) {
    CheckFilter<CImgFilterMisc>(
        [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
          target.BkgSmooth(level, width, kind, sigma, 0.5, &src, rect, 0);
        },
        [&](CVelImage& src, bool, int p, int x, int y) {
          const double high = level[p];
          const double fade = width[p] / 255 * TargetRange(p), s = src.GetPixelGrayRaw(x, y, p);
          const double sky = std::min(high, gaussian(src, p, x, y)), t = (s - high + fade) / fade;
          return s > high ? s : s <= high - fade ? sky : (1 - t) * sky + t * s;
        },
        1e-5);
  }
  const auto src = Make(MemoryStore(), 9, 7, 3, Random(100, 900));
  const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 7, 3, Random(0, 1, 7));
  const auto before = Pixels(*target);
  target->BkgSmooth(level, width, 2, sigma, 0.5, src.get(), nullptr, 0);
  EXPECT_EQ(Pixels(*target), before) << "there is no such kind";
}

TEST(Custom, AppliesKernelsAsTheyAreWithinItsGates) {
  double point[] = {2.5}, nine[] = {-1, 0, 0.5, 0, 0, -0.25, 0, 3, 0}, five[25];
  for (int i = 0; i < 25; ++i) {
    five[i] = i == 12 ? 9 : i % 3 ? -0.5 : 0.1;
  }
  int r[] = {0, 1, 2}, useDark[] = {0, 1, 1}, useHighlight[] = {1, 0, 1}, brighter[] = {1, 0, 1};
  double *kernels[] = {point, nine, five}, dark[] = {90, 60, 30}, highlight[] = {200, 90, 180};
  double percent[] = {100, 50, 30};
  CheckFilter<CImgFilterMisc>(
      [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
        target.Custom(r, kernels, useDark, dark, useHighlight, highlight, brighter, percent, &src, rect, 0);
      },
      [&](CVelImage& src, bool, int p, int x, int y) {
        const double s = src.GetPixelGrayRaw(x, y, p);
        const double level = (s - src.GetLevelMin(p)) / src.GetLevelRange(p) * 255;
        if ((useDark[p] && level < dark[p]) || (useHighlight[p] && level > highlight[p])) return s;
        const int side = 2 * r[p] + 1;
        const double f = Sum(
            src, [&](int dx, int dy) { return kernels[p][(dy + r[p]) * side + dx + r[p]]; }, r[p], p, x, y);
        return brighter[p] && f < s ? f + (s - f) * percent[p] / 100 : f;
      },
      1e-3);
}

TEST(Custom, ShortFormsNanAndRefusal) {
  double kernel[] = {0, 1, 0, 0, 0, 0, 0, 1, 0};
  for (const StoreCase& store : Stores()) {
    const auto src =
        Make(store.make(), 9, 7, 3, [](int, int x, int y) { return x == 4 && y == 3 ? NAN : 100 * y; });
    const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 7, 3, Random(0, 1, 7));
    const auto before = Pixels(*target);
    target->Custom(-1, kernel, src.get(), nullptr, 0);
    EXPECT_EQ(Pixels(*target), before);
    target->Custom(1, kernel, src.get(), nullptr, 0);
    const auto sums = [](int, int x, int y) {
      if (x == 4 && y >= 2 && y <= 4) return NAN;  // blank, or over or under it
      return y == 0 || y == 6 ? (y == 0 ? 200.0f : 1000.0f) : 200.0f * y;
    };
    EXPECT_EQ(Difference(*target, sums, 0), "") << store.name;
    // A quarter of what was darkened comes back above the gate of 300, of levels of 0 to 255.
    src->SetLevel(2, 0, 255);
    double less[] = {0, 0, 0, 0, 0.5, 0, 0, 0, 0};
    target->Custom(1, less, 1, 300, 0, 0, 1, 25, src.get(), nullptr, 0);
    EXPECT_EQ(target->GetPixelGrayRaw(0, 4, 2), 250);
    EXPECT_EQ(target->GetPixelGrayRaw(0, 2, 2), 200);
  }
}

}  // namespace
