#include "korimg/colour/CImgColorBalance.h"

#include <algorithm>

#include "korimg/image/internal/Frame.h"

using namespace korimg;

void CImgColorBalance::Do(double red, double green, double blue, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6118, window.Lines(*this));
  const double percents[] = {red, green, blue};
  const auto offset = [&](int p) {
    return static_cast<float>(percents[std::min(p, 2)]) * static_cast<float>(GetLevelRange(0) / 100.0);
  };
  if (!MayRunPipelines(*this, *src)) {
    MapPixels(*this, *src, window, Team::All,
              [&](int p) { return [v = offset(p)](float s) { return s + v; }; });
    return;
  }
  for (int p = 0; p < GetPlanes(); ++p) {
    RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
      return add_scalar_float(PlaneBuffer(*src, p), offset(p), out);
    });
  }
}
