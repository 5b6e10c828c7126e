#pragma once

#include "korimg/image/CVelImage.h"

/// Brings an image's planes to a mean and a standard deviation, by a shift and a stretch about the mean.
/// Pixels are not limited, and levels stay.
class KORIMG_API CImgNormalize : public CVelImage {
 public:
  CImgNormalize() = default;

  /// Takes the means and deviations wanted, one for each plane, raw. A null pointer leaves that one as it is,
  /// and so does a plane without deviation; both null do nothing at all.
  void Do(CVelImage* src, float* average, float* sigma, int progress);
};
