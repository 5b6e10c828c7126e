#include <gtest/gtest.h>

#include "korimg/geometry/CImgResize.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

TEST(CImgResize, LaysTheSourceAtTheAnchor) {
  constexpr int kWidth = 13, kHeight = 8;
  float fill[] = {10, 20};
  OnEveryPath([&](const StoreCase& store) {
    const auto source = Make(store.make(), kWidth, kHeight, 2, Wild(0, 1000));
    for (const auto& [width, height] : {std::pair(20, 15), {5, 3}, {20, 3}, {13, 8}, {1, 1}}) {
      for (int anchor = -1; anchor <= 9; ++anchor) {
        const auto target = Make<CImgResize>(source->VmManager(), 4, 4, 2, Random(0, 1));
        target->SetStdPt(0, CfPoint(1, 1));
        ASSERT_EQ(target->Do(width, height, anchor, fill, source.get(), 0), 1);
        ASSERT_EQ(target->GetWidth(), width);
        ASSERT_EQ(target->GetHeight(), height);
        EXPECT_EQ(target->GetStdPtNum(), 0);
        const int place = anchor < 0 || anchor > 8 ? 0 : anchor;
        const auto offset = [](int size, int newSize, int at) {
          return at == 0 ? 0 : at == 1 ? (newSize - size) / 2 : newSize - size;
        };
        const int dx = offset(kWidth, width, place % 3), dy = offset(kHeight, height, place / 3);
        const auto expected = [&](int p, int x, int y) -> double {
          const int sx = x - dx, sy = y - dy;
          if (sx >= 0 && sx < kWidth && sy >= 0 && sy < kHeight) return source->GetPixelGrayRaw(sx, sy, p);
          return target->ToRaw(static_cast<double>(fill[p]), p);
        };
        ASSERT_EQ(Difference(*target, expected, 1e-6), "")
            << store.name << " " << width << "x" << height << " anchor " << anchor;
      }
    }
    const auto target = Make<CImgResize>(source->VmManager(), 4, 4, 2, Random(0, 1));
    EXPECT_EQ(target->Do(0, 5, 0, fill, source.get(), 0), 0);
    EXPECT_EQ(target->GetWidth(), 4);
  });
}

}  // namespace
