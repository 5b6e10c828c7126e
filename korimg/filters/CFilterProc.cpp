#include "korimg/filters/CFilterProc.h"

#include <algorithm>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/WeightedSum.h"
#include "korimg/image/CVelImage.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

using namespace korimg;

CFilterProc::CFilterProc(CVelImage* image, const CFilterMatrix* matrix, int plane) {
  MakeBuf(image, matrix, plane, 1);
}

void CFilterProc::Init() {
  r_ = d_ = plane_ = width_ = 0;
  image_ = nullptr;
  weights_.clear();
  rings_.clear();
}

int CFilterProc::MakeBuf(CVelImage* image, const CFilterMatrix* matrix, int plane, int normalize) {
  r_ = matrix->GetR();
  d_ = matrix->GetD();
  weights_ = matrix->GetMiddleRow(normalize);
  Bind(image, plane);
  return 1;
}

void CFilterProc::Bind(CVelImage* image, int plane) {
  image_ = image;
  plane_ = plane;
  width_ = image->GetWidth();
  rings_.resize(std::max(CParallel::GetMaxThreads(), 1));
  for (Ring& ring : rings_) {
    ring.cells.resize(Place(0, width_ + kSumBlock - 1));
    ring.padded.resize(static_cast<size_t>(width_) + 2 * r_);
    ring.served = false;
  }
}

size_t CFilterProc::Place(int slot, int x) const {
  return (static_cast<size_t>(x / kSumBlock) * d_ + slot) * kSumBlock + x % kSumBlock;
}

/// Null for a worker beyond the team that the rings were made for.
CFilterProc::Ring* CFilterProc::OwnRing() {
  const size_t thread = CParallel::GetThreadNum();
  if (thread < rings_.size()) return &rings_[thread];
  DebugLine("filter: Over! the team has grown since the filter was made");
  return nullptr;
}

float CFilterProc::Calc(int x, int y) {
  ProcHorizontal(x, y);
  return ProcVertical(x);
}

void CFilterProc::CalcLine(int left, int right, int y, float* line) {
  ProcHorizontal(left, y);
  const Ring* ring = OwnRing();
  if (!ring) return;
  std::vector<const float*> taps(d_);
  for (int x = left, next = 0; x < right; x = next) {
    next = std::min((x / kSumBlock + 1) * kSumBlock, right);
    for (int k = 0; k < d_; ++k) {
      taps[k] = &ring->cells[Place((ring->first + k) % d_, x)];
    }
    WeightedSum(taps.data(), weights_.data(), d_, next - x, line + x - left);
  }
}

int CFilterProc::ProcHorizontal(int, int y) {
  Ring* ring = OwnRing();
  if (!ring || (ring->served && ring->lastY == y)) return 1;
  const bool follows = ring->served && y > ring->lastY && y - ring->lastY < d_;
  const int rows = follows ? y - ring->lastY : d_;
  ring->first = follows ? (ring->first + rows) % d_ : 0;
  ring->served = false;  // until all rows are there: a store may throw
  for (int k = d_ - rows; k < d_; ++k) {
    FilterRow(*ring, (ring->first + k) % d_, y - r_ + k);
  }
  ring->lastY = y;
  ring->served = true;
  return 1;
}

/// Filters row y along x into a slot of the ring.
void CFilterProc::FilterRow(Ring& ring, int slot, int y) {
  const float* row = image_->GetLine(0, RowBelowRepeated(y, image_->GetHeight()), plane_);
  float* padded = ring.padded.data();
  std::fill_n(padded, r_, row[0]);
  std::copy_n(row, width_, padded + r_);
  std::fill_n(padded + r_ + width_, r_, row[width_ - 1]);
  std::vector<const float*> taps(d_);
  for (int x = 0; x < width_; x += kSumBlock) {
    for (int k = 0; k < d_; ++k) {
      taps[k] = padded + x + k;
    }
    WeightedSum(taps.data(), weights_.data(), d_, std::min(kSumBlock, width_ - x),
                &ring.cells[Place(slot, x)]);
  }
}

float CFilterProc::ProcVertical(int x) {
  const Ring* ring = OwnRing();
  if (!ring) return 0;
  float sum = 0;
  for (int k = 0, slot = ring->first; k < d_; ++k, slot = slot + 1 == d_ ? 0 : slot + 1) {
    sum += weights_[k] * ring->cells[Place(slot, x)];
  }
  return sum;
}

int CFilterProcEx::Make(CVelImage* image, const CFilterMatrix* matrix, int plane, int normalize) {
  if (plane < 0 || plane > 2) return 0;
  CFilterProc& proc = procs_[plane];
  if (!proc.IsEmpty()) {
    proc.Bind(image, plane);
    return 1;
  }
  return proc.MakeBuf(image, matrix, plane, normalize);
}

void CFilterProcEx::Clear() {
  for (CFilterProc& proc : procs_) {
    proc.Empty();
  }
}
