#pragma once

#include "korimg/image/CVelImage.h"

/// Changes brightness and contrast.
class KORIMG_API CImgBright : public CVelImage {
 public:
  /// On the 256 scale of this image's levels, each pixel t becomes (t - average) x contrast / 256 + bright +
  /// t, not limited: a contrast of 256 doubles the distance from the average. One bright and one contrast for
  /// each plane.
  void Do(float* const bright, float* const contrast, double average, CVelImage* src, CRect* rect, int show);

 private:
  void DoBright(float* const bright, float* const contrast, float average, CVelImage* src, int left,
                int right, int top, int bottom);
  void DoBright_x(float* const bright, float* const contrast, float average, CVelImage* src, int left,
                  int right, int top, int bottom);
};
