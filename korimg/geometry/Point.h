#pragma once

#include <cmath>

namespace korimg {

/// A place in an image, in pixels: the middle of the first one is (0, 0), and y counts downward.
struct Point {
  double x = 0, y = 0;
};

/// Answers the length of a vector: std::hypot guards squares against overflow, and is slow.
inline double Length(double x, double y) {
  return std::sqrt(x * x + y * y);
}
inline double Distance(const Point& p, const Point& q) {
  return Length(p.x - q.x, p.y - q.y);
}

}  // namespace korimg
