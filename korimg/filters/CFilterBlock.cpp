#include "korimg/filters/CFilterBlock.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/WeightedSum.h"
#include "korimg/image/internal/Numbers.h"

CFilterBlock::CFilterBlock(CVelImage* image, int r, int x0, int y, int plane, int flags)
    : r_(r), x0_(x0), y_(y), width_(image->GetWidth() - x0), image_(image) {
  if (plane < 0 || plane >= image->GetPlanes()) return;
  const bool lock = (flags & CImage::Locked) != 0;
  const auto mode = static_cast<CImage::Mode>(CImage::ReadOnly | (flags & CImage::Locked));
  try {
    MakeRows(image->GetHeight(), [&](int row) {
      CImage::AddressHandle handle;
      const float* address = image->GetImageAdr(x0, row, plane, mode, lock ? &handle : nullptr);
      if (lock) locks_.push_back(handle);
      return address;
    });
  } catch (...) {
    Unlock();
    throw;
  }
}

CFilterBlock::CFilterBlock(const float* buffer, int width, int height, int r, int x0, int y)
    : r_(r), x0_(x0), y_(y), width_(width - x0) {
  MakeRows(height, [&](int row) { return buffer + static_cast<size_t>(row) * width + x0; });
}

CFilterBlock::~CFilterBlock() {
  Unlock();
}

/// Each lock by itself: others of the same store may be held elsewhere.
void CFilterBlock::Unlock() {
  for (const CImage::AddressHandle& lock : locks_) {
    image_->Unlock(lock);
  }
}

template <class Row>
void CFilterBlock::MakeRows(int height, Row&& row) {
  rows_.resize(2 * static_cast<size_t>(r_) + 1);
  locks_.reserve(rows_.size());
  for (int k = 0; k < static_cast<int>(rows_.size()); ++k) {
    rows_[k] = row(korimg::MirroredRow(y_ - r_ + k, height));
  }
}

float CFilterBlock::GetPixel(int x, int y) const {
  const int row = r_ - y_ + y, column = x - x0_;
  const bool inside = row >= 0 && row < static_cast<int>(rows_.size()) && column >= 0 && column < width_;
  return inside ? rows_[row][column] : 0.0f;
}

int CFilterBlock::Common(const CFilterMatrix& matrix) const {
  return rows_.empty() ? 0 : std::min(matrix.GetR(), r_);
}

/// Calls cell(weight, pixel) for the cells about column x of the middle row that have a weight, by rows: NaN
/// and infinities under the others are no part of the result.
template <class F>
void CFilterBlock::ForPixels(const CFilterMatrix& matrix, int x, F&& cell) const {
  const int r = Common(matrix);
  for (int dy = -r; dy <= r; ++dy) {
    const float* row = rows_[r_ + dy];
    for (int dx = -r; dx <= r; ++dx) {
      const float weight = matrix.GetPrm(dx, dy);
      if (weight != 0) cell(weight, row[std::clamp(x + dx, 0, width_ - 1)]);
    }
  }
}

float CFilterBlock::Convolve(const CFilterMatrix* matrix, int x) const {
  float sum = 0;
  if (Common(*matrix) > 0) {
    ForPixels(*matrix, x, [&](float weight, float pixel) { sum += weight * pixel; });
  }
  return sum;
}

void CFilterBlock::ConvolveLine(const CFilterMatrix* matrix, int left, int right, float* line) const {
  const int r = Common(*matrix);
  // Columns whose cells all lie inside.
  const int start = std::clamp(r, left, right), end = std::clamp(width_ - r, start, right);
  for (int x = left; x < right; ++x) {
    if (x == start && r > 0) x = end;
    if (x < right) line[x - left] = Convolve(matrix, x);
  }
  if (r == 0) return;
  std::vector<const float*> taps;
  std::vector<float> weights;
  for (int dy = -r; dy <= r; ++dy) {
    for (int dx = -r; dx <= r; ++dx) {
      const float weight = matrix->GetPrm(dx, dy);
      if (weight == 0) continue;
      taps.push_back(rows_[r_ + dy] + start + dx);
      weights.push_back(weight);
    }
  }
  korimg::WeightedSum(taps.data(), weights.data(), static_cast<int>(taps.size()), end - start,
                      line + start - left);
}

float CFilterBlock::ConvolveClamped(const CFilterMatrix* matrix, int x, float min, float max) const {
  float sum = 0;
  if (Common(*matrix) > 0) {
    ForPixels(*matrix, x, [&](float weight, float pixel) {
      sum += weight * (pixel > max ? max : pixel < min ? min : pixel);
    });
  }
  return sum;
}

const float* CFilterBlock::SortMasked(const CFilterMatrix* matrix, int x) {
  if (Common(*matrix) == 0) return sorted_.data();
  sorted_.clear();
  ForPixels(*matrix, x, [&](float weight, float pixel) {
    if (weight == 1.0f) sorted_.push_back(pixel);
  });
  std::sort(sorted_.begin(), sorted_.end(), korimg::NanLast);
  return sorted_.data();
}

float CFilterBlock::GetSorted(const CFilterMatrix* matrix, int x, int i) {
  SortMasked(matrix, x);
  return i >= 0 && i < static_cast<int>(sorted_.size()) ? sorted_[i] : 0.0f;
}
