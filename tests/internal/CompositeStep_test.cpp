#include "korimg/image/CompositeStep.h"

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

TEST(CompositeStep, WidensSmallWindows) {
  struct Case {
    int width, height;
    CRect rect, expected;
  };
  for (const Case& c :
       {Case{300, 200, {10, 10, 20, 20}, {10, 10, 74, 42}},
        Case{300, 200, {290, 195, 300, 200}, {236, 168, 300, 200}},
        Case{300, 200, {5, 5, 295, 195}, {5, 5, 295, 195}}, Case{40, 20, {3, 3, 5, 5}, {0, 0, 40, 20}},
        Case{300, 200, {-9, -9, 500, 4}, {0, 0, 300, 32}}}) {
    const auto image = Make(MemoryStore(), c.width, c.height, 1, Random(0, 1));
    CRect rect = c.rect;
    const Window w = WidenedWindow(*image, &rect);
    EXPECT_EQ(CRect(w.left, w.top, w.right, w.bottom), c.expected);
  }
  const auto image = Make(MemoryStore(), 300, 200, 1, Random(0, 1));
  CRect outside(400, 10, 500, 20);
  EXPECT_TRUE(WidenedWindow(*image, &outside).IsEmpty()) << "an empty window stays empty";
}

TEST(CompositeStep, CompositesTheWindowOfEachPlane) {
  const auto a = Make(MemoryStore(), 150, 90, 3, Random(0, 100)),
             mono = Make(MemoryStore(), 150, 90, 1, Random(0, 100, 2));
  for (const bool whole : {true, false}) {
    CRect rect(100, 20, 105, 25);
    const auto result = CompositeBlocks(*a, *mono, whole ? nullptr : &rect,
                                        [](int, halide_buffer_t* first, halide_buffer_t* second,
                                           halide_buffer_t* out) { sub0_float(first, second, out); });
    ASSERT_TRUE(result);
    const auto expected = [&](int p, int x, int y) -> double {
      const bool inside = whole || (x >= 86 && x < 150 && y >= 20 && y < 52);
      const float d = a->GetPixelGrayRaw(x, y, p) - mono->GetPixelGrayRaw(x, y, 0);
      return inside ? std::max(d, 0.0f) : 0;
    };
    EXPECT_EQ(Difference(*result, expected, 0), "") << whole;
  }
}

}  // namespace
