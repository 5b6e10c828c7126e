#pragma once

/// A point in image coordinates, y downward.
class CPoint {
 public:
  int x = 0;
  int y = 0;

  CPoint() = default;
  CPoint(int x, int y) : x(x), y(y) {}
  bool operator==(const CPoint&) const = default;
};
