#include "korimg/filters/CFilterProc.h"

#include <algorithm>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/Edges.h"
#include "korimg/filters/WeightedSum.h"
#include "korimg/image/CVelImage.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

CFilterProc::CFilterProc(CVelImage* image, CFilterMatrix const* matrix, int plane) {
  MakeBuf(image, matrix, plane, 1);
}

void CFilterProc::Init() {
  r_ = d_ = plane_ = width_ = 0;
  image_ = nullptr;
  weights_.clear();
  rings_.clear();
}

int CFilterProc::MakeBuf(CVelImage* image, CFilterMatrix const* matrix, int plane, int normalize) {
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
    ring.cells.resize(static_cast<size_t>(d_) * width_);
    ring.padded.resize(static_cast<size_t>(width_) + 2 * r_);
    ring.served = false;
  }
}

/// Null for a worker beyond the team that the rings were made for.
CFilterProc::Ring* CFilterProc::OwnRing() {
  const size_t thread = CParallel::GetThreadNum();
  if (thread < rings_.size()) return &rings_[thread];
  korimg::DebugLine("filter: Over! the team has grown since the filter was made");
  return nullptr;
}

float CFilterProc::Calc(int x, int y) {
  ProcHorizontal(x, y);
  return ProcVertical(x);
}

void CFilterProc::CalcLine(int left, int right, int y, float* line) {
  ProcHorizontal(left, y);
  Ring const* ring = OwnRing();
  if (!ring) return;
  std::vector<float const*> taps(d_);
  for (int k = 0; k < d_; ++k) {
    taps[k] = ring->cells.data() + static_cast<size_t>((ring->first + k) % d_) * width_ + left;
  }
  korimg::WeightedSum(taps.data(), weights_.data(), d_, right - left, line);
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
  float const* row = image_->GetLine(0, korimg::RowBelowRepeated(y, image_->GetHeight()), plane_);
  float* padded = ring.padded.data();
  std::fill_n(padded, r_, row[0]);
  std::copy_n(row, width_, padded + r_);
  std::fill_n(padded + r_ + width_, r_, row[width_ - 1]);
  std::vector<float const*> taps(d_);
  for (int k = 0; k < d_; ++k) {
    taps[k] = padded + k;
  }
  korimg::WeightedSum(taps.data(), weights_.data(), d_, width_,
                      ring.cells.data() + static_cast<size_t>(slot) * width_);
}

float CFilterProc::ProcVertical(int x) {
  Ring const* ring = OwnRing();
  if (!ring) return 0;
  float sum = 0;
  for (int k = 0, slot = ring->first; k < d_; ++k, slot = slot + 1 == d_ ? 0 : slot + 1) {
    sum += weights_[k] * ring->cells[static_cast<size_t>(slot) * width_ + x];
  }
  return sum;
}

int CFilterProcEx::Make(CVelImage* image, CFilterMatrix const* matrix, int plane, int normalize) {
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
