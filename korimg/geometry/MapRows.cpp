#include "korimg/geometry/internal/MapRows.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

#include "korimg/image/internal/Vectors.h"

namespace korimg {
namespace {

constexpr int kTerms = MapRows::kTerms;

double NodeOf(int k) {
  return std::cos(std::numbers::pi * (2 * k + 1) / (2 * kTerms));
}

/// What brings values at the nodes to terms: the polynomials of Lagrange, by powers.
std::array<std::array<double, kTerms>, kTerms> MakeTerms() {
  std::array<std::array<double, kTerms>, kTerms> terms{};
  for (int k = 0; k < kTerms; ++k) {
    std::array<double, kTerms>& own = terms[k];
    own[0] = 1;
    int degree = 0;
    for (int j = 0; j < kTerms; ++j) {
      if (j == k) continue;
      const double by = 1 / (NodeOf(k) - NodeOf(j));
      ++degree;
      for (int power = degree; power >= 0; --power) {
        own[power] = by * ((power > 0 ? own[power - 1] : 0) - NodeOf(j) * own[power]);
      }
    }
  }
  return terms;
}

}  // namespace

MapRows::MapRows(const CFrameMap& map, int width, double y0, int rows)
    : middle_((width - 1) * 0.5), scale_(2.0 / std::max(width - 1, 1)), numbers_(2L * kTerms * rows) {
  static const auto kTermsOf = MakeTerms();
  for (int i = 0; i < rows; ++i) {
    double* const u = numbers_.data() + 2L * kTerms * i;
    double* const v = u + kTerms;
    for (int k = 0; k < kTerms; ++k) {
      const double x = middle_ + NodeOf(k) / scale_;
      const auto place = map({x, y0 + i});
      const double far = std::numeric_limits<double>::quiet_NaN();
      for (int power = 0; power < kTerms; ++power) {
        u[power] += kTermsOf[k][power] * (place ? place->x - x : far);
        v[power] += kTermsOf[k][power] * (place ? place->y : far);
      }
    }
  }
}

void MapRows::Along(int i, double x0, int n, double* x, double* y) const {
  constexpr double kNothing = 1e-9;  // pixels: most maps bend little, and need few terms
  const double *const u = U(i), *const v = V(i);
  int terms = kTerms;
  while (terms > 1 && std::abs(u[terms - 1]) + std::abs(v[terms - 1]) < kNothing) {
    --terms;
  }
  RunInLongVectors([=, middle = middle_, scale = scale_]() KORIMG_IN_LOOP {
    std::fill_n(x, n, u[terms - 1]);
    std::fill_n(y, n, v[terms - 1]);
    for (int k = terms - 2; k >= 0; --k) {
      const double a = u[k], b = v[k];
      for (int j = 0; j < n; ++j) {
        const double s = (x0 + j - middle) * scale;
        x[j] = x[j] * s + a;
        y[j] = y[j] * s + b;
      }
    }
    for (int j = 0; j < n; ++j) {
      x[j] += x0 + j;
    }
  });
}

MapRowsTable::MapRowsTable(const MapRows& rows, int count) : buffer_(2 * kTerms, count) {
  for (int i = 0; i < count; ++i) {
    for (int k = 0; k < 2 * kTerms; ++k) {
      buffer_(k, i) = static_cast<float>(rows.U(i)[k]);
    }
  }
}

}  // namespace korimg
