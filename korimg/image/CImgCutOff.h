#pragma once

#include "korimg/image/CVelImage.h"

/// Replaces what lies at or beyond the levels.
class KORIMG_API CImgCutOff : public CVelImage {
 public:
  /// Replaces by src's levels: a pixel at or below the minimum becomes `low`, one at or above the maximum
  /// `high`, both raw.
  void Do(CVelImage* src, float low, float high, CRect* rect, int show);
};
