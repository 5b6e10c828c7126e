#include "korimg/display/CImgDrawLine.h"

#include <set>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kSize = 33;
using Pixels2d = std::set<std::pair<int, int>>;

Pixels2d Drawn(CVelImage& image) {
  Pixels2d drawn;
  for (int y = 0; y < image.GetHeight(); ++y) {
    for (int x = 0; x < image.GetWidth(); ++x) {
      if (image.GetPixelGrayRaw(x, y, 0) != 0) drawn.insert({x, y});
    }
  }
  return drawn;
}

/// The pixel nearest to the line in each column or row, of two the farther one from the start.
Pixels2d Nearest(CPoint a, CPoint b) {
  Pixels2d pixels;
  const int dx = b.x - a.x, dy = b.y - a.y, steps = std::max(std::abs(dx), std::abs(dy));
  const auto at = [&](int from, int d, int i) {
    const double offset = steps ? std::abs(1.0 * d * i / steps) : 0;
    return from + (d < 0 ? -1 : 1) * static_cast<int>(std::floor(offset + 0.5 + 1e-9));
  };
  for (int i = 0; i <= steps; ++i) {
    pixels.insert({at(a.x, dx, i), at(a.y, dy, i)});
  }
  return pixels;
}

TEST(CImgDrawLine, PlanesBeyondTheThirdHaveNoColour) {
  const auto image = Make<CImgDrawLine>(MemoryStore(), 9, 3, 5, [](int p, int, int) { return p; });
  image->Do(CPoint(0, 1), CPoint(8, 1), 0xffffff);
  for (int p = 0; p < 5; ++p) {
    EXPECT_EQ(image->GetPixelGrayRaw(4, 1, p), p < 3 ? image->GetLevelMax(p) : p);
  }
}

TEST(CImgDrawLine, EveryDirectionAndDegenerateLines) {
  const std::vector<std::pair<CPoint, CPoint>> lines = {
      {{1, 1}, {30, 12}},  {{1, 1}, {12, 30}},   {{16, 16}, {1, 30}},  {{30, 2}, {1, 9}},
      {{20, 30}, {13, 1}}, {{2, 30}, {30, 20}},  {{30, 30}, {20, 28}}, {{5, 30}, {12, 1}},
      {{0, 0}, {32, 32}},  {{32, 0}, {0, 32}},   {{4, 7}, {4, 7}},     {{3, 5}, {29, 5}},
      {{29, 5}, {3, 5}},   {{5, 3}, {5, 29}},    {{5, 29}, {5, 3}},    {{0, 0}, {2, 1}},
      {{2, 1}, {0, 0}},    {{10, 10}, {30, 20}}, {{10, 10}, {8, 14}},  {{-9, -4}, {50, 44}},
      {{40, 0}, {50, 9}}};
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const auto& [a, b] : lines) {
      const auto image = Make<CImgDrawLine>(store, kSize, kSize, 1, [](int, int, int) { return 0; });
      image->Do(a, b, 0x00FFFFFF);
      Pixels2d expected;
      for (const auto& [x, y] : Nearest(a, b)) {
        if (x >= 0 && y >= 0 && x < kSize && y < kSize) expected.insert({x, y});
      }
      EXPECT_EQ(Drawn(*image), expected) << a.x << "," << a.y << " to " << b.x << "," << b.y;
    }
  }
}

TEST(CImgDrawLine, ColoursComeByTheLevels) {
  constexpr unsigned long kColour = 0x00281E0A;  // blue 40, green 30, red 10
  const auto colour = Make<CImgDrawLine>(MemoryStore(), 3, 1, 3, Random(0, 1));
  colour->Do({1, 0}, {1, 0}, kColour);
  const double channels[] = {10, 30, 40};
  for (int p = 0; p < 3; ++p) {
    EXPECT_NEAR(colour->GetPixelGray256f(1, 0, p), channels[p], 1e-4);
    EXPECT_LT(colour->GetPixelGrayRaw(0, 0, p), 1);
  }
  const auto mono = Make<CImgDrawLine>(MemoryStore(), 3, 1, 1, Random(0, 1));
  mono->Do({0, 0}, {0, 0}, kColour);
  EXPECT_NEAR(mono->GetPixelGray256f(0, 0, 0), 25, 1e-4);
  EXPECT_EQ(mono->GetLevelMax(0), 1070);
}

}  // namespace
