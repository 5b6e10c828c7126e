#include "korimg/levels/CImgWindowing.h"

#include <cmath>
#include <numbers>

#include "korimg/image/internal/Frame.h"

using namespace korimg;

int CImgWindowing::Do(int mode, double radius, CVelImage* src, int show) {
  if (!Fits(*src, *this)) return 0;
  const Window window(*this, nullptr);
  const ProgressScope progress(*this, show, 6191, window.Lines(*this));
  const int middleX = GetWidth() / 2, middleY = GetHeight() / 2;
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const float* in = src->GetLine(0, y, p);
    float* out = GetWritableLine(0, y, p);
    const double v = y - middleY;
    for (int x = 0; x < GetWidth(); ++x) {
      const double u = x - middleX, r = std::sqrt(u * u + v * v);
      const double taper = r < radius ? 0.5 * std::cos(std::numbers::pi * r / radius) + 0.5 : 0.0;
      out[x] = static_cast<float>(in[x] * (mode == 0 ? taper : 1.0));
    }
  });
  return 1;
}
