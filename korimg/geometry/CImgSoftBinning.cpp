#include "korimg/geometry/CImgSoftBinning.h"

#include <algorithm>

#include "korimg/geometry/internal/Resized.h"

using namespace korimg;

int CImgSoftBinning::Do(int binX, int binY, int roundUp, int scaleLevels, CVelImage* src, int show) {
  InitStdPtCtr();
  if (binX < 1 || binY < 1) return 0;
  const auto cells = [roundUp](int size, int bin) { return size / bin + (roundUp && size % bin ? 1 : 0); };
  const int width = cells(src->GetWidth(), binX), height = cells(src->GetHeight(), binY);
  if (width == 0 || height == 0 || !Resized(*this, *src, width, height, show)) return 0;
  if (MayRunPipelines(*this, *src)) {
    const int wholeX = src->GetWidth() / binX, wholeY = src->GetHeight() / binY;
    for (int p = 0; p < GetPlanes() && wholeX > 0 && wholeY > 0; ++p) {
      PlaneBuffer whole(*this, p, false);
      whole.Crop(wholeX, wholeY);
      binning2f_float(PlaneBuffer(*src, p), binX, binY, whole);
    }
    // Cells that stick out: the last column and row.
    BinLines(binX, binY, *src, {wholeX, 0, GetWidth(), GetHeight()});
    BinLines(binX, binY, *src, {0, wholeY, wholeX, GetHeight()});
  } else {
    const ProgressScope progress(*this, show, 6132, GetHeight() * GetPlanes());
    BinLines(binX, binY, *src, Window(*this, nullptr));
  }
  for (int p = 0; scaleLevels && p < GetPlanes(); ++p) {
    const double pixels = 1.0 * binX * binY;
    SetLevel(p, GetLevelMin(p) * pixels, GetLevelMax(p) * pixels);
  }
  return 1;
}

void CImgSoftBinning::BinLines(int binX, int binY, CVelImage& src, const Window& window) {
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    std::vector<float> sums(window.Width());
    const int top = y * binY, bottom = std::min(top + binY, src.GetHeight());
    for (int row = top; row < bottom; ++row) {
      const float* in = src.GetLine(0, row, p);
      for (int x = 0; x < window.Width(); ++x) {
        const int left = (window.left + x) * binX, right = std::min(left + binX, src.GetWidth());
        for (int column = left; column < right; ++column) {
          sums[x] += in[column];
        }
      }
    }
    std::copy(sums.begin(), sums.end(), GetWritableLine(window.left, y, p));
  });
}
