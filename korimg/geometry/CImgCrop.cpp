#include "korimg/geometry/CImgCrop.h"

#include "korimg/geometry/internal/Resized.h"

using namespace korimg;

int CImgCrop::Do(CRect rect, CVelImage* src, int show) {
  InitStdPtCtr();
  const bool inside = rect.left >= 0 && rect.top >= 0 && rect.right <= src->GetWidth() &&
                      rect.bottom <= src->GetHeight() && !rect.IsRectEmpty();
  if (!inside || !Resized(*this, *src, rect.Width(), rect.Height(), show)) return 0;
  if (MayRunPipelines(*this, *src)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      crop_float(PlaneBuffer(*src, p), rect.left, rect.top, PlaneBuffer(*this, p, false));
    }
    return 1;
  }
  const ProgressScope progress(*this, show, 6172, GetHeight() * GetPlanes());
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    std::memcpy(GetWritableLine(0, y, p), src->GetLine(rect.left, rect.top + y, p),
                rect.Width() * sizeof(float));
  });
  return 1;
}
