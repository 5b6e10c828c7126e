// Surfaces through values at some places of an image: polynomials, and thin plates on them. Internal.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <utility>
#include <vector>

#include "korimg/image/internal/Vectors.h"

namespace korimg {

/// Solves for x in A x = b, A of n rows, x in the place of b; false when it is singular. A is used up.
inline bool Solve(std::vector<double>& a, std::vector<double>& b) {
  const size_t n = b.size();
  for (size_t i = 0; i < n; ++i) {
    size_t pivot = i;
    for (size_t row = i + 1; row < n; ++row) {
      if (std::abs(a[row * n + i]) > std::abs(a[pivot * n + i])) pivot = row;
    }
    if (!(std::abs(a[pivot * n + i]) > 1e-300)) return false;
    if (pivot != i) {
      std::swap_ranges(&a[i * n], &a[i * n] + n, &a[pivot * n]);
      std::swap(b[i], b[pivot]);
    }
    for (size_t row = i + 1; row < n; ++row) {
      const double factor = a[row * n + i] / a[i * n + i];
      if (factor == 0) continue;
      for (size_t column = i; column < n; ++column) {
        a[row * n + column] -= factor * a[i * n + column];
      }
      b[row] -= factor * b[i];
    }
  }
  for (size_t i = n; i-- > 0;) {
    for (size_t column = i + 1; column < n; ++column) {
      b[i] -= a[i * n + column] * b[column];
    }
    b[i] /= a[i * n + i];
  }
  return true;
}

/// Fits a smooth surface over an image, in coordinates from about -1 to 1.
class SmoothSurface {
 public:
  static constexpr int kPlaneNumbers = 3;  ///< of 1, u and v
  static constexpr int kMostDegree = 4;

  /// Answers how many numbers a polynomial of u and v has.
  static constexpr int NumbersOf(int degree) { return (degree + 1) * (degree + 2) / 2; }

  SmoothSurface(int degree, int width, int height)
      : degree_(degree),
        scale_(2.0 / std::max(width, height)),
        middleX_(width / 2.0),
        middleY_(height / 2.0),
        numbers_(NumbersOf(degree)) {}

  /// Takes the numbers of a polynomial: of 1, u, v, u^2, u v, v^2 and so on.
  void SetNumbers(std::vector<double> numbers) { numbers_ = std::move(numbers); }

  /// Fits a polynomial to values at the x and y of boxes, those of weight 0 left out; false when they do not
  /// suffice.
  template <class Box>
  bool Fit(const std::vector<Box>& boxes, const std::vector<double>& values,
           const std::vector<double>& weights) {
    knots_.clear();
    const int count = NumbersOf(degree_);
    std::vector<double> normal(static_cast<size_t>(count) * count), right(count);
    for (size_t k = 0; k < boxes.size(); ++k) {
      if (!(weights[k] > 0)) continue;
      double powers[kMostNumbers];
      Powers((boxes[k].x - middleX_) * scale_, (boxes[k].y - middleY_) * scale_, powers);
      for (int i = 0; i < count; ++i) {
        for (int j = 0; j < count; ++j) {
          normal[static_cast<size_t>(i) * count + j] += weights[k] * powers[i] * powers[j];
        }
        right[i] += weights[k] * powers[i] * values[k];
      }
    }
    if (!Solve(normal, right)) return false;
    numbers_ = right;
    return true;
  }

  /// Adds a plate that smooths what the polynomial leaves: the more smoothing, from 0 to 1, the less of it.
  template <class Box>
  bool AddPlate(const std::vector<Box>& boxes, const std::vector<double>& values,
                const std::vector<double>& weights, double smoothing) {
    std::vector<double> right;
    std::vector<Knot> knots;
    for (size_t k = 0; k < boxes.size(); ++k) {
      if (!(weights[k] > 0)) continue;
      knots.push_back({(boxes[k].x - middleX_) * scale_, (boxes[k].y - middleY_) * scale_, 0});
      right.push_back(values[k] - At(boxes[k].x, boxes[k].y));
    }
    const size_t count = knots.size(), n = count + kPlaneNumbers;
    // It stands beside sums over all boxes; measured on the gradients of the tests.
    smoothing *= static_cast<double>(count) * 0.1;
    std::vector<double> a(n * n);
    right.resize(n);
    for (size_t i = 0; i < count; ++i) {
      for (size_t j = 0; j < count; ++j) {
        a[i * n + j] = Bend(knots[i].u - knots[j].u, knots[i].v - knots[j].v);
      }
      a[i * n + i] += smoothing;
      const double plane[] = {1, knots[i].u, knots[i].v};
      for (int j = 0; j < kPlaneNumbers; ++j) {
        a[i * n + count + j] = a[(count + j) * n + i] = plane[j];
      }
    }
    if (!Solve(a, right)) return false;
    for (size_t i = 0; i < count; ++i) {
      knots[i].weight = right[i];
    }
    for (int i = 0; i < kPlaneNumbers; ++i) {
      numbers_[i] += right[count + i];
    }
    knots_ = std::move(knots);
    return true;
  }

  /// Writes the polynomial at the middles of some pixels of a row.
  void Row(int y, int x, std::span<float> out) const {
    const auto v = PowersOf((y + 0.5 - middleY_) * scale_);
    float along[kMostDegree + 1] = {};  // of the powers of u
    for (int total = 0, n = 0; total <= degree_; ++total) {
      for (int i = 0; i <= total; ++i) {
        along[total - i] += static_cast<float>(numbers_[n++] * v[i]);
      }
    }
    const auto scale = static_cast<float>(scale_), middle = static_cast<float>(middleX_ - 0.5);
    float* const values = out.data();
    const auto count = static_cast<int>(out.size());
    RunInLongVectors([=, &along]() KORIMG_IN_LOOP {
      for (int k = 0; k < count; ++k) {
        const float u = (static_cast<float>(x + k) - middle) * scale;
        values[k] = (((along[4] * u + along[3]) * u + along[2]) * u + along[1]) * u + along[0];
      }
    });
  }

  static constexpr int kMostNumbers = (kMostDegree + 1) * (kMostDegree + 2) / 2;

  /// Answers what the numbers of the polynomial are multiplied by at a place.
  std::array<double, kMostNumbers> TermsAt(double x, double y) const {
    std::array<double, kMostNumbers> terms{};
    Powers((x - middleX_) * scale_, (y - middleY_) * scale_, terms.data());
    return terms;
  }

  double At(double x, double y) const {
    const double u = (x - middleX_) * scale_, v = (y - middleY_) * scale_;
    double powers[kMostNumbers], sum = 0;
    const int count = Powers(u, v, powers);
    for (int i = 0; i < count; ++i) {
      sum += numbers_[i] * powers[i];
    }
    for (const Knot& knot : knots_) {
      sum += knot.weight * Bend(u - knot.u, v - knot.v);
    }
    return sum;
  }

 private:
  struct Knot {
    double u, v, weight;
  };

  /// Answers r^2 log r, which a thin plate bends by.
  static double Bend(double u, double v) {
    const double r2 = u * u + v * v;
    return r2 > 0 ? 0.5 * r2 * std::log(r2) : 0;
  }

  std::array<double, kMostDegree + 1> PowersOf(double u) const {
    std::array<double, kMostDegree + 1> powers = {1, u};
    for (int i = 2; i <= degree_; ++i) {
      powers[i] = std::pow(u, i);
    }
    return powers;
  }

  /// Writes the products of powers of u and v up to the degree; answers their number.
  int Powers(double u, double v, double* powers) const {
    const auto ofU = PowersOf(u), ofV = PowersOf(v);
    int n = 0;
    for (int total = 0; total <= degree_; ++total) {
      for (int i = 0; i <= total; ++i) {
        powers[n++] = ofU[total - i] * ofV[i];
      }
    }
    return n;
  }

  int degree_;
  double scale_, middleX_, middleY_;
  std::vector<double> numbers_;
  std::vector<Knot> knots_;
};

}  // namespace korimg
