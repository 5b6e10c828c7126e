#pragma once

#include "korimg/image/CVelImage.h"

/// Equalises the histogram exactly: each pixel becomes its rank among the pixels of its plane, so that
/// all tones between the plane's extremes come equally often.
class KORIMG_API CImgHstEql : public CVelImage {
 public:
  /// Equalises the first three planes of src into this image, which has its size. Rank n of N pixels becomes
  /// minimum + n x range / N; equal pixels are ordered by a hash of their place, the same for any number of
  /// threads; NaN stays NaN and takes the last ranks. The levels of src become the extremes of its pixels.
  /// Answers 1, or 0 when sizes or planes differ. Works in 12 bytes for each pixel of a plane; throws
  /// std::bad_alloc where there is no room for them, or for more than 2^32 - 1 pixels in a plane.
  int Do(CVelImage* src);
};
