#include "korimg/geometry/internal/MapRows.h"

#include <array>
#include <cmath>
#include <limits>
#include <numbers>

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

MapRows::MapRows(const CFrameMap& map, int width, double y0, int rows, double step, double x0)
    : middle_((width - 1) * 0.5), scale_(2.0 / std::max(width - 1, 1)), numbers_(2L * kTerms * rows) {
  static const auto kTermsOf = MakeTerms();
  for (int i = 0; i < rows; ++i) {
    double* const u = numbers_.data() + 2L * kTerms * i;
    double* const v = u + kTerms;
    for (int k = 0; k < kTerms; ++k) {
      const double x = middle_ + NodeOf(k) / scale_;
      const auto place = map({x0 + x * step, y0 + i * step});
      const double far = std::numeric_limits<double>::quiet_NaN();
      for (int power = 0; power < kTerms; ++power) {
        u[power] += kTermsOf[k][power] * (place ? place->x - x : far);
        v[power] += kTermsOf[k][power] * (place ? place->y : far);
      }
    }
  }
}

MapRowsTable::MapRowsTable(const MapRows& rows, int count) : buffer_(2 * kTerms, count) {
  for (int i = 0; i < count; ++i) {
    for (int k = 0; k < 2 * kTerms; ++k) {
      buffer_(k, i) = static_cast<float>(rows.U(i)[k]);
    }
  }
}

}  // namespace korimg
