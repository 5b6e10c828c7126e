#pragma once

#include "korimg/image/CVelImage.h"

/// Tapers an image towards its edges, as it is done before a Fourier transform.
class KORIMG_API CImgWindowing : public CVelImage {
 public:
  /// Multiplies src by a window about its middle pixel: mode 0 is a raised cosine (Hann) that is 1 there and
  /// 0 from `radius` pixels on, any other mode 1 everywhere. Pixels are raw values, so that the window falls
  /// to 0 whatever the levels. Answers 1, or 0 when sizes or planes differ.
  int Do(int mode, double radius, CVelImage* src, int show);
};
