#pragma once

#include "korimg/image/CVelImage.h"

/// Measures how sharp this image is: the mean, over the pixels of all planes, of how far the image smoothed
/// by a narrow Gaussian lies from the same smoothed by a wide one, in raw values. The sharper, the higher;
/// values of one scene in one exposure compare. The settings "Min" (1) and "Max" (10) of section "Eval" are
/// the sigmas in pixels. The outermost Max pixels of the image or rectangle are left out; where none remains
/// the value is 0.
class KORIMG_API CImgEvaluateFocus : public CVelImage {
 public:
  CImgEvaluateFocus() = default;

  double Do(CRect* rect, int show);
  double Do(int show);

  /// Answers the setting "Max".
  static int GetMargin();
};
