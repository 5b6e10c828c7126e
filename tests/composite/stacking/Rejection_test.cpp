#include "korimg/composite/stacking/Rejection.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

double Normal(long long key) {
  return std::sqrt(-2 * std::log(1 - Noise(2 * key))) * std::cos(2 * std::numbers::pi * Noise(2 * key + 1));
}

Ranks Sorted(const Rejection& rejection, std::vector<float> values, double noise = 0) {
  std::sort(values.begin(), values.end());
  return WhatStays(rejection, values, noise);
}

TEST(Rejection, CatchesOutliersOfTenDeviationsAndKeepsTheRest) {
  struct Case {
    Rejection rejection;
    int n;
    // Percent of single outliers and of pairs that are caught, and of good values that are lost: measured
    // with another implementation of the same definitions.
    double one, two, lost;
  };
  constexpr Rejection kSigma{Rejection::Sigma, 2.5, 2.5}, kWinsorized{Rejection::Winsorized, 3, 3},
      kEsd{Rejection::Esd};
  for (const Case& c : {Case{kSigma, 5, 8, 0, 0.1},
                        {kSigma, 7, 97, 1, 0.8},
                        {kSigma, 10, 100, 48, 1.2},
                        {kSigma, 20, 100, 100, 1.5},
                        {kWinsorized, 5, 92, 15, 2.3},
                        {kWinsorized, 7, 99, 77, 1.7},
                        {kWinsorized, 10, 100, 100, 1.2},
                        {kWinsorized, 20, 100, 100, 0.7},
                        {kEsd, 5, 92, 0, 1},
                        {kEsd, 7, 100, 99, 1.5},
                        {kEsd, 10, 100, 100, 1.5},
                        {kEsd, 20, 100, 100, 0.6}}) {
    constexpr int kTrials = 4000;
    int one = 0, two = 0, lost = 0;
    for (int trial = 0; trial < kTrials; ++trial) {
      std::vector<float> values;
      for (int i = 0; i < c.n; ++i) {
        values.push_back(static_cast<float>(Normal(1000LL * trial + i)));
      }
      lost += c.n - Sorted(c.rejection, values).Count();
      const auto caught = [&](int outliers) {
        std::vector<float> spoiled = values;
        for (int i = 0; i < outliers; ++i) {
          spoiled[i] += 10;
        }
        return Sorted(c.rejection, spoiled).to <= c.n - outliers;
      };
      one += caught(1);
      two += caught(2);
    }
    const std::string name = "test " + std::to_string(c.rejection.test) + " of " + std::to_string(c.n);
    EXPECT_NEAR(100.0 * one / kTrials, c.one, 3) << name;
    EXPECT_NEAR(100.0 * two / kTrials, c.two, 4) << name;
    EXPECT_NEAR(100.0 * lost / kTrials / c.n, c.lost, 0.35) << name;
  }
}

TEST(Rejection, FindsTheThreeOutliersOfRosnersExample) {
  // B. Rosner, Technometrics 25 (1983).
  const std::vector<float> values = {
      -0.25f, 0.68f, 0.94f, 1.15f, 1.20f, 1.26f, 1.26f, 1.34f, 1.38f, 1.43f, 1.49f, 1.49f, 1.55f, 1.56f,
      1.58f,  1.65f, 1.69f, 1.70f, 1.76f, 1.77f, 1.81f, 1.91f, 1.94f, 1.96f, 1.99f, 2.06f, 2.09f, 2.10f,
      2.14f,  2.15f, 2.23f, 2.24f, 2.26f, 2.35f, 2.37f, 2.40f, 2.47f, 2.54f, 2.62f, 2.64f, 2.90f, 2.92f,
      2.92f,  2.93f, 3.21f, 3.26f, 3.30f, 3.59f, 3.68f, 4.30f, 4.64f, 5.34f, 5.42f, 6.01f};
  for (const auto test : {Rejection::Esd, Rejection::Auto}) {
    const Ranks left = WhatStays({test}, values);
    EXPECT_EQ(left.from, 0);
    EXPECT_EQ(left.to, 51);
  }
}

TEST(Rejection, ByHand) {
  struct Case {
    Rejection rejection;
    std::vector<float> values;
    double noise;
    int from, to;
  };
  const Rejection noise{Rejection::Noise, 5, 4}, automatic{Rejection::Auto}, line{Rejection::LinearFit, 3, 3};
  for (const Case& c : {
           // Of two the lower one is true, of four the lower of the middle two.
           Case{noise, {0, 3.9f}, 1, 0, 2},
           {noise, {0, 4.1f}, 1, 0, 1},
           {noise, {-5.1f, 0, 4.1f}, 1, 1, 2},
           {noise, {-4.9f, 0, 3.9f}, 1, 0, 3},
           {noise, {-4.9f, 0, 7.9f}, 2, 0, 3},
           {noise, {0, 0.5f, 20, 20.2f}, 1, 0, 2},
           {noise, {0, 100}, 0, 0, 2},
           {automatic, {0, 4.9f}, 1, 0, 2},
           {automatic, {0, 5.1f}, 1, 0, 1},
           {automatic, {-1, 0, 9}, 2, 0, 3},
           {automatic, {0, 100, 100, 100}, 0, 0, 4},
           {automatic, {7}, 1, 0, 1},
           // The values alone would lose 2 here, and keep 20 there: noise says otherwise.
           {automatic, {-0.1f, -0.05f, 0, 0.05f, 0.1f, 2}, 0, 0, 5},
           {automatic, {-0.1f, -0.05f, 0, 0.05f, 0.1f, 2}, 1, 0, 6},
           {automatic, {-15, -8, 0, 9, 20}, 0, 0, 5},
           {automatic, {-15, -8, 0, 9, 20}, 1, 2, 3},
           {automatic, {-15, -8, 0, 9, 20}, 2, 1, 4},
           {line, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 60}, 0, 0, 10},
           {line, {-70, 0, 1, 2.1f, 3, 4, 5.1f, 6, 7, 8, 9}, 0, 1, 11},
           {line, {0, 1, 100}, 0, 0, 3},
           {{Rejection::None}, {0, 0, 0, 0, 1e30f}, 1, 0, 5},
           // A second round takes what the first one left.
           {{Rejection::Winsorized, 3, 3, 1}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 30, 1000}, 0, 0, 9},
       }) {
    const Ranks left = WhatStays(c.rejection, c.values, c.noise);
    EXPECT_EQ(left.from, c.from) << testing::PrintToString(c.values) << " test " << c.rejection.test;
    EXPECT_EQ(left.to, c.to) << testing::PrintToString(c.values) << " test " << c.rejection.test;
  }
}

}  // namespace
