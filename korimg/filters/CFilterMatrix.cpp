#include "korimg/filters/CFilterMatrix.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>
#include <numeric>

#include "korimg/image/internal/Numbers.h"

using korimg::TruncateToInt;

namespace {

double Squared(int dx, int dy) {
  return static_cast<double>(dx) * dx + static_cast<double>(dy) * dy;
}

/// Calls cell(dx, dy) for each offset, by rows.
template <class F>
void ForOffsets(int r, F&& cell) {
  for (int dy = -r; dy <= r; ++dy) {
    for (int dx = -r; dx <= r; ++dx) {
      cell(dx, dy);
    }
  }
}

}  // namespace

void CFilterMatrix::Init() {
  cells_.clear();
  r_ = d_ = 0;
}

int CFilterMatrix::MakeMtx(int r, int size, int) {
  constexpr int kLargest = 1 << 20;  // beyond it no machine has room
  if (r < 0) return 0;
  if (r > kLargest) throw std::bad_alloc();
  const long long d = 2LL * r + 1;
  cells_.assign(d * d, 0.0f);
  r_ = r;
  d_ = static_cast<int>(d);
  return size <= d * d;
}

int CFilterMatrix::SetMtx(int r, const float* p, int size) {
  if (!MakeMtx(r, size, 0)) return 0;
  std::copy_n(p, size ? size : GetCount(), cells_.begin());
  return 1;
}

int CFilterMatrix::SetMtx(int r, const double* p, int size) {
  if (!MakeMtx(r, size, 0)) return 0;
  std::transform(p, p + (size ? size : GetCount()), cells_.begin(),
                 [](double v) { return static_cast<float>(v); });
  return 1;
}

float CFilterMatrix::GetPrm(int i) const {
  return i >= 0 && i < GetCount() ? cells_[i] : 0.0f;
}

float CFilterMatrix::GetPrm(int dx, int dy) const {
  const long long i = Place(dx, dy);
  return i >= 0 && i < GetCount() ? cells_[i] : 0.0f;
}

float* CFilterMatrix::GetMtxPtr(int dx, int dy) {
  const long long i = Place(dx, dy);
  return i >= 0 && i < GetCount() ? &cells_[i] : nullptr;
}

std::vector<float> CFilterMatrix::GetMiddleRow(int normalize) const {
  const auto first = cells_.begin() + static_cast<std::ptrdiff_t>(r_) * d_;
  std::vector<float> row(first, first + d_);
  const float sum = std::accumulate(row.begin(), row.end(), 0.0f);
  if (normalize && sum != 0) {
    for (float& cell : row) {
      cell /= sum;
    }
  }
  return row;
}

void CFilterMatrix::Normalize() {
  const float sum = std::accumulate(cells_.begin(), cells_.end(), 0.0f);
  if (sum == 0) return;
  for (float& cell : cells_) {
    cell /= sum;
  }
}

int CFilterMatrix::GetGaussian_nR(double sigma) {
  return std::max(TruncateToInt(sigma * 2.8 + 1.0), 1);
}

int CFilterMatrix::MakeGaussian(double sigma) {
  return MakeGaussian(GetGaussian_nR(sigma), sigma);
}

int CFilterMatrix::MakeGaussian(int r, double sigma) {
  if (!MakeMtx(r, 0, 0)) return 0;
  if (sigma == -1.0) sigma = r;
  if (sigma == 0.0) {
    *GetMtxPtr(0, 0) = 1.0f;
    return 1;
  }
  ForOffsets(r, [&](int dx, int dy) {
    *GetMtxPtr(dx, dy) = static_cast<float>(std::exp(Squared(dx, dy) / (sigma * -2.0 * sigma)));
  });
  Normalize();
  return 1;
}

int CFilterMatrix::MakeMean(int r, double extent, double weight) {
  if (!MakeMtx(r, 0, 1)) return 0;
  if (extent == -1.0) extent = r;
  ForOffsets(r, [&](int dx, int dy) {
    if (extent * extent >= Squared(dx, dy)) *GetMtxPtr(dx, dy) = static_cast<float>(weight);
  });
  *GetMtxPtr(0, 0) = 1.0f;
  Normalize();
  return 1;
}

int CFilterMatrix::MakeMask(int r, double extent) {
  if (!MakeMtx(r, 0, 1)) return 0;
  int count = 0;
  ForOffsets(r, [&](int dx, int dy) {
    if (!(extent * extent >= Squared(dx, dy))) return;
    *GetMtxPtr(dx, dy) = 1.0f;
    ++count;
  });
  return count;
}

/// Cells of a weight at up to `extent` of squared distance; the centre gets centre(their number).
template <class Rule>
int CFilterMatrix::Star(int r, double extent, double weight, Rule&& centre) {
  if (!MakeMtx(r, 0, 1)) return 0;
  if (extent == -1.0) extent = r;
  int count = 0;
  ForOffsets(r, [&](int dx, int dy) {
    const double squared = Squared(dx, dy);
    if (squared == 0 || !(extent >= squared)) return;
    *GetMtxPtr(dx, dy) = static_cast<float>(weight);
    ++count;
  });
  *GetMtxPtr(0, 0) = static_cast<float>(centre(count));
  return 1;
}

int CFilterMatrix::MakeLaplacian(int r, double extent) {
  return Star(r, extent, -1.0, [](int count) { return count; });
}

int CFilterMatrix::MakeSharp(double extent, double strength) {
  const int r = std::max(TruncateToInt(extent), 1);
  if (!Star(r, extent, -strength, [strength](int count) { return count * strength + 1.0; })) return 0;
  Normalize();
  return 1;
}

int CFilterMatrix::MakeCFAMask(int colour, int bayer) {
  const bool green = colour == 1;
  const int r = green && bayer ? 1 : 2;
  MakeMtx(r, 0, 1);
  if (colour < 0 || colour > 2) return 0;
  // Diagonal neighbours lie on the corners; the others along the axes.
  const bool corners = green == (bayer != 0);
  for (const int step : {-r, r}) {
    *(corners ? GetMtxPtr(step, step) : GetMtxPtr(step, 0)) = 1.0f;
    *(corners ? GetMtxPtr(step, -step) : GetMtxPtr(0, step)) = 1.0f;
  }
  return 4;
}

int CFilterMatrix::GetIndex(int dx, int dy, int r) {
  return (2 * r + 1) * std::clamp(dy + r, 0, 2 * r) + std::clamp(dx + r, 0, 2 * r);
}

float CFilterMatrix::Hokan4(float f00, float f10, float f01, float f11, float fx, float fy) {
  return (1 - fy) * (1 - fx) * f00 + (1 - fx) * fy * f01 + (1 - fy) * fx * f10 + fx * fy * f11;
}

int CFilterMatrix::MakeGuideErrorCanceller(int r, double length, double angle, double center) {
  if (!MakeMtx(r, 0, 1)) return 0;
  if (length == -1.0) length = r;
  const double theta = (90.0 - angle) * std::numbers::pi / 180.0;
  const double cosine = std::cos(theta), sine = std::sin(theta);

  // The trail lies along the middle row of a kernel of its own.
  CFilterMatrix trail(r, 0);
  float sum = 0;
  for (int dx = -r; dx <= r; ++dx) {
    float& cell = *trail.GetMtxPtr(dx, 0);
    cell = dx == 0 ? 0.0f : dx > -r || r >= length ? -1.0f : static_cast<float>(length - std::floor(length));
    sum += cell;
  }
  *trail.GetMtxPtr(0, 0) = 1.0f - sum;

  sum = 0;
  ForOffsets(r, [&](int dx, int dy) {
    if (dx == 0 && dy == 0) return;
    const double x = dx * cosine - dy * sine, y = dy * cosine + dx * sine;
    const auto at = [&](double column, double row) {
      return trail.GetPrm(GetIndex(TruncateToInt(column), TruncateToInt(row), r));
    };
    const double left = std::floor(x), right = std::ceil(x), top = std::floor(y), bottom = std::ceil(y);
    float& cell = *GetMtxPtr(dx, dy);
    cell = Hokan4(at(left, top), at(right, top), at(left, bottom), at(right, bottom),
                  static_cast<float>(x - left), static_cast<float>(y - top));
    sum += cell;
  });
  *GetMtxPtr(0, 0) = static_cast<float>((1.0f - sum) * center);
  Normalize();
  return 1;
}
