#pragma once

#include "korimg/image/CVelImage.h"

/// Joins two images on one canvas.
class KORIMG_API CImgMosaic : public CVelImage {
 public:
  /// `first` lies at (firstX, firstY), `second` at (secondX, secondY), turned by `angle` degrees clockwise on
  /// the screen about its reference centre; both are read between pixels. Where both lie, mode 0 shows the
  /// second; 1 the first where the second is within 1/256 of the levels of `transparent`, else the second; 2
  /// the larger; 3 the smaller; any other the second. average non-zero shows the mean everywhere instead.
  ///
  /// use256 non-zero reads and joins on the 256 scale, each image by its own levels, and writes by this
  /// image's. `transparent` holds raw values of this image for each plane, `fill` what is read outside an
  /// image, on the scale of the reads.
  void Do(CVelImage* first, int firstX, int firstY, CVelImage* second, double secondX, double secondY,
          double angle, int mode, float* const transparent, float* const fill, int use256, int average,
          CRect* rect, int show);
};
