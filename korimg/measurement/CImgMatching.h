#pragma once

#include "korimg/image/CVelImage.h"

/// Finds the place on this image where another one fits best, by the mean square difference of their pixels.
/// An image at (x, y) has its first pixel there. Planes that both have are compared, in raw values.
class KORIMG_API CImgMatching : public CVelImage {
 public:
  /// Stands for the difference at a place without overlap: a sentinel above that of any other place.
  static constexpr double kNoOverlap = 3.402823466e38;

  CImgMatching() = default;

  /// Searches about *x and *y, brought to whole pixels: every second place within range / 2 to each side,
  /// then the pixels beside the best one, and where `fine` is non-zero by 0.3 and by 0.1 pixels; of equal
  /// places the first one by rows. The other image is multiplied by the ratio of the means, by planes, which
  /// is 1 when one of them is 0. 1, or 0 with *x and *y left when no place had a difference. There is a best
  /// place always, whether the images show the same or not. Runs on the caller's thread and cannot be
  /// cancelled.
  int Do(CVelImage* other, double* x, double* y, int range, int fine, int show);

  /// Answers the mean square difference on the overlap of both, with the other's pixels multiplied by
  /// ratio[plane] as floats and, at fractional places, bilinear.
  double CalcValue(CVelImage* other, int x, int y, double* const ratio);
  double CalcValue(CVelImage* other, double x, double y, double* const ratio);
};
