#include "korimg/calibration/MedianOfFrames.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

float MedianBySorting(std::vector<float> values) {
  std::erase_if(values, [](float v) { return std::isnan(v); });
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : 0.5f * values[n / 2 - 1] + 0.5f * values[n / 2];
}

TEST(MedianOfFrames, EqualsSorting) {
  constexpr int kRows = 3;
  for (int count = 1; count <= 40; ++count) {
    for (const int width : {1, 7, 301}) {
      // Few values, so that many are equal; NaN, both infinities, and columns of nothing but NaN among them.
      std::vector<std::vector<float>> frames(count);
      std::vector<const float*> addresses;
      const PixelRule rule = Wild(-5, 12, count);
      for (int i = 0; i < count; ++i) {
        for (int k = 0; k < width * kRows; ++k) {
          frames[i].push_back(k % 100 == 50 ? NAN : std::round(rule(i, k % width, k / width)));
        }
        addresses.push_back(frames[i].data());
      }
      for (const int threads : {1, 3}) {
        const WithThreads team(threads);
        std::vector<float> result(width * kRows, 77);
        MedianOfFrames(addresses, width, kRows, result.data());
        for (int k = 0; k < width * kRows; ++k) {
          std::vector<float> column;
          for (const auto& frame : frames) {
            column.push_back(frame[k]);
          }
          const float expected = MedianBySorting(column);
          ASSERT_TRUE(result[k] == expected || (std::isnan(result[k]) && std::isnan(expected)))
              << count << " frames, pixel " << k << ": " << result[k] << " for " << expected;
        }
      }
    }
  }
}

}  // namespace
