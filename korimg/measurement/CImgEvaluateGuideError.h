#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/measurement/CStarPos.h"

/// Measures how elongated the stars of an image are: what guiding, tracking and wind make of round ones.
/// Three planes count by their mean; a mosaic has to be developed or binned before.
class KORIMG_API CImgEvaluateGuideError : public CVelImage {
 public:
  CImgEvaluateGuideError() = default;

  /// Answers the mean of the longer over the shorter width at half height of up to 10 bright stars in each of
  /// four regions about the middle, by PSF: 1 for round ones, 2 for such as are twice as long as wide,
  /// whichever way they lie (along the axes or between them); noise alone gives 1.1 to 1.2. 0 without a star.
  /// Faint peaks count where a region has fewer than 10 stars. `found` becomes 1 when there was a star, else
  /// 0; `stars` takes the stars and, as its second list, the regions. Both may be null. This object is not
  /// used.
  double Do(CVelImage* image, int* found, CStarPosEx* stars);

  /// Answers the mean elongation of the stars at given centres, of those whose widths can be measured;
  /// `measured` gets their number. 0 without any.
  static double CalcElongation(CVelImage* image, const CArray<CStarPos, CStarPos&>& stars, int& measured);

  /// Adds the brightest stars of a rectangle of this image to the list: at most `maxStars`, brightest peak
  /// first. This image is `image` reduced by `factor`, without sky. A place whose widths cannot be measured
  /// counts as one of them and is left out, and so is a star whose middle is below the mean of `image`.
  /// Answers how many were added. The rectangle is of this image, boxes and centres are of `image`.
  long long DetectStars(CVelImage* image, int factor, CRect* rect, int maxStars,
                        CArray<CStarPos, CStarPos&>& list);
};
