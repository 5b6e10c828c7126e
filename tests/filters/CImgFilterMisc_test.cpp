#include "korimg/filters/CImgFilterMisc.h"

#include <gtest/gtest.h>

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

}  // namespace
