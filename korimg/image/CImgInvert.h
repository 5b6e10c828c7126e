#pragma once

#include "korimg/image/CVelImage.h"

/// Turns an image over: its black becomes white.
class KORIMG_API CImgInvert : public CVelImage {
 public:
  /// Each pixel is read on the 256 scale by src's levels, turned over, and written by this image's levels.
  /// Values outside the levels map outside; nothing is limited.
  void Do(CVelImage* src, CRect* rect, int show);

 private:
  void DoInvert(CVelImage* src, int left, int right, int top, int bottom);
  void DoInvert_x(CVelImage* src, int left, int right, int top, int bottom);
};
