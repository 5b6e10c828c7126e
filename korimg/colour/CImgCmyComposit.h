#pragma once

#include "korimg/image/CVelImage.h"

/// Solves exposures through cyan, magenta and yellow filters for red, green and blue, into this image, which
/// has three planes already.
class KORIMG_API CImgCmyComposit : public CVelImage {
 public:
  /// Sources, centre and method are as those of CImgRgbCmpst::Do; of colour sources cyan is read from plane
  /// 2, magenta from plane 0, yellow from plane 1. Red is m + y - c, green y + c - m, blue m + c - y: sums of
  /// two filters without halving, not limited. Each plane takes the mean levels of the two sources that see
  /// its colour. The argument before `show` is not used.
  void Do(CVelImage* cyan, double cyanX, double cyanY, double cyanDegrees, CVelImage* magenta,
          double magentaX, double magentaY, double magentaDegrees, CVelImage* yellow, double yellowX,
          double yellowY, double yellowDegrees, int useImageCentre, int method, CRect* rect, int, int show);
};
