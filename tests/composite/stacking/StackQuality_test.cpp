#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "korimg/calibration/MedianOfFrames.h"
#include "korimg/composite/stacking/CImgStack.h"
#include "korimg/geometry/CInterp.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kRows = 16;

/// A frame, and how it lies.
struct Laid {
  std::shared_ptr<CVelImage> pixels, variances;
  std::vector<CImgStack::Mark> marks;
  double dx = 0, dy = 0, degrees = 0;
};

/// The stack of frames by bands, with its quality.
struct Stacked {
  std::shared_ptr<CVelImage> target, variance, flags;

  Stacked(const std::vector<Laid>& frames, CImgStack::Method method, const Rejection& rejection, int kernel,
          const std::vector<CImgStack::PlaneWeights>& weights, bool normalises = false) {
    const CVelImage& first = *frames[0].pixels;
    const int width = first.GetWidth(), height = first.GetHeight(), planes = first.GetPlanes();
    const auto fresh = [&] { return Make(MemoryStore(), width, height, planes, Wild(0, 1)); };
    target = fresh(), variance = fresh(), flags = fresh();
    CImgStack stack(target.get());
    EXPECT_EQ(stack.AllocateStoreBuffer(target.get(), static_cast<int>(frames.size()), kRows), 1);
    stack.SetWeights(weights);
    stack.SetOutside(NAN);
    stack.SetQualityMaps(variance.get(), flags.get());
    double level[] = {20, 20, 20}, spread[] = {3, 3, 3};
    if (normalises) stack.SetRefNormalizeParam(level, spread);
    for (size_t i = 0; normalises && i < frames.size(); ++i) {
      double own[] = {20, 20, 20}, ownSpread[] = {1.0 + i, 2.0 + i, 3.0 + i};
      stack.AddNormalizeParam(own, ownSpread);
    }
    for (int y = 0; y < height; y += kRows) {
      for (size_t i = 0; i < frames.size(); ++i) {
        const Laid& f = frames[i];
        const auto slot = static_cast<int>(i);
        stack.Store(slot, f.pixels.get(), y, y + kRows - 1, f.dx, f.dy, f.degrees * std::numbers::pi / 180,
                    kernel);
        stack.StoreQuality(slot, f.variances.get(), f.marks, y, y + kRows - 1,
                           CFrameMap::FromPose(f.dx, f.dy, f.degrees, width, height), kernel, width, height);
      }
      stack.Stack(method, rejection, y, y + kRows - 1);
    }
  }
};

float At(const std::shared_ptr<CVelImage>& image, int x, int y, int p = 0) {
  return *image->GetLine(x, y, p);
}

/// Whole shifts, holes, marks and outliers so far off that no test disagrees on them.
TEST(StackQuality, VariancesAddWithTheSquaresOfWeightsAndScalesOfWhatIsLeft) {
  constexpr int kWidth = 701, kHeight = 37, kFrames = 6;
  // By places on the target.
  const auto outlier = [](int i, int u, int v) {
    const int x = u + i - 2, y = v + 3 - 2 * i;
    return (x * 7 + y * 3) % 11 == 0 && i < (x + y) % 4;
  };
  const auto pixel = [&](int i) {
    return [=](int p, int x, int y) -> double {
      if ((x + 2 * y + 5 * i) % 13 == 0) return NAN;
      return outlier(i, x, y) ? 1020 + p : 20;
    };
  };
  const auto variance = [](int i) {
    return [i](int p, int x, int y) { return 1 + i + 0.25 * ((x * 5 + y * 11 + p) % 17); };
  };
  std::vector<Laid> frames;
  std::vector<CImgStack::PlaneWeights> weights;
  for (int i = 0; i < kFrames; ++i) {
    frames.push_back({Make(MemoryStore(), kWidth, kHeight, 3, pixel(i)),
                      Make(MemoryStore(), kWidth, kHeight, 3, variance(i)),
                      {{100 + i, 5, 1}, {300, 20 + i, 2}},
                      i - 2.0,
                      3.0 - 2 * i});
    weights.push_back({1.0 + i, 2.5, 1.0 / (1 + i)});
  }
  constexpr double kFactors[3][kFrames] = {
      {3, 1.5, 1, 0.75, 0.6, 0.5}, {1.5, 1, 0.75, 0.6, 0.5, 3.0 / 7}, {1, 0.75, 0.6, 0.5, 3.0 / 7, 3.0 / 8}};
  constexpr Rejection kClip{Rejection::Sigma, 1.2, 1.2, 8};
  const struct {
    CImgStack::Method method;
    Rejection rejection;
    bool rejects;
  } kCases[] = {{CImgStack::Mean, {Rejection::None}, false},
                {CImgStack::Mean, kClip, true},
                {CImgStack::Median, {Rejection::None}, false}};
  for (const auto& [method, rejection, rejects] : kCases) {
    const Stacked got(frames, method, rejection, CInterp::MethodBicubic, weights, true);
    int wrong = 0, marked = 0, many = 0, lost = 0;
    for (int p = 0; p < 3; ++p) {
      for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
          double sum = 0, all = 0, plain = 0;
          int n = 0, high = 0, flags = 0;
          for (int i = 0; i < kFrames; ++i) {
            const int u = x - (i - 2), v = y - (3 - 2 * i);
            if (u < 0 || v < 0 || u >= kWidth || v >= kHeight || std::isnan(pixel(i)(p, u, v))) continue;
            ++n;
            const double own = variance(i)(p, u, v) * kFactors[p][i] * kFactors[p][i];
            plain += own;
            // Normalising makes outliers of 375 and more of all of them.
            if (rejects && outlier(i, u, v)) {
              ++high;
              continue;
            }
            const double w = method == CImgStack::Mean ? weights[i][p] : 1;
            sum += w * w * own;
            all += w;
            for (const CImgStack::Mark& mark : frames[i].marks) {
              if (mark.x == u && mark.y == v && mark.plane == p) flags |= CImgStack::Marked;
            }
          }
          // With most values far off, which of them are outliers is for the tests of rejection.
          if (high > 0 && (n - high < 3 || high > 2)) continue;
          if (n == 0) flags = CImgStack::NoValue;
          if (3 * high >= n && high > 0) flags |= CImgStack::ManyHigh;
          const double expected =
              method == CImgStack::Mean ? sum / (all * all) : plain / n * MedianVariance(n);
          const float found = At(got.variance, x, y, p);
          const bool isSame = n == 0 ? std::isnan(found) : std::abs(found - expected) <= 1e-5 * expected;
          wrong += !isSame || At(got.flags, x, y, p) != static_cast<float>(flags);
          marked += (flags & CImgStack::Marked) != 0;
          many += (flags & CImgStack::ManyHigh) != 0;
          lost += high > 0;
          if (wrong == 1) {
            ASSERT_TRUE(isSame && At(got.flags, x, y, p) == static_cast<float>(flags))
                << method << " at " << x << ", " << y << ", " << p << ": " << found << " for " << expected
                << ", flags " << At(got.flags, x, y, p) << " for " << flags << ", " << n << " values, "
                << high << " rejected";
          }
        }
      }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(marked, 8);
    EXPECT_EQ(lost > 300, rejects);
    EXPECT_EQ(many > 10, rejects);
  }
}

/// Keys' kernel.
double Keys(double t) {
  t = std::abs(t);
  if (t < 1) return 1.5 * t * t * t - 2.5 * t * t + 1;
  return t < 2 ? -0.5 * t * t * t + 2.5 * t * t - 4 * t + 2 : 0;
}

TEST(StackQuality, WhatIsReadBetweenPixelsHasTheirVariancesBySquaresOfTheKernelAndTheirMarks) {
  constexpr int kWidth = 83, kHeight = 47;
  const auto variance = [](int, int x, int y) { return 2 + (x * 13 + y * 29) % 31; };
  const std::vector<CImgStack::Mark> marks = {{20, 10, 0}, {21, 10, 0}, {0, 0, 0}, {82, 46, 0}, {60, 30, 0}};
  for (const auto& [dx, dy, degrees] :
       {std::array{0.37, -2.61, 0.0}, std::array{-5.25, 3.5, 11.0}, std::array{0.0, 0.0, 180.0}}) {
    const std::vector<Laid> frames = {{Make(MemoryStore(), kWidth, kHeight, 1, Random(10, 20)),
                                       Make(MemoryStore(), kWidth, kHeight, 1, variance), marks, dx, dy,
                                       degrees}};
    const Stacked got(frames, CImgStack::Mean, {Rejection::None}, CInterp::MethodBicubic, {{1, 1, 1}});
    const double angle = degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
    int reached = 0, marked = 0;
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const double a = x - kWidth * 0.5 - dx, b = y - kHeight * 0.5 - dy;
        const double u = c * a + s * b + kWidth * 0.5, v = -s * a + c * b + kHeight * 0.5;
        if (std::isnan(At(got.target, x, y))) {
          EXPECT_TRUE(std::isnan(At(got.variance, x, y)));
          EXPECT_EQ(At(got.flags, x, y), CImgStack::NoValue);
          continue;
        }
        ++reached;
        double expected = 0;
        bool isMarked = false, isDoubtful = false;
        for (int j = static_cast<int>(std::floor(v)) - 1; j <= std::floor(v) + 2; ++j) {
          for (int i = static_cast<int>(std::floor(u)) - 1; i <= std::floor(u) + 2; ++i) {
            const double w = Keys(u - i) * Keys(v - j);
            const int column = std::clamp(i, 0, kWidth - 1), row = std::clamp(j, 0, kHeight - 1);
            expected += w * w * variance(0, column, row);
          }
        }
        for (const CImgStack::Mark& mark : marks) {
          const double w = std::abs(Keys(u - mark.x) * Keys(v - mark.y));
          isMarked |= w > 1e-6;
          // Where a pixel's own weight is next to nothing rounding decides.
          isDoubtful |= w < 1e-4 && std::abs(u - mark.x) < 2.001 && std::abs(v - mark.y) < 2.001;
        }
        ASSERT_NEAR(At(got.variance, x, y), expected, 2e-3 * expected) << x << ", " << y << ", " << degrees;
        marked += isMarked;
        if (!isDoubtful) {
          ASSERT_EQ(At(got.flags, x, y), isMarked ? CImgStack::Marked : 0)
              << x << ", " << y << ", " << degrees;
        }
      }
    }
    EXPECT_GT(reached, kWidth * kHeight / 2);
    EXPECT_GT(marked, degrees == 180 ? 3 : 25);
  }
}

}  // namespace
