#include "korimg/composite/stacking/CImgNormalize.h"

#include <cmath>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

TEST(CImgNormalize, BringsPlanesToMeanAndDeviation) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int which : {0, 1, 2, 3}) {
      const PixelRule rule = [](int p, int x, int y) { return p == 2 ? 55.0 : Random(100, 900)(p, x, y); };
      const auto src = Make(store, 67, 41, 3, rule);
      const auto target = Make<CImgNormalize>(store, 67, 41, 3, [](int, int, int) { return -1; });
      float average[] = {1000, 20, -7}, sigma[] = {3, 500, 9};
      target->Do(src.get(), which & 1 ? average : nullptr, which & 2 ? sigma : nullptr, 0);
      double mean[3] = {}, square[3] = {};
      const double n = 67.0 * 41;
      for (int i = 0; i < 3 * 67 * 41; ++i) {
        const double v = rule(i / (67 * 41), i % 67, i / 67 % 41);
        mean[i / (67 * 41)] += v / n;
        square[i / (67 * 41)] += v * v / n;
      }
      const auto expected = [&](int p, int x, int y) {
        if (which == 0) return -1.0;
        const double s = std::sqrt(square[p] - mean[p] * mean[p]), aim = which & 1 ? average[p] : mean[p];
        const double factor = (which & 2) && p != 2 ? sigma[p] / s : 1;
        return (rule(p, x, y) - mean[p]) * factor + aim;
      };
      EXPECT_EQ(Difference(*target, expected, 2e-4), "") << which;
      EXPECT_EQ(target->GetLevelMin(1), 137) << "levels stay";
    }
  }
}

}  // namespace
