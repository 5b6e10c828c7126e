#pragma once

#include "korimg/image/CVelImage.h"

/// Posterises: tones fall to the lower edge of one of a few steps.
class KORIMG_API CImgReduceTone : public CVelImage {
 public:
  /// Divides the range of this image's levels into `tones` steps, 1 to 256. Pixels beyond the levels are
  /// limited to them; the result never reaches the level maximum.
  void Do(int tones, CVelImage* src, CRect* rect, int show);
};
