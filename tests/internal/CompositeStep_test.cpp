#include "korimg/image/internal/CompositeStep.h"

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
  const PixelRule first = Random(0, 100), second = Random(0, 100, 2), old = Wild(0, 100);
  // Anew, over the first image, and over the second.
  for (const char* into : {"another", "a", "b"}) {
    for (const bool whole : {true, false}) {
      const auto a = Make(MemoryStore(), 150, 90, 3, first), b = Make(MemoryStore(), 150, 90, 3, second),
                 mono = Make(MemoryStore(), 150, 90, 1, second), other = Make(MemoryStore(), 150, 90, 3, old);
      CVelImage& target = *into == 'b' ? *b : std::string(into) == "a" ? *a : *other;
      CVelImage& served = &target == b.get() ? *b : *mono;
      const PixelRule& before = &target == b.get() ? second : &target == a.get() ? first : old;
      CRect rect(100, 20, 105, 25);
      CompositeBlocks(target, *a, served, whole ? nullptr : &rect,
                      [](int, int, halide_buffer_t* x, halide_buffer_t* y, halide_buffer_t* out) {
                        return sub0_float(x, y, out);
                      });
      const auto expected = [&](int p, int x, int y) -> double {
        if (!whole && !(x >= 86 && y >= 20 && y < 52)) return static_cast<float>(before(p, x, y));
        const int q = &served == b.get() ? p : 0;
        return std::max(static_cast<float>(first(p, x, y)) - static_cast<float>(second(q, x, y)), 0.0f);
      };
      EXPECT_EQ(Difference(target, expected, 0), "") << into << whole;
    }
  }
}

}  // namespace
