#include "korimg/filters/CFilterProc.h"

#include <algorithm>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/FilteredRows.h"
#include "korimg/image/CVelImage.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

using namespace korimg;

/// The rows of one worker.
struct alignas(64) CFilterProc::Ring {
  FilteredRows<float> rows;
  bool served = false;
  int lastY = 0;
};

CFilterProc::CFilterProc() = default;
CFilterProc::CFilterProc(const CFilterProc&) = default;
CFilterProc& CFilterProc::operator=(const CFilterProc&) = default;
CFilterProc::~CFilterProc() = default;

CFilterProc::CFilterProc(CVelImage* image, const CFilterMatrix* matrix, int plane) {
  MakeBuf(image, matrix, plane, 1);
}

void CFilterProc::Init() {
  r_ = d_ = plane_ = 0;
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
  rings_.assign(std::max(CParallel::GetMaxThreads(), 1),
                Ring{FilteredRows<float>(weights_, image->GetWidth())});
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
  if (Ring* ring = OwnRing()) ring->rows.Sum(left, right, line);
}

int CFilterProc::ProcHorizontal(int, int y) {
  Ring* ring = OwnRing();
  if (!ring || (ring->served && ring->lastY == y)) return 1;
  const bool follows = ring->served && y > ring->lastY && y - ring->lastY < d_;
  ring->served = false;  // until all rows are there: a store may throw
  for (int row = follows ? ring->lastY + r_ + 1 : y - r_; row <= y + r_; ++row) {
    ring->rows.Push(image_->GetLine(0, RowBelowRepeated(row, image_->GetHeight()), plane_));
  }
  ring->lastY = y;
  ring->served = true;
  return 1;
}

float CFilterProc::ProcVertical(int x) {
  const Ring* ring = OwnRing();
  return ring ? ring->rows.Sum(x) : 0.0f;
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
