#include "korimg/restoration/internal/GaussianBlur.h"

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// The weights of a Gaussian of a whole of 1, from the middle out.
std::vector<double> Weights(double sigma) {
  const int reach = static_cast<int>(std::min(std::ceil(6 * sigma), 31.0));
  std::vector<double> weights;
  double sum = 0;
  for (int x = 0; x <= reach; ++x) {
    weights.push_back(std::exp(-x * x / (2 * sigma * sigma)));
    sum += weights[x] * (x ? 2 : 1);
  }
  for (double& w : weights) {
    w /= sum;
  }
  return weights;
}

TEST(GaussianBlur, IsTheDirectSum) {
  for (const auto& [width, height] : {std::pair(16, 16), {48, 16}, {16, 272}, {512, 32}, {240, 480}}) {
    for (const double sigma : {0.1, 0.5, 2.0, 5.3, 40.0}) {
      const size_t cells = static_cast<size_t>(width) * height;
      std::vector<float> in(cells), between(cells), out(cells);
      for (size_t i = 0; i < cells; ++i) {
        in[i] = static_cast<float>(Noise(i) * 1000);
      }
      const GaussianBlur blur(sigma);
      const auto weights = Weights(sigma);
      EXPECT_EQ(blur.Reach(), static_cast<int>(weights.size()) - 1);
      blur.Run(in.data(), between.data(), out.data(), width, height);
      // Rows and columns by themselves.
      const auto sum = [&, width = width, height = height](const std::vector<double>& from, int x, int y,
                                                           int dx, int dy) {
        double value = 0;
        for (int i = -blur.Reach(); i <= blur.Reach(); ++i) {
          const int column = x + i * dx, row = y + i * dy;
          if (column < 0 || row < 0 || column >= width || row >= height) continue;
          value += weights[std::abs(i)] * from[static_cast<size_t>(row) * width + column];
        }
        return value;
      };
      const std::vector<double> exact(in.begin(), in.end());
      std::vector<double> rows(cells);
      for (size_t i = 0; i < cells; ++i) {
        rows[i] = sum(exact, static_cast<int>(i % width), static_cast<int>(i / width), 1, 0);
      }
      for (size_t i = 0; i < cells; ++i) {
        ASSERT_NEAR(out[i], sum(rows, static_cast<int>(i % width), static_cast<int>(i / width), 0, 1), 1e-3)
            << width << " x " << height << ", sigma " << sigma << ", cell " << i;
      }
      const WithThreads team(7);
      blur.Run(in.data(), between.data(), in.data(), width, height);
      EXPECT_EQ(in, out) << "in place, on seven threads";
    }
  }
}

}  // namespace
