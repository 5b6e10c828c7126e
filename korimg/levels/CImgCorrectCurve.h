#pragma once

#include "korimg/image/CVelImage.h"

/// Applies a curve that bends the range from `low` to `high` and fixes both ends:
/// (1 - (1 - t)^power)^(1 / power) of t, the place in the range. A power above 1 lifts, one below 1 lowers.
class KORIMG_API CImgCorrectCurve : public CVelImage {
 public:
  /// Bends the pixels between low and high, which are on the 0 to 255 scale of src's levels, and copies the
  /// others, in the planes that both images have. Answers 1, or 0 with nothing done for a power of 0 or
  /// below, low above high, no source or an empty one, or a rectangle without a pixel of both.
  int Do(double power, double low, double high, CVelImage* src, CRect* rect, int show);
  /// Does the same for one plane, low and high being raw values. It refuses planes that exist, and answers 0
  /// for those that do not: callers take the form for all planes.
  int Do(double power, double low, double high, int plane, CVelImage* src, CRect* rect, int show);
};
