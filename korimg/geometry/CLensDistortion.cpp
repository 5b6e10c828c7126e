#include "korimg/geometry/CLensDistortion.h"

#include <algorithm>
#include <cmath>

using korimg::Length;
using korimg::Point;

CLensDistortion CLensDistortion::Of(int width, int height, const Numbers& numbers) {
  return {{(width - 1) * 0.5, (height - 1) * 0.5}, std::max(Length(width, height) / 2, 1.0), numbers};
}

bool CLensDistortion::operator==(const CLensDistortion& other) const {
  if (IsNone() && other.IsNone()) return true;
  return centre_.x == other.centre_.x && centre_.y == other.centre_.y && scale_ == other.scale_ &&
         numbers_ == other.numbers_;
}

CLensDistortion::Factors CLensDistortion::FactorsAt(Point pixel) const {
  const double x = (pixel.x - centre_.x) / scale_, y = (pixel.y - centre_.y) / scale_, r2 = x * x + y * y;
  return {{{x * r2, y * r2}, {x * r2 * r2, y * r2 * r2}, {x * r2 * r2 * r2, y * r2 * r2 * r2}},
          {x * x, x * y, y * y, x * x * x, x * x * y, x * y * y, y * y * y}};
}

Point CLensDistortion::Straight(Point pixel, Jacobian* jacobian) const {
  if (jacobian) *jacobian = {};
  if (IsNone()) return pixel;
  double x = (pixel.x - centre_.x) / scale_, y = (pixel.y - centre_.y) / scale_;
  const double r = Length(x, y), beyond = std::max(r - kReach, 0.0);
  if (beyond > 0) {
    x *= kReach / r;
    y *= kReach / r;
  }
  const double r2 = x * x + y * y, *k = numbers_.data();
  const double radial = r2 * (k[0] + r2 * (k[1] + r2 * k[2]));
  const double slope = 2 * (k[0] + r2 * (2 * k[1] + r2 * 3 * k[2]));  // of it, by r2, twice
  double off[2], by[2][2];
  for (int axis = 0; axis < 2; ++axis) {
    const double* c = k + kRadial + axis * kTerms;
    const double along = axis == 0 ? x : y;
    off[axis] = along * radial + x * (c[0] * x + c[1] * y) + c[2] * y * y + x * x * (c[3] * x + c[4] * y) +
                y * y * (c[5] * x + c[6] * y);
    by[axis][0] = along * slope * x + (axis == 0 ? radial : 0) + 2 * c[0] * x + c[1] * y + 3 * c[3] * x * x +
                  2 * c[4] * x * y + c[5] * y * y;
    by[axis][1] = along * slope * y + (axis == 1 ? radial : 0) + c[1] * x + 2 * c[2] * y + c[4] * x * x +
                  2 * c[5] * x * y + 3 * c[6] * y * y;
  }
  if (beyond > 0) {
    for (int axis = 0; axis < 2; ++axis) {
      off[axis] += beyond / kReach * (by[axis][0] * x + by[axis][1] * y);
    }
  }
  if (jacobian) *jacobian = {1 + by[0][0], by[0][1], by[1][0], 1 + by[1][1]};
  return {pixel.x + scale_ * off[0], pixel.y + scale_ * off[1]};
}

std::optional<Point> CLensDistortion::Bent(Point straight) const {
  if (IsNone()) return straight;
  constexpr int kRounds = 50;     // chosen: Newton's steps converge in few, or nowhere
  constexpr double kNear = 1e-7;  // pixels
  Point pixel = straight;
  for (int round = 0; round < kRounds; ++round) {
    Jacobian j;
    const Point now = Straight(pixel, &j);
    const double dx = straight.x - now.x, dy = straight.y - now.y, determinant = j.Determinant();
    if (!(determinant > 0)) return std::nullopt;
    pixel.x += (j.yy * dx - j.xy * dy) / determinant;
    pixel.y += (j.xx * dy - j.yx * dx) / determinant;
    if (std::abs(dx) + std::abs(dy) < kNear) return pixel;
  }
  return std::nullopt;
}

bool CLensDistortion::IsSound(int width, int height) const {
  constexpr int kSteps = 32;      // chosen: many for terms of the third and the seventh degree
  constexpr double kLeast = 0.2;  // of an area; chosen
  for (int i = 0; i <= kSteps; ++i) {
    for (int k = 0; k <= kSteps; ++k) {
      Jacobian j;
      Straight({1.0 * (width - 1) * i / kSteps, 1.0 * (height - 1) * k / kSteps}, &j);
      if (!(j.Determinant() > kLeast && j.xx > 0 && j.yy > 0)) return false;
    }
  }
  return true;
}
