#include "korimg/levels/CImgCorrectCurve.h"

#include <algorithm>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

/// x^y of x from 0 to 1.
KORIMG_IN_LOOP inline double Power(double x, double y) {
  const double power = PositivePower(x, y);
  return x > 0 ? power : 0.0;
}

void Bend(const float* in, float* out, int columns, double power, double low, double high) {
  const double range = high - low, inverse = 1.0 / power;
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < columns; ++x) {
      const double v = in[x];
      const double bent = Power(1 - Power(1 - (v - low) / range, power), inverse) * range + low;
      out[x] = low < v && v < high ? static_cast<float>(bent) : in[x];
    }
  });
}

}  // namespace

int CImgCorrectCurve::Do(double power, double low, double high, CVelImage* src, CRect* rect, int show) {
  if (!(power > 0) || low > high || !src || src->IsEmpty() || IsEmpty()) return 0;
  Window window(*this, rect);
  window.right = std::min(window.right, src->GetWidth());
  window.bottom = std::min(window.bottom, src->GetHeight());
  if (window.IsEmpty()) return 0;
  const int planes = std::min(GetPlanes(), src->GetPlanes());
  const ProgressScope progress(*this, show, 6203, planes * window.Height());
  for (int p = 0; p < planes; ++p) {
    const double min = src->GetLevelMin(p), range = src->GetLevelRange(p);
    const double rawLow = range * (low / 255.0) + min, rawHigh = range * (high / 255.0) + min;
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      Bend(src->GetLine(window.left, y, p), GetWritableLine(window.left, y, p), window.Width(), power, rawLow,
           rawHigh);
      ShowProgress(1);
    });
  }
  return 1;
}

int CImgCorrectCurve::Do(double, double, double, int, CVelImage*, CRect*, int) {
  return 0;
}
