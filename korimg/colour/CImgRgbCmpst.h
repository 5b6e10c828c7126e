#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CString.h"

/// Puts exposures through red, green and blue filters together into one colour image, which is this one and
/// has three planes already.
class KORIMG_API CImgRgbCmpst : public CVelImage {
 public:
  /// Each source is an image, its shift in pixels to the right and down, and its rotation in degrees about
  /// its reference centre (useImageCentre) or the middle of its canvas, clockwise on the screen: the pixel
  /// (x, y) is the source's at (x - dx, y - dy). A colour source serves by its own plane of that colour.
  /// Pixels between the source's are found by `method`, one of CInterp; beyond its edges are 0. Each plane
  /// takes the levels of its source. Planes whose number in `mask` is 0 keep their pixels; null writes all.
  /// An empty caption shows the usual one.
  void Do(CVelImage* red, double redX, double redY, double redDegrees, CVelImage* green, double greenX,
          double greenY, double greenDegrees, CVelImage* blue, double blueX, double blueY, double blueDegrees,
          int useImageCentre, int method, CRect* rect, int* mask, int show, CString caption);
};
