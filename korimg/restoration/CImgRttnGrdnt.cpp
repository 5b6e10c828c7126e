#include "korimg/restoration/CImgRttnGrdnt.h"

#include <cmath>

#include "korimg/restoration/internal/Circles.h"

using namespace korimg;

namespace {

/// Writes finish(plane)(s, r, v) for each pixel s at radius r whose gradient is v.
template <class F>
void Differentiate(CVelImage& target, double angle, double k, double centreX, double centreY, CVelImage& src,
                   const Window& window, F&& finish) {
  // What a turn moves a place by, so that no turn moves nothing. Angles count from the y axis to the x axis.
  const double sin = std::sin(Radians(angle)), less = std::cos(Radians(angle)) - 1;
  for (int p = 0; p < target.GetPlanes() && !window.IsEmpty(); ++p) {
    const SteadyPlane plane(src, p);
    const PlanePixels& pixels = plane.view;
    const auto at = [&](double x, double y) { return pixels.Contains(x, y) ? pixels.At(x, y) : 0.0f; };
    const auto become = finish(p);
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      const float* in = pixels.Row(y);
      float* out = target.GetWritableLine(0, y, p);
      const double dy = y - centreY;
      for (int x = window.left; x < window.right; ++x) {
        const double dx = x - centreX;
        const double p1 = at(x + (dx * less + dy * sin), y + (dy * less - dx * sin));
        const double p2 = at(x + (dx * less - dy * sin), y + (dy * less + dx * sin));
        double v = in[x] * (k + 2) - p1 - p2;
        if (k != 0) v /= k;
        out[x] = become(in[x], std::sqrt(dx * dx + dy * dy), static_cast<float>(v));
      }
      target.ShowProgress(1);
    });
  }
}

}  // namespace

void CImgRttnGrdnt::Do(double angle, double k, double centreX, double centreY, CVelImage* src, CRect* rect,
                       int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6176, window.Lines(*this));
  Differentiate(*this, angle, k, centreX, centreY, *src, window,
                [](int) { return [](float, double, float v) { return v; }; });
}

void CImgRttnGrdnt::Do(double angle, double k, double centreX, double centreY, double radiusMin, int useDark,
                       double dark, double darkRange, int useHighlight, double highlight,
                       double highlightRange, int brighter, double percent, int markCentre, CVelImage* src,
                       CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6176, window.Lines(*this));
  CircleLimits limits(*src, radiusMin, useDark, dark, darkRange, useHighlight, highlight, highlightRange,
                      brighter, percent);
  Differentiate(*this, angle, k, centreX, centreY, *src, window, [&](int p) {
    return [&limits, band = limits.Band(*src, p)](float s, double r, float v) {
      return limits.Keeps(band, s, r) ? s : limits.Limit(band, s, v);
    };
  });
  if (markCentre) MarkCentre(*this, window, centreX, centreY);
}
