#include "korimg/levels/CImgToneCurve.h"

#include <algorithm>
#include <cmath>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"

using namespace korimg;

namespace {

using Table = Halide::Runtime::Buffer<float, 1>;

}  // namespace

double CImgToneCurve::CalcToneCurve(float* table, int n, double x) {
  if (x < 0) return 0.0;
  const double e = table[n] * 255.0;
  const double slope = (table[n] - table[n - 1]) * static_cast<double>(n);
  return slope > 0 ? (x - e) * slope + e : e;
}

double CImgToneCurve::CalcToneNormal(double x, double indexScale, float* table, int n) {
  if (x >= 0 && x <= 255) return table[static_cast<int>(x * indexScale)] * 255.0;
  return CalcToneCurve(table, n, x);
}

void CImgToneCurve::Do(float** const curves, int count, CVelImage* src, CRect* rect, int show, int hAlpha) {
  if (count < 2 || !Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, hAlpha ? 6194 : 6114, window.Lines(*this));
  const bool colour = IsColor();
  if (MayRunPipelines(*this, *src)) {
    Table master(curves[0], count);
    for (int p = 0; p < GetPlanes(); ++p) {
      const auto min = static_cast<float>(GetLevelMin(p)), range = static_cast<float>(GetLevelRange(p));
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        if (!colour) return tone_curve_gray_float(PlaneBuffer(*src, p), min, range, master.raw_buffer(), out);
        Table curve(curves[1 + p], count);
        return tone_curve_color_float(PlaneBuffer(*src, p), min, range, curve.raw_buffer(),
                                      master.raw_buffer(), out);
      });
    }
    return;
  }
  const int n = count - 1;
  const double indexScale = n / 255.0;
  MapPixels(*this, *src, window, Team::All, [&](int p) {
    const auto min = static_cast<float>(GetLevelMin(p)), range = static_cast<float>(GetLevelRange(p));
    // A pixel at the level's maximum, which is a double, lies there to the rounding of floats.
    const float rounding = 0x1p-22f * (std::abs(min) + std::abs(range));
    const double m = min, k = 255.0 / range;
    float *master = curves[0], *curve = colour ? curves[1 + p] : nullptr;
    return [=](float s) {
      if (std::isnan(s)) return s;
      double t = (s - m) * k;
      if (t > 255 && !(std::abs(s - min - range) > rounding)) t = 255;
      if (curve) t = CalcToneNormal(t, indexScale, curve, n);
      return static_cast<float>(CalcToneNormal(t, indexScale, master, n) / k + m);
    };
  });
}

void CImgToneCurve::DoHAlpha(double knee, double gain, CVelImage* src, CRect* rect, int show) {
  constexpr int kCount = 256;
  float identity[kCount], bent[kCount];
  const double w = knee * 255.0;
  const int end = std::min(TruncateToInt(w), kCount);
  for (int i = 0; i < kCount; ++i) {
    identity[i] = static_cast<float>(i / 255.0);
    bent[i] = i < end ? static_cast<float>(i / w * gain) : identity[i];
  }
  float* curves[] = {bent, bent, identity, identity};
  Do(curves, kCount, src, rect, show, 1);
}

void CImgToneCurve::DoHAlphaLevel(double factor, CVelImage* src) {
  src->CalcMinMax(0);
  for (int p = 0; p < GetPlanes(); ++p) {
    SetLevelMin(p, src->GetMinPixel(0));
    SetLevelMax(p, src->GetMaxPixel(0) * factor);
  }
}
