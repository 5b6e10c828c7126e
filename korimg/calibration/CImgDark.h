#pragma once

#include "korimg/image/CVelImage.h"

/// Builds a dark frame for conditions under which none was taken, from two that were: this image, which is
/// replaced, and a second one of the same size. Quantities ending in 1 belong to this image, those ending in
/// 2 to the second, the bare ones to the frame wanted; what they are (a temperature, an exposure) is the
/// caller's choice.
class KORIMG_API CImgDark : public CVelImage {
 public:
  CImgDark() = default;
  CImgDark(const CImgDark& other) : CVelImage(other, nullptr) {}

  /// Interpolates linearly in both quantities, whose changes add.
  void DoInterpolateByProportion(CVelImage* second, double a1, double a2, double a, double b1, double b2,
                                 double b, int show);
  /// Interpolates linearly in a; in b it adds this image times 2 to the power n - b / step, n the nearer of
  /// b1 and b2 (b2 when they are equally near).
  void DoInterpolateByPower(CVelImage* second, double a1, double a2, double a, double b1, double b2, double b,
                            double step, int show);
  /// Interpolates linearly in a score; results are limited to the pair of pixels.
  void DoInterpolateByScore(CVelImage* second, double s, double s1, double s2, int show);
};
