#include "korimg/levels/CSpline.h"

#include <vector>

void CSpline::Init() {
  points_.RemoveAll();
  dirty_ = false;
}

std::int64_t CSpline::SetPoint(double x, double y, std::uint64_t type) {
  return SetPoint({x, y, type});
}

std::int64_t CSpline::SetPoint(tagSplinePoint point) {
  std::int64_t i = 0;
  while (i < points_.GetSize() && points_[i].x < point.x) {
    ++i;
  }
  if (i < points_.GetSize() && points_[i].x == point.x) return -1;
  points_.InsertAt(i, point);
  dirty_ = true;
  return i;
}

int CSpline::GetPoint(std::int64_t i, tagSplinePoint* point) const {
  if (i < 0 || i >= points_.GetSize()) return 0;
  *point = points_[i];
  return 1;
}

int CSpline::RemoveAtPoint(std::int64_t i, std::int64_t count) {
  const std::int64_t size = points_.GetSize();
  if (i < 0 || count < 0 || count > size || i > size - count) return 0;
  points_.RemoveAt(i, count);
  dirty_ = true;
  return 1;
}

void CSpline::RemoveAllPoint() {
  points_.RemoveAll();
  dirty_ = true;
}

int CSpline::CalcSpline(Points* points) {
  const auto n = points->GetSize();
  tagSplinePoint* p = points->GetData();
  if (n < 3) return 0;
  for (std::ptrdiff_t i = 0; i + 1 < n; ++i) {
    if (p[i].x > p[i + 1].x) return 0;
  }
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    p[i].second = p[i].first = p[i].quadratic = p[i].cubic = 0;
  }
  // lower[i] M[i - 1] + 2 M[i] + upper[i] M[i + 1] = right[i] for the inner points' second derivatives M:
  // elimination from the left, then substitution from the right.
  std::vector<double> upper(n), right(n);
  for (std::ptrdiff_t i = 1; i + 1 < n; ++i) {
    const double h0 = p[i].x - p[i - 1].x, h1 = p[i + 1].x - p[i].x;
    const double lower = h0 / (h0 + h1);
    const double r = ((p[i + 1].y - p[i].y) / h1 - (p[i].y - p[i - 1].y) / h0) / (h0 + h1) * 6.0;
    const double diagonal = 2.0 - lower * upper[i - 1];
    upper[i] = (1.0 - lower) / diagonal;
    right[i] = (r - lower * right[i - 1]) / diagonal;
  }
  for (std::ptrdiff_t i = n - 2; i > 0; --i) {
    p[i].second = right[i] - upper[i] * p[i + 1].second;
  }
  const double h = p[1].x - p[0].x;
  p[0].first = (p[1].y - p[0].y) / h - h * p[1].second / 6.0;
  for (std::ptrdiff_t i = 1; i < n; ++i) {
    const double width = p[i].x - p[i - 1].x;
    p[i].first = p[i - 1].first + (p[i - 1].second + p[i].second) * width * 0.5;
    p[i].quadratic = p[i - 1].second * 0.5;
    p[i].cubic = (p[i].second - p[i - 1].second) / (6.0 * width);
  }
  return 1;
}

double CSpline::GetValue(double x, Points* points, int* status) {
  int ignored;
  int& found = status ? *status : ignored;
  const auto n = points ? points->GetSize() : 0;
  if (n < 2) {
    found = -2;
    return 0.0;
  }
  const tagSplinePoint* p = points->GetData();
  if (x < p[0].x || x > p[n - 1].x) {
    found = -1;
    return 0.0;
  }
  found = 1;
  for (std::ptrdiff_t i = 0; i + 1 < n; ++i) {
    if (x == p[i].x) return p[i].y;
  }
  const auto line = [x](const tagSplinePoint& a, const tagSplinePoint& b) {
    return (b.y - a.y) / (b.x - a.x) * (x - a.x) + a.y;
  };
  if (n == 2) return line(p[0], p[1]);
  for (std::ptrdiff_t i = 1; i < n; ++i) {
    if (!(p[i - 1].x < x && x < p[i].x)) continue;
    const tagSplinePoint &left = p[i - 1], &right = p[i];
    const double d = x - left.x;
    switch (left.type) {
      case 0:
        return line(left, right);
      case 1:
        return ((d * right.cubic + right.quadratic) * d + left.first) * d + left.y;
      case 2:
        return left.y;
      case 3:
        return right.y;
    }
    break;
  }
  found = 0;
  return 0.0;
}

double CSpline::GetValue(double x, int* status) {
  if (dirty_ && !CalcSpline(&points_)) {
    if (status) *status = 0;
    return 0.0;
  }
  dirty_ = false;
  return GetValue(x, &points_, status);
}
