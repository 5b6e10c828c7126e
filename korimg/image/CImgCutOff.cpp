#include "korimg/image/CImgCutOff.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

void CImgCutOff::Do(CVelImage* src, float low, float high, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6198, window.Lines(*this));
  MapPixels(*this, *src, window, Team::One, [&](int p) {
    const auto m = static_cast<float>(src->GetLevelMin(p)), x = static_cast<float>(src->GetLevelMax(p));
    return [=](float s) { return s <= m ? low : s >= x ? high : s; };
  });
}
