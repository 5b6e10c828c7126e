// A map along rows of pixels. Internal.
#pragma once

#include <vector>

#include <HalideBuffer.h>

#include "korimg/geometry/CFrameMap.h"

namespace korimg {

/// Tells where the pixels of some rows come from, as polynomials of the column: those that agree with the map
/// in the nodes of Chebyshev, 8 of each row. A lens of 6 % at the corner is followed to 2e-4 pixels, 6000
/// wide.
class MapRows {
 public:
  static constexpr int kTerms = 8;

  /// Looks at columns 0 to width - 1 of rows y0 to y0 + rows - 1, counted from y0. A row that the map does
  /// not reach everywhere lies nowhere.
  MapRows(const CFrameMap& map, int width, double y0, int rows);

  double Middle() const { return middle_; }
  double Scale() const { return scale_; }

  /// Answer, for row i, terms of s = (x - Middle()) * Scale(): of what the place is off x by, and of its y.
  const double* U(int i) const { return numbers_.data() + 2L * kTerms * i; }
  const double* V(int i) const { return U(i) + kTerms; }
  Point At(int x, int i) const {
    const double s = (x - middle_) * scale_;
    return {x + Sum(U(i), s), Sum(V(i), s)};
  }

  /// Writes the places for x0, x0 + 1 ... x0 + n - 1, which need not be whole.
  void Along(int i, double x0, int n, double* x, double* y) const;

  static double Sum(const double* terms, double s) {
    double sum = terms[kTerms - 1];
    for (int k = kTerms - 2; k >= 0; --k) {
      sum = sum * s + terms[k];
    }
    return sum;
  }

 private:
  double middle_, scale_;
  std::vector<double> numbers_;
};

/// Holds the same as an argument of pipelines.
class MapRowsTable {
 public:
  explicit MapRowsTable(const MapRows& rows, int count);
  operator halide_buffer_t*() { return buffer_; }  // NOLINT: an argument of a pipeline

 private:
  Halide::Runtime::Buffer<float, 2> buffer_;
};

}  // namespace korimg
