#include "korimg/levels/CImgReduceTone.h"

#include <algorithm>
#include <cmath>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

void CImgReduceTone::Do(int tones, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6144, window.Lines(*this));
  const double n = std::clamp(tones, 1, 256);
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const double m = GetLevelMin(p), k = 255.0 / GetLevelRange(p);
    const float* in = src->GetLine(window.left, y, p);
    float* out = GetWritableLine(window.left, y, p);
    const int columns = window.Width();
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double scaled = (in[x] - m) * k;
        const double t = scaled < 0.0 ? 0.0 : scaled > 255.0 ? 255.0 : scaled;
        out[x] = static_cast<float>(std::floor(t * 0.00390625 * n) / n * 255.0 / k + m);
      }
    });
  });
}
