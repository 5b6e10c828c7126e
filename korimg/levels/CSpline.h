#pragma once

#include <cstdint>

#include "korimg/platform/CArray.h"

/// A point of a curve, and the kind of the segment to its right: 0 a straight line, 1 a natural cubic spline,
/// 2 holds this point's y, 3 holds the next one's.
struct tagSplinePoint {
  double x = 0, y = 0;
  std::uint64_t type = 0;
  /// Filled in by CSpline::CalcSpline: derivatives here, coefficients of the segment to the left.
  double second = 0, first = 0, quadratic = 0, cubic = 0;
};

/// Holds a curve through points in the order of their x, each segment of its own kind. Splines are natural:
/// their second derivative is 0 at both ends (de Boor, A Practical Guide to Splines, ch. IV).
class KORIMG_API CSpline {
 public:
  using Points = CArray<tagSplinePoint, tagSplinePoint>;

  void Init();
  /// Inserts a point and answers its index, or -1 when there is one with that x.
  std::int64_t SetPoint(double x, double y, std::uint64_t type);
  std::int64_t SetPoint(tagSplinePoint point);
  /// Answers 1 and the point, or 0 when there is no such one.
  int GetPoint(std::int64_t i, tagSplinePoint* point) const;
  std::int64_t GetPointCount() const { return points_.GetSize(); }
  /// Removes points; 1, or 0 when there are no such ones.
  int RemoveAtPoint(std::int64_t i, std::int64_t count);
  void RemoveAllPoint();

  /// Solves for the derivatives and coefficients of all points. 1, or 0 with fewer than 3 points, or when x
  /// descends anywhere.
  static int CalcSpline(Points* points);
  /// Answers the curve at x, with a status where one is asked for: 1 found; 0 x is the last point's, or its
  /// segment is of no known kind; -1 x is outside the points; -2 there are fewer than 2. All but 1 give 0.0.
  /// Splines need CalcSpline first; two points give the line between them.
  static double GetValue(double x, Points* points, int* status);
  /// Does the same on this curve, solved first when it has changed; status 0 and 0.0 when that failed.
  double GetValue(double x, int* status);

 private:
  Points points_;
  bool dirty_ = false;
};
