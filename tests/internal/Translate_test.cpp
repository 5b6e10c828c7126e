#include <gtest/gtest.h>

#include "korimg/image/internal/Frame.h"

#include "tests/geometry/Reference.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kMargin = 9;

struct Mask {
  int width, height;
  std::vector<std::int32_t> pixels;
  Halide::Runtime::Buffer<std::int32_t, 2> buffer;
  Mask(int width, int height)
      : width(width), height(height), pixels(1LL * width * height), buffer(pixels.data(), width, height) {}
};

TEST(Translate, MovesAPlaneAndTellsWhereItIs) {
  for (const auto& [w, h] : Sizes()) {
    const int width = w, height = h;
    const auto source = Make(MemoryStore(), width, height, 1, Random(0, 1000));
    const auto target = Make(MemoryStore(), width + kMargin, height + kMargin, 1, Random(0, 1));
    Mask mask(width + kMargin, height + kMargin);
    const auto check = [&](double dx, double dy, int method, double tolerance) {
      for (int y = 0; y < mask.height; ++y) {
        for (int x = 0; x < mask.width; ++x) {
          const double u = x - dx, v = y - dy;
          const bool on = u >= 0 && v >= 0 && u < width && v < height;
          ASSERT_EQ(mask.pixels[y * mask.width + x], on) << dx << ", " << dy << " at " << x << ", " << y;
          ASSERT_NEAR(target->GetPixelGrayRaw(x, y, 0), on ? SampleBySum(*source, 0, method, u, v) : -7,
                      tolerance)
              << width << "x" << height << " by " << dx << ", " << dy << " at " << x << ", " << y;
        }
      }
    };
    for (const auto& [dx, dy] : {std::pair(0, 0), {3, -2}, {-5, 7}, {INT_MAX, INT_MIN}, {INT_MIN, 0}}) {
      ASSERT_EQ(translate_intshift_float(PlaneBuffer(*source, 0), dx, dy, -7, PlaneBuffer(*target, 0, false)),
                0);
      ASSERT_EQ(translate_intshift_mask(width, height, dx, dy, mask.buffer), 0);
      check(dx, dy, 4, 0);
    }
    const float nan = NAN, inf = INFINITY;
    for (const auto& [dx, dy] : {std::pair(0.5f, 2.25f),
                                 {-3.75f, -0.125f},
                                 {3.0f, -2.0f},
                                 {1e30f, 0.5f},
                                 {-inf, 0.5f},
                                 {nan, 0.5f},
                                 {0.5f, nan}}) {
      ASSERT_EQ(translate_floatshift_bicubic_float(PlaneBuffer(*source, 0), dx, dy, -7,
                                                   PlaneBuffer(*target, 0, false)),
                0);
      ASSERT_EQ(translate_floatshift_mask(width, height, dx, dy, mask.buffer), 0);
      check(dx, dy, 1, 1e-3);
    }
  }
}

TEST(Translate, AMaskOfATurnIsWhereTheTurnedPlaneIs) {
  const auto source = Make(MemoryStore(), 71, 53, 1, Random(0, 1000));
  const auto target = Make(MemoryStore(), 80, 90, 1, Random(0, 1));
  Mask mask(80, 90);
  for (const double degrees : {10.0, 123.0, -45.0, static_cast<double>(NAN)}) {
    const auto c = static_cast<float>(std::cos(degrees * M_PI / 180)),
               s = static_cast<float>(std::sin(degrees * M_PI / 180));
    rotate_nearest_float(PlaneBuffer(*source, 0), 1.5f, -20, 30, 20, c, s, -7,
                         PlaneBuffer(*target, 0, false));
    rotate_mask(71, 53, 1.5f, -20, 30, 20, c, s, mask.buffer);
    int on = 0;
    for (int y = 0; y < 90; ++y) {
      for (int x = 0; x < 80; ++x) {
        ASSERT_EQ(mask.pixels[y * 80 + x], target->GetPixelGrayRaw(x, y, 0) != -7) << x << ", " << y;
        on += mask.pixels[y * 80 + x];
      }
    }
    EXPECT_EQ(on > 500, !std::isnan(degrees));
  }
}

}  // namespace
