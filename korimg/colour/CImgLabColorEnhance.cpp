#include "korimg/colour/CImgLabColorEnhance.h"

#include <algorithm>

#include "korimg/colour/internal/LabRows.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

void ReadAxis(const float* in, double positive, double negative, int count, double* out) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < count; ++x) {
      out[x] = in[x] * (in[x] < 0 ? negative : positive);
    }
  });
}

}  // namespace

void CImgLabColorEnhance::Do(CVelImage* lab, double aPositive, double aNegative, double bPositive,
                             double bNegative, CRect* rect, int show) {
  if (!Fits(*lab, *this) || GetPlanes() < 3) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6134, window.Height());
  const auto write = [&](int plane, const double* colour, int count, float* out) {
    RunInLongVectors([=, min = GetLevelMin(plane), range = GetLevelRange(plane)]() KORIMG_IN_LOOP {
      for (int x = 0; x < count; ++x) {
        out[x] = static_cast<float>(colour[x] * range + min);
      }
    });
  };
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    double colours[3][kColourChunk];
    for (int x = window.left; x < window.right; x += kColourChunk) {
      const int count = std::min(kColourChunk, window.right - x);
      std::copy_n(lab->GetLine(x, y, 0), count, colours[0]);
      ReadAxis(lab->GetLine(x, y, 1), aPositive, aNegative, count, colours[1]);
      ReadAxis(lab->GetLine(x, y, 2), bPositive, bNegative, count, colours[2]);
      LabToRgb(colours[0], colours[1], colours[2], count);
      for (int p = 0; p < 3; ++p) {
        write(p, colours[p], count, GetWritableLine(x, y, p));
      }
    }
    ShowProgress(1);
  });
}

void CImgLabColorEnhance::Do(CVelImage* lab, double a, double b, CRect* rect, int show) {
  Do(lab, a, a, b, b, rect, show);
}
