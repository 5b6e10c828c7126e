#include "korimg/calibration/CImgSelfFlat.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/geometry/CImgResolution.h"
#include "korimg/geometry/CImgSoftBinning.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

void CImgSelfFlat::Do(double radius, double cap, CVelImage* pSrc, CRect*, int nProgress) {
  constexpr int kFlattening = 6205;
  const ProgressScope progress(*this, nProgress, kFlattening, 0);
  DoSelfFlat(radius, cap, pSrc);
}

void CImgSelfFlat::DoSelfFlat(double radius, double cap, CVelImage* pSrc) {
  constexpr int kCell = 10;
  if (!Fits(*pSrc, *this)) return;
  CVelImage work;
  CImgSoftBinning binned;
  if (!work.CopyImage(*pSrc, nullptr, nullptr) || !binned.CopyImage(*pSrc, nullptr, nullptr)) return;
  if (!binned.Do(kCell, kCell, 0, 1, pSrc, 0)) return;
  CImgFilterMisc darkest;
  if (!darkest.CopyImage(binned, nullptr, nullptr)) return;
  std::vector<double> radii(darkest.GetPlanes(), std::clamp(radius * 10, 1.0, 10.0));
  std::vector<int> ranks(darkest.GetPlanes(), 0);
  darkest.MinMaxFilter(radii.data(), ranks.data(), &binned, nullptr, 0);

  double low = darkest.GetLevelMin(0), high = darkest.GetLevelMax(0);
  for (int p = 1; p < darkest.GetPlanes(); ++p) {
    low = std::min(low, darkest.GetLevelMin(p));
    high = std::max(high, darkest.GetLevelMax(p));
  }
  for (int p = 0; p < darkest.GetPlanes(); ++p) {
    darkest.SetLevel(p, 0, cap * std::abs(high - low) + low);
  }
  darkest.CutOutOfLevel();
  CImgResolution flat;
  if (!flat.CopyImage(darkest, nullptr, nullptr)) return;
  if (!flat.Do(&darkest, pSrc->GetWidth(), pSrc->GetHeight(), 0)) return;
  work.FlatClbrtn(&flat, nullptr, 1);
  // Not by CopyImage, which would take the progress display over too.
  Paste(&work, nullptr);
  for (int p = 0; p < GetPlanes(); ++p) {
    SetLevel(p, work.GetLevelMin(p), work.GetLevelMax(p));
  }
}
