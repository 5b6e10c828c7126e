#include "korimg/image/CImgInvert.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// s on a scale that starts at a with 1 / range = i, turned over onto one that starts at c with range d.
inline float InvertPixel(float s, float a, float i, float c, float d) {
  return (255.0f - (s - a) * i * 255.0f) * 0.003921569f * d + c;
}

void InvertLines(CImgInvert& target, CVelImage& src, const Window& window, Team team) {
  MapPixels(target, src, window, team, [&](int p) {
    const auto a = static_cast<float>(src.GetLevelMin(p)),
               i = 1.0f / static_cast<float>(src.GetLevelRange(p));
    const auto c = static_cast<float>(target.GetLevelMin(p)), d = static_cast<float>(target.GetLevelRange(p));
    return [=](float s) { return InvertPixel(s, a, i, c, d); };
  });
}

}  // namespace

void CImgInvert::Do(CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6124, window.Lines(*this));
  if (!MayRunPipelines(*this, *src)) {
    (this->*(HasVectors() ? &CImgInvert::DoInvert_x : &CImgInvert::DoInvert))(src, window.left, window.right,
                                                                              window.top, window.bottom);
    return;
  }
  for (int p = 0; p < GetPlanes(); ++p) {
    RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
      return invert_float(PlaneBuffer(*src, p), static_cast<float>(src->GetLevelMin(p)),
                          static_cast<float>(src->GetLevelRange(p)), static_cast<float>(GetLevelMin(p)),
                          static_cast<float>(GetLevelRange(p)), out);
    });
  }
}

void CImgInvert::DoInvert(CVelImage* src, int left, int right, int top, int bottom) {
  InvertLines(*this, *src, {left, top, right, bottom}, Team::One);
}

void CImgInvert::DoInvert_x(CVelImage* src, int left, int right, int top, int bottom) {
  InvertLines(*this, *src, {left, top, right, bottom}, Team::All);
}
