#include "session/run/internal/TimeAxis.h"

#include <gtest/gtest.h>

namespace korimg::session {
namespace {

std::optional<TimeAxis> OfHours(const std::vector<double>& hours) {
  std::vector<std::optional<double>> moments;
  for (const double hour : hours) {
    moments.push_back(1e9 + 3600 * hour);
  }
  return TimeAxis::Of(moments);
}

TEST(TimeAxis, IsOfTimeAndShortensPauses) {
  const auto night = OfHours({0, 1, 3, 4});
  ASSERT_TRUE(night);
  EXPECT_TRUE(night->pauses.empty()) << "clouds of two hours";
  EXPECT_EQ(night->hours, 4);
  const double expected[] = {0, 0.25, 0.75, 1};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_NEAR(night->places[i], expected[i], 1e-12);
  }
  // Three nights, of 4, 0 and 2 hours.
  const auto nights = OfHours({0, 2, 4, 26, 50, 52});
  ASSERT_TRUE(nights);
  ASSERT_EQ(nights->pauses.size(), 2u);
  EXPECT_EQ(nights->parts, (std::vector<int>{0, 0, 0, 1, 2, 2}));
  EXPECT_EQ(nights->pauses[0].hours, 22);
  EXPECT_NEAR(nights->places[5], 1, 1e-12);
  EXPECT_NEAR(nights->places[1] * 2, nights->places[2], 1e-12);
  EXPECT_NEAR(nights->places[5] - nights->places[4], nights->places[1], 1e-12) << "an hour is an hour";
  for (size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(nights->pauses[k].at, (nights->places[2 + k] + nights->places[3 + k]) / 2, 1e-12);
    EXPECT_GT(nights->places[3 + k], nights->places[2 + k] + 0.01);
  }
}

TEST(TimeAxis, ManyNightsOfAFrameEachStandApart) {
  std::vector<double> hours;
  for (int i = 0; i < 41; ++i) {
    hours.push_back(24.0 * i);
  }
  const auto nights = OfHours(hours);
  ASSERT_TRUE(nights);
  for (size_t i = 0; i < hours.size(); ++i) {
    EXPECT_NEAR(nights->places[i], static_cast<double>(i) / 40, 1e-12);
  }
  // With an hour's work in each the pauses leave room for it.
  for (int i = 0; i < 41; ++i) {
    hours.insert(hours.begin() + 2 * i + 1, 24.0 * i + 1);
  }
  EXPECT_GT(OfHours(hours)->places[1], 0.6 / 41 - 1e-9);
}

TEST(TimeAxis, ThereIsNoneWithoutTimes) {
  EXPECT_FALSE(TimeAxis::Of({}));
  EXPECT_FALSE(TimeAxis::Of({1.0}));
  EXPECT_FALSE(TimeAxis::Of({1.0, 1.0}));
  EXPECT_FALSE(TimeAxis::Of({std::nullopt, 5.0, 9000.0}));
  EXPECT_FALSE(TimeAxis::Of({1.0, std::nullopt, 9000.0}));
}

}  // namespace
}  // namespace korimg::session
