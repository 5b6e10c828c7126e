#pragma once

#include "korimg/image/CVelImage.h"

namespace korimg {
struct Window;
}

/// Adds the pixels of cells up to one pixel each.
class KORIMG_API CImgSoftBinning : public CVelImage {
 public:
  /// This image takes src's size (another image's) divided by the bins, rounded up when roundUp is non-zero,
  /// else down. Each pixel is the sum of its binX x binY pixels, of those that there are at the edges; sums
  /// are floats, added row by row. scaleLevels non-zero multiplies the levels by binX x binY. Reference
  /// points are cleared. 1, or 0 for bins below 1 or larger than src, and when there is no room.
  int Do(int binX, int binY, int roundUp, int scaleLevels, CVelImage* src, int show);

 private:
  void BinLines(int binX, int binY, CVelImage& src, const korimg::Window& window);
};
