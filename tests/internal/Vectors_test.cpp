#include "korimg/image/internal/Vectors.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

TEST(Vectors, PowersAreThoseOfTheStandardLibrary) {
  std::mt19937 random(3);
  std::uniform_real_distribution<double> logarithms(-40, 40), exponents(-10, 10);
  for (int i = 0; i < 100'000; ++i) {
    const double x = std::exp(logarithms(random)), y = exponents(random), power = std::pow(x, y);
    ASSERT_NEAR(korimg::PositivePower(x, y) / power, 1, 2e-13) << x << " to " << y;
  }
  for (const double x :
       {0x1p-1000, std::sqrt(0.5), std::nextafter(1.0, 0.0), 1.0, 1.5, std::sqrt(2.0), 3e38}) {
    EXPECT_NEAR(korimg::PositivePower(x, 1) / x, 1, 2e-13);
  }
  EXPECT_EQ(korimg::PositivePower(1e300, 9), 0x1p1000);
  EXPECT_EQ(korimg::PositivePower(1e300, -9), 0x1p-1000);
}
