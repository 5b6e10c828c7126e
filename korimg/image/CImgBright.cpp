#include "korimg/image/CImgBright.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

inline float BrightPixel(float s, float m, float k, float q, float a, float c, float b) {
  const float t = (s - m) * k;
  return ((t - a) * c + b + t) * q + m;
}

void BrightLines(CImgBright& target, float* const bright, float* const contrast, float average,
                 CVelImage& src, const Window& window, Team team) {
  ForPlaneLines(target, window, team, [&](int p, int y) {
    const float* in = src.GetLine(window.left, y, p);
    float* out = target.GetWritableLine(window.left, y, p);
    if (bright[p] == 0 && contrast[p] == 0) {
      std::memmove(out, in, sizeof(float) * window.Width());
      return;
    }
    const auto m = static_cast<float>(target.GetLevelMin(p)), r = static_cast<float>(target.GetLevelRange(p));
    const float k = 255.0f / r, q = r / 255.0f, c = contrast[p] * 0.00390625f, b = bright[p];
    for (int x = 0; x < window.Width(); ++x) {
      out[x] = BrightPixel(in[x], m, k, q, average, c, b);
    }
  });
}

}  // namespace

void CImgBright::Do(float* const bright, float* const contrast, double average, CVelImage* src, CRect* rect,
                    int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6115, window.Lines(*this));
  const auto mean = static_cast<float>(average);
  if (!MayRunPipelines(*this, *src)) {
    (this->*(HasVectors() ? &CImgBright::DoBright_x : &CImgBright::DoBright))(
        bright, contrast, mean, src, window.left, window.right, window.top, window.bottom);
    return;
  }
  for (int p = 0; p < GetPlanes(); ++p) {
    RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
      return bright_float(PlaneBuffer(*src, p), static_cast<float>(GetLevelMin(p)),
                          static_cast<float>(GetLevelRange(p)), mean, bright[p], contrast[p], out);
    });
  }
}

void CImgBright::DoBright(float* const bright, float* const contrast, float average, CVelImage* src, int left,
                          int right, int top, int bottom) {
  BrightLines(*this, bright, contrast, average, *src, {left, top, right, bottom}, Team::One);
}

void CImgBright::DoBright_x(float* const bright, float* const contrast, float average, CVelImage* src,
                            int left, int right, int top, int bottom) {
  BrightLines(*this, bright, contrast, average, *src, {left, top, right, bottom}, Team::All);
}
