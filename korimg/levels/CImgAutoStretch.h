#pragma once

#include "korimg/image/CVelImage.h"

/// Brings the planes of a colour image together: their skies to one level and their spreads to one size, so
/// that the sky is grey and the colours of what lies on it are balanced. Parameters are arrays of one value
/// for each of three planes, raw.
class KORIMG_API CImgAutoStretch : public CVelImage {
 public:
  /// Measures an image: `background` is the mean of the darker half of a clean sky, `spread` the standard
  /// deviation of the frame without `margin` pixels at its edges, NaN with a NaN in it, and `scale` becomes
  /// `filter`. The sky is rect, or a square of CImgSkySelect::AutoSelect when autoSky is non-zero, within the
  /// margin. A spread of exactly 0 makes all spreads and scales 1. Planes that the image does not have count
  /// as its first. Answers 1; 0 with nothing written for no image, an empty rect, or no clean sky; and 0 with
  /// backgrounds of 0 and spreads of 1 where the margin leaves nothing of the sky.
  static int CalcAutoStretchParam(CVelImage* image, int margin, int autoSky, CRect rect, double* const filter,
                                  double* const scale, double* const background, double* const spread,
                                  int show);
  /// Writes (pixel - background) x K + bias + the background of plane 0, or the plane's own without
  /// linkBackground, where K is the largest spread by the plane's own, times scale. A null rect is the whole
  /// image. A contiguous src is computed in floats, a paged one in double.
  void DoStretch(CVelImage* src, int linkBackground, double* scale, double* background, double* spread,
                 double* bias, CRect* rect);
  /// Gives all planes of dst the levels of src's plane 0, stretched as plane 0 is. Answers 1, or 0 without an
  /// image.
  static int AutoStretchAdjustLevel(CVelImage* dst, CVelImage* src, double* const scale,
                                    double* const background, double* const spread);
};
