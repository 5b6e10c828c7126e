// What a pipeline that fails leaves behind.
#include "korimg/image/internal/Frame.h"

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

TEST(RunIntoWindow, AFailedPipelineLeavesThePlaneAndItsStatus) {
  const auto image = Make(MemoryStore(), 40, 30, 1, Random(1, 2));
  const auto expected = Random(1, 2);
  Window window(3, 4, 20, 17);
  EXPECT_EQ(RunIntoWindow(*image, 0, window, [](halide_buffer_t*) { return -7; }), -7);
  EXPECT_EQ(Difference(*image, expected, 1e-6), "");
  const auto add = [&](halide_buffer_t* out) { return add_scalar_float(PlaneBuffer(*image, 0), 5, out); };
  EXPECT_EQ(RunIntoWindow(*image, 0, window, add), 0);
  EXPECT_EQ(Difference(
                *image,
                [&](int p, int x, int y) {
                  return expected(p, x, y) + (x >= 3 && x < 20 && y >= 4 && y < 17 ? 5 : 0);
                },
                1e-6),
            "");
}

TEST(WriteThroughPlane, AFailedPipelineLeavesAPagedPlane) {
  const auto store = MemoryStore();
  for (const auto& image :
       {Make(TinyPool(), 40, 30, 1, Random(1, 2)), Make(store, 40, 30, 1, Random(1, 2))}) {
    EXPECT_EQ(WriteThroughPlane(*image, 0, Window(3, 2, 20, 30), *store, [](halide_buffer_t*) { return -7; }),
              -7);
    EXPECT_EQ(Difference(*image, Random(1, 2), 1e-6), "");
  }
}

}  // namespace
