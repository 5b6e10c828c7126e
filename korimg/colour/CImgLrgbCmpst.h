#pragma once

#include "korimg/image/CVelImage.h"

/// Takes the luminance of one image and the colour of another, in the Lab of CColor, into this image, which
/// has three planes already; or mixes two colour images. Sources are shifted and turned as in
/// CImgRgbCmpst::Do, the second is scaled about its centre too, and 0 beyond their edges. All planes take the
/// levels of the first source's plane 0.
class KORIMG_API CImgLrgbCmpst : public CVelImage {
 public:
  /// Reads both bilinearly as colours from 0 to 255 by their levels, a mono one as gray; limited to 0 to
  /// 5000 where Lab is made of them. With `mix` colours are mixed as they are, by `operation`: 1 |a - b|,
  /// 2 255 - |a - b|, any other (a + b) / 2.
  void DoLrgb(CVelImage* luminance, double luminanceX, double luminanceY, double luminanceDegrees,
              CVelImage* rgb, double rgbX, double rgbY, double rgbDegrees, int useImageCentre, double scale,
              CRect* rect, int mix, unsigned int operation, int show);
  /// Does the same with an L plane and of planes a and b, as MakeLPlane and MakeAbPlane make them, read by
  /// `method`, one of CInterp.
  void DoLab(CVelImage* luminance, double luminanceX, double luminanceY, double luminanceDegrees,
             CVelImage* ab, double abX, double abY, double abDegrees, int method, double scale,
             int useImageCentre, CRect* rect, int show);

 private:
  /// Calls colours(left, y, line) for each line of the rectangle, which fills in colours from 0 to 255, and
  /// writes them by the levels of the luminance.
  template <class F>
  void WriteColours(CVelImage& luminance, CRect* rect, int show, F&& colours);
};
