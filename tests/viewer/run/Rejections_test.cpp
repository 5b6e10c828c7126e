#include "viewer/run/Rejections.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <png.h>

#include "session/job/Errors.h"

namespace korimg::viewer {
namespace {

using Rows = std::vector<std::vector<float>>;

/// A picture of so many planes, each of which has `rows` but for the last one, which is 0.
std::unique_ptr<Pyramid> PyramidOf(const Rows& rows, int planes) {
  auto source = std::make_shared<Source>();
  source->shape = {static_cast<int>(rows[0].size()), static_cast<int>(rows.size()), planes};
  source->read = [rows](const Band<float>& to) {
    for (int p = 0; p < to.Planes(); ++p) {
      for (int y = to.Top(); y < to.Bottom(); ++y) {
        for (int x = 0; x < to.Width(); ++x) {
          to.Row(p, y)[x] = p + 1 == to.Planes() && p > 0 ? 0 : rows[y][x];
        }
      }
    }
  };
  auto pyramid = std::make_unique<Pyramid>(source, 1 << 20);
  while (pyramid->Progress() < 1)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return pyramid;
}

std::vector<int> PixelsOf(const std::string& file) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  EXPECT_TRUE(png_image_begin_read_from_memory(&png, file.data(), file.size()));
  png.format = PNG_FORMAT_RGBA;
  std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(png));
  EXPECT_TRUE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr));
  return {pixels.begin(), pixels.end()};
}

TEST(Rejections, AreBlueAndOrangeAndClearWhereThereAreNone) {
  const auto low = PyramidOf({{0, 4, 1, 9, 1}, {0, 0, 0, 0, 0}}, 3);
  const auto high = PyramidOf({{0, 0, 0, 0, 1}, {2, 0, 0, 0, 0}}, 3);
  const std::vector<int> pixels = PixelsOf(DrawRejections(*low, *high, {0, 0, 0}, 20));
  const std::vector<int> expected{
      0,   0,   0,   0,   86,  180, 233, 255, 86, 180, 233, 128,  // a quarter's root
      86,  180, 233, 255, 171, 165, 127, 180,                     // of both colours
      255, 150, 20,  180, 0,   0,   0,   0,   0,  0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(pixels, expected);
}

TEST(Rejections, AreTilesOfTheStack) {
  const Rows rows(70, std::vector<float>(300, 1));
  const auto low = PyramidOf(rows, 1), high = PyramidOf(rows, 1);
  EXPECT_EQ(PixelsOf(DrawRejections(*low, *high, {0, 1, 0}, 5)).size(), 4u * 44 * 70);
  EXPECT_EQ(PixelsOf(DrawRejections(*low, *high, {1, 0, 0}, 5)).size(), 4u * 150 * 35);
  for (const TilePlace& place : {TilePlace{0, 2, 0}, {0, 0, 1}, {9, 0, 0}, {-1, 0, 0}, {0, -1, 0}}) {
    EXPECT_THROW(DrawRejections(*low, *high, place, 5), session::UsageError);
  }
  const auto other = PyramidOf({{1, 2}}, 1);
  EXPECT_THROW(DrawRejections(*low, *other, {0, 0, 0}, 5), session::UsageError);
}

}  // namespace
}  // namespace korimg::viewer
