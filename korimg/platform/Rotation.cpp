#include "korimg/platform/Rotation.h"

#include <cmath>
#include <numbers>

namespace {
constexpr double kRadian = std::numbers::pi / 180;
}

Direction AdToDc(double longitude, double latitude) {
  const double l = longitude * kRadian, b = latitude * kRadian;
  return {std::cos(b) * std::cos(l), std::cos(b) * std::sin(l), std::sin(b)};
}

Direction RotateDc(const Rotation& m, const Direction& d) {
  const auto row = [&](int i) { return m[i][0] * d[0] + m[i][1] * d[1] + m[i][2] * d[2]; };
  return {row(0), row(1), row(2)};
}

Rotation RotateX(double angle) {
  const double c = std::cos(angle * kRadian), s = std::sin(angle * kRadian);
  return {{{1, 0, 0}, {0, c, -s}, {0, s, c}}};
}

Rotation RotateY(double angle) {
  const double c = std::cos(angle * kRadian), s = std::sin(angle * kRadian);
  return {{{c, 0, s}, {0, 1, 0}, {-s, 0, c}}};
}

Rotation MulMatrix(const Rotation& a, const Rotation& b) {
  Rotation product{};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      product[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
    }
  }
  return product;
}
