#include "korimg/geometry/CImgSoftBinning.h"

#include <algorithm>

#include "korimg/geometry/Resized.h"

using namespace korimg;

int CImgSoftBinning::Do(int binX, int binY, int roundUp, int scaleLevels, CVelImage* src, int show) {
  InitStdPtCtr();
  if (binX < 1 || binY < 1 || binX > src->GetWidth() || binY > src->GetHeight()) return 0;
  const auto cells = [roundUp](int size, int bin) { return size / bin + (roundUp && size % bin ? 1 : 0); };
  if (!Resized(*this, *src, cells(src->GetWidth(), binX), cells(src->GetHeight(), binY), show)) return 0;
  if (MayRunPipelines(*this, *src)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      binning2f_float(PlaneBuffer(*src, p), binX, binY, PlaneBuffer(*this, p, false));
    }
  } else {
    BinLines(binX, binY, *src, show);
  }
  for (int p = 0; scaleLevels && p < GetPlanes(); ++p) {
    const double pixels = 1.0 * binX * binY;
    SetLevel(p, GetLevelMin(p) * pixels, GetLevelMax(p) * pixels);
  }
  return 1;
}

void CImgSoftBinning::BinLines(int binX, int binY, CVelImage& src, int show) {
  const ProgressScope progress(*this, show, 6132, GetHeight() * GetPlanes());
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    std::vector<float> sums(GetWidth());
    const int top = y * binY, bottom = std::min(top + binY, src.GetHeight());
    for (int row = top; row < bottom; ++row) {
      float const* in = src.GetLine(0, row, p);
      for (int x = 0; x < GetWidth(); ++x) {
        for (int column = x * binX, end = std::min(column + binX, src.GetWidth()); column < end; ++column) {
          sums[x] += in[column];
        }
      }
    }
    std::copy(sums.begin(), sums.end(), GetWritableLine(0, y, p));
  });
}
