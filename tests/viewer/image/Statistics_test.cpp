#include "viewer/image/Statistics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include <gtest/gtest.h>

#include "session/job/Errors.h"
#include "tests/support/Images.h"

namespace korimg::viewer {
namespace {

float PixelAt(int p, int x, int y) {
  const auto n = static_cast<std::uint64_t>(p * 7 + y * 5003 + x);
  if (n % 31 == 3) return std::nanf("");
  return n % 101 == 4 ? INFINITY : static_cast<float>(50 * p + 10 * test::Noise(n));
}

Pyramid Of(int width, int height, int planes) {
  auto source = std::make_shared<Source>();
  source->shape = {width, height, planes};
  source->info.type = "float32";
  source->read = [](const Band<float>& to) {
    for (int p = 0; p < to.Planes(); ++p) {
      for (int y = to.Top(); y < to.Bottom(); ++y) {
        for (int x = 0; x < to.Width(); ++x)
          to.Row(p, y)[x] = PixelAt(p, x, y);
      }
    }
  };
  return {source, 1 << 20};
}

TEST(Statistics, AreThoseOfTheFinitePixelsOfARectangle) {
  Pyramid pyramid = Of(90, 700, 3);
  for (const CRect rect :
       {CRect(0, 0, 90, 700), CRect(-5, 13, 40, 999), CRect(89, 699, 90, 700), CRect(7, 255, 8, 290)}) {
    const RectStatistics found = Measure(pyramid, rect, 8, 0, 120);
    ASSERT_EQ(found.step, 1);
    for (int p = 0; p < 3; ++p) {
      std::vector<double> values;
      int blank = 0;
      std::vector<int> histogram(8);
      for (int y = std::max<int>(rect.top, 0); y < std::min<int>(rect.bottom, 700); ++y) {
        for (int x = std::max<int>(rect.left, 0); x < std::min<int>(rect.right, 90); ++x) {
          const float v = PixelAt(p, x, y);
          if (!std::isfinite(v)) {
            ++blank;
            continue;
          }
          values.push_back(v);
          ++histogram[std::min(static_cast<int>(v / 15), 7)];
        }
      }
      const PlaneStatistics& plane = found.planes[p];
      EXPECT_EQ(plane.blank, blank);
      ASSERT_EQ(plane.count, static_cast<long long>(values.size()));
      EXPECT_EQ(plane.histogram, histogram);
      if (values.empty()) continue;
      std::sort(values.begin(), values.end());
      const std::size_t n = values.size();
      const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
      const double mean = std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(n);
      double squares = 0;
      for (const double v : values)
        squares += (v - mean) * (v - mean);
      EXPECT_FLOAT_EQ(plane.min, values.front());
      EXPECT_FLOAT_EQ(plane.max, values.back());
      EXPECT_FLOAT_EQ(plane.median, median);
      EXPECT_NEAR(plane.mean, mean, 1e-9);
      EXPECT_NEAR(plane.deviation, std::sqrt(squares / static_cast<double>(n)), 1e-9);
      for (double& v : values)
        v = std::abs(v - median);
      std::sort(values.begin(), values.end());
      EXPECT_NEAR(plane.spread, 1.4826 * (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2),
                  1e-5);
    }
  }
}

TEST(Statistics, OfALargeRectangleTakePixelsAtSteps) {
  Pyramid pyramid = Of(3000, 1500, 1);
  const RectStatistics found = Measure(pyramid, CRect(1, 0, 3000, 1500), 4, 0, 10);
  EXPECT_EQ(found.step, 2);
  EXPECT_EQ(found.planes[0].count + found.planes[0].blank, 1500 * 750);
}

TEST(Statistics, OfALineAreThePixelsThatItCrosses) {
  Pyramid pyramid = Of(90, 700, 3);
  const auto planes = ProfileOf(pyramid, CfPoint(-1.5, 10.2), CfPoint(8.5, 40.2), 11);
  ASSERT_EQ(planes.size(), 3u);
  for (int p = 0; p < 3; ++p) {
    for (int i = 0; i < 11; ++i) {
      const float expected = i < 2 ? std::nanf("") : PixelAt(p, i - 2, 10 + 3 * i);
      EXPECT_TRUE(planes[p][i] == expected || (std::isnan(planes[p][i]) && std::isnan(expected)))
          << p << " " << i;
    }
  }
  EXPECT_THROW(ProfileOf(pyramid, CfPoint(1, 1), CfPoint(5, 5), 3, [] { return true; }), session::Cancelled);
}

TEST(Statistics, RefuseARectangleBesideThePictureAndStopWhenNobodyWaits) {
  Pyramid pyramid = Of(100, 80, 1);
  for (const CRect rect : {CRect(100, 0, 120, 10), CRect(0, -9, 10, 0), CRect(5, 5, 5, 9)}) {
    EXPECT_THROW(Measure(pyramid, rect, 4, 0, 1), session::UsageError);
  }
  EXPECT_THROW(Measure(pyramid, CRect(0, 0, 9, 9), 4, 0, 1, [] { return true; }), session::Cancelled);
}

}  // namespace
}  // namespace korimg::viewer
