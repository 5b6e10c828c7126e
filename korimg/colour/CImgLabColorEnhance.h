#pragma once

#include "korimg/image/CVelImage.h"

/// Deepens or fades the colours of an image and keeps its lightness.
class KORIMG_API CImgLabColorEnhance : public CVelImage {
 public:
  /// Multiplies a and b of `lab`, the planes of MakeLabPlane, by a factor for each sign (positive a is
  /// reddish, negative greenish, positive b yellowish, negative bluish), and writes the colours to this
  /// image's levels. Colours that have no light in a channel get 0 there, and above white nothing is limited.
  /// Nothing happens unless both images have three planes and one size.
  void Do(CVelImage* lab, double aPositive, double aNegative, double bPositive, double bNegative, CRect* rect,
          int show);
  /// Does the same with one factor for both signs.
  void Do(CVelImage* lab, double a, double b, CRect* rect, int show);
};
