#pragma once

#include "korimg/platform/CPoint.h"
#include "korimg/platform/Export.h"

/// Holds a point both as whole numbers and as doubles. Whether a point is set is read from the whole numbers;
/// mapped reads use the doubles.
class KORIMG_API CfPoint : public CPoint {
 public:
  double fx = 0;
  double fy = 0;

  CfPoint() = default;
  CfPoint(int x, int y) { Set(x, y); }
  CfPoint(double x, double y) { Set(x, y); }
  CfPoint(const CfPoint&) = default;
  CfPoint& operator=(const CfPoint&) = default;
  virtual ~CfPoint() = default;

  void Set(int newX, int newY) {
    x = newX;
    y = newY;
    fx = newX;
    fy = newY;
  }
  /// Sets both; the whole numbers are the doubles truncated toward zero.
  void Set(double newX, double newY);
};
