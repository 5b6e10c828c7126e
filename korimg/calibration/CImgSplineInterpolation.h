#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/levels/CSpline.h"

/// Applies curves through points to pixels as shares of this image's levels, computed anew for each pixel: of
/// a sky, small differences stay, which a table would make steps.
class KORIMG_API CImgSplineInterpolation : public CVelImage {
 public:
  /// Solves the curves, which Do needs: four of them, the master and those of the three planes; of a mono
  /// image the master only. Never 0, even where a curve has too few points to be solved.
  int CalcSplineParam(CSpline::Points* curves);
  /// Applies the plane's curve and then the master, or the master alone to a mono image. Shares from 1 on
  /// stay, those up to 0 become 0, and results are limited to 0 and 1; beyond the ends of a curve a share
  /// stays, and a curve of fewer than two points is 0. NaN stays NaN. Answers 1, or 0 with nothing done when
  /// sizes or planes differ.
  ///
  /// On contiguous stores a plane of colour goes through a pipeline where its curves are one, of at most four
  /// segments; the results are the same to the bit.
  int Do(CSpline::Points* curves, CVelImage* pSrc, CRect* rect, int nProgress);

 protected:
  /// Answers the curve at t.
  static double GetSplineValue(double t, CSpline::Points& curve);
};
