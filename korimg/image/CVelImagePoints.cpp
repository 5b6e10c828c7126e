// Reference points, regions and gauges that an image carries.
#include <algorithm>

#include "korimg/image/CVelImage.h"

namespace {
constexpr int kRects = 32;
}

void CVelImage::InitStdPtCtr() {
  stdPt_[0].Set(-1, -1);
  stdPt_[1].Set(-1, -1);
  stdCtr_.Set(-1, -1);
}

void CVelImage::SetStdPt(int i, const CfPoint& point) {
  stdPt_[i] = point;
  if (i == 0) stdCtr_ = point;
}

void CVelImage::SetBkgRect(int i, const CRect& rect) {
  if (i >= 0 && i < kRects) bkgRect_[i] = rect;
}

void CVelImage::ClearBkgRect(int i) {
  SetBkgRect(i, CRect());
}

int CVelImage::IsValidBkgRect(int i) const {
  return i >= 0 && i < kRects && bkgRect_[i].left != bkgRect_[i].right &&
         bkgRect_[i].top != bkgRect_[i].bottom;
}

void CVelImage::SetSkyPt(const CPoint& point, int size) {
  skyPt_ = point;
  skySize_ = size;
}

void CVelImage::GetSkyPt(CPoint& point, int& size) const {
  point = skyPt_;
  size = skySize_;
}

void CVelImage::SetColorScrollGauge(double pa, double* const x, double* const y) {
  colorScrollGaugePa_ = pa;
  for (int i = 0; i < 3; ++i) {
    colorScrollGaugePt_[i].Set(x[i], y[i]);
  }
}

void CVelImage::NormalizeRect(CRect* rect, int& left, int& top, int& right, int& bottom) const {
  const CRect whole(0, 0, GetWidth(), GetHeight());
  const CRect& r = rect ? *rect : whole;
  left = std::max(std::min(r.left, GetWidth()), 0);
  right = std::max(std::min(r.right, GetWidth()), 0);
  top = std::max(std::min(r.top, GetHeight()), 0);
  bottom = std::max(std::min(r.bottom, GetHeight()), 0);
}
