// The running mean against plain loops over all frames.
#include "session/live/internal/RunningMean.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "session/picture/Image.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using Values = std::vector<double>;

/// What one pixel of one plane comes to, from all of its values.
struct Column {
  Values values, weights, noise;
  std::vector<bool> rejected;

  double Mean(double kappa, double sky) {
    rejected.assign(values.size(), false);
    const auto isFinite = [&](size_t i) { return std::isfinite(values[i]); };
    if (values.size() >= 3 && isFinite(0) && isFinite(1) && isFinite(2)) {
      Values three(values.begin(), values.begin() + 3), distances;
      std::sort(three.begin(), three.end());
      for (const double v : three) {
        distances.push_back(std::abs(v - three[1]));
      }
      std::sort(distances.begin(), distances.end());
      for (int i = 0; i < 3; ++i) {
        rejected[i] = std::abs(values[i] - three[1]) > kappa * std::max(noise[i], 1.4826 * distances[1]);
      }
    }
    std::vector<size_t> early;
    for (size_t i = 0; i < 3; ++i) {
      if (isFinite(i)) early.push_back(i);
    }
    const auto slack = [&](double a, double b) { return 2 * std::max(std::min(a, b) - sky, 0.0); };
    if (early.size() == 2 &&
        std::abs(values[early[0]] - values[early[1]]) > kappa * std::hypot(noise[early[0]], noise[early[1]]) +
                                                            slack(values[early[0]], values[early[1]])) {
      rejected[values[early[0]] > values[early[1]] ? early[0] : early[1]] = true;
    }
    double sum = 0, mean = 0, variance = 0;
    bool isAlone = false;
    for (size_t i = 0; i < values.size(); ++i) {
      if (!isFinite(i) || rejected[i]) continue;
      const double w = weights[i], far = kappa * std::max(noise[i], std::sqrt(variance)),
                   reach = far + (isAlone ? slack(values[i], mean) : 0);
      if (i >= 3 && isAlone && values[i] < mean - reach) {
        mean = values[i];
        sum = w;
        continue;
      }
      if (i >= 3 && sum > 0 && std::abs(values[i] - mean) > reach) {
        rejected[i] = true;
        isAlone = false;
        variance = (sum * variance + w * far * far) / (sum + w);
        continue;
      }
      const double before = mean;
      mean = (sum * mean + w * values[i]) / (sum + w);
      variance = (sum * variance + w * (values[i] - before) * (values[i] - mean)) / (sum + w);
      isAlone = sum == 0;
      sum += w;
    }
    return sum > 0 ? mean : NAN;
  }
};

TEST(RunningMean, IsThatOfPlainLoops) {
  constexpr int kFrames = 9;
  struct Case {
    Shape shape;
    double kappa;
  } cases[] = {{{37, 11, 1}, 3}, {{1, 23, 3}, 2.5}, {{64, 5, 3}, 4}, {{19, 1, 1}, 1e6}};
  for (const auto& [shape, kappa] : cases) {
    SCOPED_TRACE(shape.width);
    const auto store = test::MemoryStore();
    const RunningMean::PlaneValues sky{990, 1090, 1500};
    RunningMean mean(store, shape, kappa, sky);
    EXPECT_TRUE(mean.IsEmpty());
    // Noise with outliers, NaN and infinities; some pixels scatter more than the noise, and some have
    // nothing.
    const auto valueOf = [](int frame, int p, int x, int y) -> double {
      const auto random = [&](int k) {
        return test::Noise(7919ULL * frame + 104729ULL * p + 1299709ULL * x + 15485863ULL * y + k);
      };
      if ((x + 3 * y) % 17 == 4) return NAN;
      if (frame < 3 && (x + y) % 7 == 2 && frame != y % 3) return NAN;  // one of the first, or two
      if (random(0) < 0.06) return random(1) < 0.5 ? NAN : INFINITY;
      const double spread = (x + y) % 5 == 0 ? 40 : 4;
      return 1000 + 100 * p + spread * (random(2) + random(3) - 1) + (random(4) < 0.1 ? 300 : 0);
    };
    std::vector<std::vector<double>> shares;
    std::vector<RunningMean::PlaneValues> weights, noise;
    for (int i = 0; i < kFrames; ++i) {
      weights.push_back({1 + 0.3 * i, 2 - 0.1 * i, 0.5});
      noise.push_back({2 + 0.1 * i, 0.7, 0.9});
      auto image = NewImage(store, shape.width, shape.height, shape.planes);
      test::Paint(*image, [&](int p, int x, int y) { return valueOf(i, p, x, y); });
      shares.push_back(mean.Add(std::move(image), weights.back(), noise.back()));
      EXPECT_EQ(shares.back().size(), i < 2 ? 0U : i == 2 ? 3U : 1U);
    }
    // What the first three scatter about each other more than is told.
    RunningMean::PlaneValues scatter;
    for (int p = 0; p < shape.planes; ++p) {
      Values ratios;
      for (const auto& [i, k] : {std::pair(0, 1), {1, 2}, {0, 2}}) {
        Values distances;
        for (int y = 0; y < shape.height; ++y) {
          for (int x = 0; x < shape.width; ++x) {
            const double d =
                std::abs(static_cast<float>(valueOf(i, p, x, y)) - static_cast<float>(valueOf(k, p, x, y)));
            if (std::isfinite(d)) distances.push_back(d);
          }
        }
        std::sort(distances.begin(), distances.end());
        ratios.push_back(1.4826 * distances[distances.size() / 2] / std::hypot(noise[i][p], noise[k][p]));
      }
      std::sort(ratios.begin(), ratios.end());
      scatter[p] = std::max(ratios[1], 1.0);
    }
    std::vector<long long> rejected(kFrames);
    const auto result = mean.Mean();
    for (int p = 0; p < shape.planes; ++p) {
      for (int y = 0; y < shape.height; ++y) {
        for (int x = 0; x < shape.width; ++x) {
          Column column;
          for (int i = 0; i < kFrames; ++i) {
            column.values.push_back(static_cast<float>(valueOf(i, p, x, y)));
            column.weights.push_back(weights[i][p]);
            column.noise.push_back(noise[i][p] * scatter[p]);
          }
          const double wanted = column.Mean(kappa, sky[p]);
          const float found = result->GetLine(0, y, p)[x];
          ASSERT_EQ(std::isnan(found), std::isnan(wanted)) << p << ' ' << x << ' ' << y;
          if (std::isnan(wanted)) continue;
          ASSERT_NEAR(found, wanted, 2e-3) << p << ' ' << x << ' ' << y;
          for (int i = 0; i < kFrames; ++i) {
            rejected[i] += column.rejected[i];
          }
        }
      }
    }
    std::vector<double> found;
    for (const auto& judged : shares) {
      found.insert(found.end(), judged.begin(), judged.end());
    }
    ASSERT_EQ(found.size(), static_cast<size_t>(kFrames));
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_NEAR(found[i] * shape.width * shape.height * shape.planes, rejected[i], 1e-6) << i;
    }
    if (kappa < 10) {
      EXPECT_GT(rejected[0] + rejected[1] + rejected[2], 0);
    } else {
      EXPECT_EQ(std::count(rejected.begin(), rejected.end(), 0), kFrames);
    }
  }
}

TEST(RunningMean, FollowsValuesThatScatterMoreThanTheFirst) {
  constexpr int kWidth = 400, kFrames = 60;
  const auto store = test::MemoryStore();
  RunningMean mean(store, {kWidth, 1, 1}, 4, {5000, 5000, 5000});
  double last = 0;
  for (int i = 0; i < kFrames; ++i) {
    auto image = NewImage(store, kWidth, 1, 1);
    const double spread = i < 3 ? 1 : 200;
    test::Paint(*image, [&](int, int x, int) {
      return 5000 + (i < 3 ? 100 : 0) + spread * (test::Noise(1000 * i + x) - 0.5);
    });
    const auto shares = mean.Add(std::move(image), {1, 1, 1}, {1, 1, 1});
    if (!shares.empty()) last = shares.back();
  }
  EXPECT_LT(last, 0.02);
  const auto result = mean.Mean();
  double sum = 0;
  for (int x = 0; x < kWidth; ++x) {
    sum += result->GetLine(0, 0, 0)[x];
  }
  // Three of sixty lie 100 higher; the first values to follow are cut off.
  EXPECT_NEAR(sum / kWidth, 5005, 4);
}

}  // namespace
}  // namespace korimg::session
