// Points of a plane, found by their neighbourhood. Internal.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/geometry/Point.h"

namespace korimg {

/// Holds points sorted into square cells of about two each.
class PointGrid {
 public:
  explicit PointGrid(std::vector<Point> points) : points_(std::move(points)) {
    if (points_.empty()) return;
    double right = points_[0].x, bottom = points_[0].y;
    left_ = right;
    top_ = bottom;
    for (const Point& p : points_) {
      left_ = std::min(left_, p.x);
      right = std::max(right, p.x);
      top_ = std::min(top_, p.y);
      bottom = std::max(bottom, p.y);
    }
    const double width = right - left_, height = bottom - top_, n = static_cast<double>(points_.size());
    // Points in a line have no area, and still no more cells than points.
    cell_ = std::max({std::sqrt(2 * width * height / n), 2 * std::max(width, height) / n, 1e-6});
    columns_ = static_cast<int>(width / cell_) + 1;
    rows_ = static_cast<int>(height / cell_) + 1;
    first_.assign(static_cast<size_t>(columns_) * rows_ + 1, 0);
    for (const Point& p : points_) {
      ++first_[CellOf(p) + 1];
    }
    for (size_t i = 1; i < first_.size(); ++i) {
      first_[i] += first_[i - 1];
    }
    order_.resize(points_.size());
    std::vector<int> next(first_.begin(), first_.end() - 1);
    for (size_t i = 0; i < points_.size(); ++i) {
      order_[next[CellOf(points_[i])]++] = static_cast<int>(i);
    }
  }

  const std::vector<Point>& Points() const { return points_; }

  /// Calls visit(index, square of the distance) for the points within a radius.
  template <class F>
  void ForNear(const Point& p, double radius, F&& visit) const {
    const int x0 = Column(p.x - radius), x1 = Column(p.x + radius), y0 = Row(p.y - radius),
              y1 = Row(p.y + radius);
    for (int y = std::max(y0, 0); y <= std::min(y1, rows_ - 1); ++y) {
      for (int x = std::max(x0, 0); x <= std::min(x1, columns_ - 1); ++x) {
        const size_t cell = static_cast<size_t>(y) * columns_ + x;
        for (int k = first_[cell]; k < first_[cell + 1]; ++k) {
          const double dx = points_[order_[k]].x - p.x, dy = points_[order_[k]].y - p.y;
          if (dx * dx + dy * dy <= radius * radius) visit(order_[k], dx * dx + dy * dy);
        }
      }
    }
  }

  /// Answers the nearest within a radius, or -1.
  int Nearest(const Point& p, double radius) const {
    int best = -1;
    double least = 0;
    ForNear(p, radius, [&](int i, double distance2) {
      if (best >= 0 && distance2 >= least) return;
      best = i;
      least = distance2;
    });
    return best;
  }

 private:
  /// Limits a place before it becomes a whole number; in this order of arguments NaN is outside.
  static int Cell(double along, int count) {
    return static_cast<int>(std::min(std::max(-1.0, std::floor(along)), count * 1.0));
  }
  int Column(double x) const { return Cell((x - left_) / cell_, columns_); }
  int Row(double y) const { return Cell((y - top_) / cell_, rows_); }
  size_t CellOf(const Point& p) const { return static_cast<size_t>(Row(p.y)) * columns_ + Column(p.x); }

  std::vector<Point> points_;
  double left_ = 0, top_ = 0, cell_ = 1;
  int columns_ = 0, rows_ = 0;
  std::vector<int> first_, order_;  ///< of each cell in the order of cells
};

}  // namespace korimg
