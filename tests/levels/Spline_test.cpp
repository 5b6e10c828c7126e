#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "korimg/levels/CSpline.h"

namespace {

/// A natural spline by its definition: all coefficients of all segments as the unknowns of one dense system.
class DenseSpline {
 public:
  explicit DenseSpline(std::vector<std::pair<double, double>> points) : points_(std::move(points)) {
    const size_t segments = points_.size() - 1, n = 4 * segments;
    std::vector<std::vector<double>> m(n, std::vector<double>(n + 1));
    size_t row = 0;
    for (size_t s = 0; s < segments; ++s) {
      const double h = points_[s + 1].first - points_[s].first;
      m[row][4 * s] = 1, m[row++][n] = points_[s].second;
      for (int k = 0; k < 4; ++k) {
        m[row][4 * s + k] = std::pow(h, k);
      }
      m[row++][n] = points_[s + 1].second;
      if (s + 1 == segments) break;
      m[row][4 * s + 1] = 1, m[row][4 * s + 2] = 2 * h, m[row][4 * s + 3] = 3 * h * h,
                     m[row++][4 * s + 5] = -1;
      m[row][4 * s + 2] = 2, m[row][4 * s + 3] = 6 * h, m[row++][4 * s + 6] = -2;
    }
    const double last = points_[segments].first - points_[segments - 1].first;
    m[row++][2] = 1;
    m[row][n - 2] = 2, m[row++][n - 1] = 6 * last;
    for (size_t i = 0; i < n; ++i) {
      size_t best = i;
      for (size_t j = i; j < n; ++j) {
        if (std::abs(m[j][i]) > std::abs(m[best][i])) best = j;
      }
      std::swap(m[i], m[best]);
      for (size_t j = 0; j < n; ++j) {
        const double f = j == i ? 0 : m[j][i] / m[i][i];
        for (size_t k = i; k <= n && f != 0; ++k) {
          m[j][k] -= f * m[i][k];
        }
      }
    }
    for (size_t i = 0; i < n; ++i) {
      coefficients_.push_back(m[i][n] / m[i][i]);
    }
  }

  double operator()(double x) const {
    size_t s = 0;
    while (s + 2 < points_.size() && x > points_[s + 1].first) {
      ++s;
    }
    const double d = x - points_[s].first;
    const double* c = &coefficients_[4 * s];
    return c[0] + d * (c[1] + d * (c[2] + d * c[3]));
  }

 private:
  std::vector<std::pair<double, double>> points_;
  std::vector<double> coefficients_;
};

TEST(CSpline, NaturalSplinesAgreeWithADenseSolution) {
  const std::vector<std::vector<std::pair<double, double>>> cases = {
      {{0, 0}, {0.2, 0.35}, {1, 1}},
      {{-3, 5}, {-1, -2}, {0, 0}, {4, 9}, {4.5, 8}, {20, 7}},
      {{0, 1}, {1, 1}, {2, 1}, {3, 1}}};
  for (const auto& points : cases) {
    CSpline spline;
    // Points may come in any order.
    for (size_t i = 0; i < points.size(); ++i) {
      const auto& [x, y] = points[(i * 5 + 2) % points.size()];
      spline.SetPoint(x, y, 1);
    }
    if (spline.GetPointCount() < static_cast<std::int64_t>(points.size())) {
      for (const auto& [x, y] : points) {
        spline.SetPoint(x, y, 1);
      }
    }
    ASSERT_EQ(spline.GetPointCount(), static_cast<std::int64_t>(points.size()));
    const DenseSpline expected(points);
    const double first = points.front().first, last = points.back().first;
    for (int i = 0; i < 1000; ++i) {
      const double x = first + (last - first) * i / 1000;
      int status = 0;
      ASSERT_NEAR(spline.GetValue(x, &status), expected(x), 1e-9) << x;
      ASSERT_EQ(status, 1);
    }
  }
}

TEST(CSpline, EachSegmentIsOfTheKindOfItsLeftPoint) {
  CSpline spline;
  EXPECT_EQ(spline.SetPoint(0, 0, 0), 0);
  EXPECT_EQ(spline.SetPoint(3, 9, 9), 1);
  EXPECT_EQ(spline.SetPoint(1, 2, 2), 1);
  EXPECT_EQ(spline.SetPoint(2, 6, 3), 2);
  EXPECT_EQ(spline.SetPoint(4, 1, 0), 4);
  EXPECT_EQ(spline.SetPoint(2, 100, 0), -1);
  EXPECT_EQ(spline.GetPointCount(), 5);
  const struct {
    double x, y;
    int status;
  } cases[] = {{0, 0, 1},    {0.25, 0.5, 1}, {1, 2, 1},   {1.5, 2, 1},
               {2, 6, 1},    {2.5, 9, 1},    {3.5, 0, 0},  // of no known kind
               {4, 0, 0},                                  // the last point
               {4.1, 0, -1}, {-0.1, 0, -1}};
  for (const auto& c : cases) {
    int status = 7;
    EXPECT_EQ(spline.GetValue(c.x, &status), c.y) << c.x;
    EXPECT_EQ(status, c.status) << c.x;
    EXPECT_EQ(spline.GetValue(c.x, nullptr), c.y);
  }
  tagSplinePoint point;
  EXPECT_TRUE(spline.GetPoint(1, &point));
  EXPECT_EQ(point.x, 1);
  EXPECT_FALSE(spline.GetPoint(5, &point));
  EXPECT_FALSE(spline.RemoveAtPoint(4, 2));
  EXPECT_TRUE(spline.RemoveAtPoint(1, 3));
  EXPECT_EQ(spline.GetPointCount(), 2);
}

TEST(CSpline, FewPointsAndDescendingOnes) {
  CSpline spline;
  int status = 7;
  EXPECT_EQ(CSpline::GetValue(0, nullptr, &status), 0);
  EXPECT_EQ(status, -2);
  spline.SetPoint(1, 10, 1);
  spline.SetPoint(3, 20, 1);
  EXPECT_EQ(spline.GetValue(2, &status), 0);  // solving wants three
  EXPECT_EQ(status, 0);
  CSpline::Points points;
  points.Add({1, 10, 1});
  points.Add({3, 20, 1});
  EXPECT_EQ(CSpline::CalcSpline(&points), 0);
  EXPECT_EQ(CSpline::GetValue(2, &points, &status), 15);
  EXPECT_EQ(status, 1);
  points.Add({2, 0, 1});
  EXPECT_EQ(CSpline::CalcSpline(&points), 0);
  EXPECT_THROW(
      try { points[3]; } catch (CInvalidArgException* e) {
        e->Delete();
        throw 0;
      },
      int);
}

}  // namespace
