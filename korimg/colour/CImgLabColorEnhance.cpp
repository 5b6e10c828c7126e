#include "korimg/colour/CImgLabColorEnhance.h"

#include "korimg/colour/internal/LabRows.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

void CImgLabColorEnhance::Do(CVelImage* lab, double aPositive, double aNegative, double bPositive,
                             double bNegative, CRect* rect, int show) {
  if (!Fits(*lab, *this) || GetPlanes() < 3) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6134, window.Height());
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    const float *l = lab->GetLine(window.left, y, 0), *a = lab->GetLine(window.left, y, 1),
                *b = lab->GetLine(window.left, y, 2);
    float* out[3];
    double min[3], range[3];
    for (int p = 0; p < 3; ++p) {
      out[p] = GetWritableLine(window.left, y, p);
      min[p] = GetLevelMin(p);
      range[p] = GetLevelRange(p);
    }
    RunInLongVectors([=, columns = window.Width()]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int x = 0; x < columns; ++x) {
        const double da = a[x], db = b[x];
        const RgbColour rgb =
            LabToRgb({l[x], da * (da < 0 ? aNegative : aPositive), db * (db < 0 ? bNegative : bPositive)});
        out[0][x] = static_cast<float>(rgb.r * range[0] + min[0]);
        out[1][x] = static_cast<float>(rgb.g * range[1] + min[1]);
        out[2][x] = static_cast<float>(rgb.b * range[2] + min[2]);
      }
    });
    ShowProgress(1);
  });
}

void CImgLabColorEnhance::Do(CVelImage* lab, double a, double b, CRect* rect, int show) {
  Do(lab, a, a, b, b, rect, show);
}
