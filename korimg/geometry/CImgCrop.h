#pragma once

#include "korimg/image/CVelImage.h"

/// Cuts a window out of an image.
class KORIMG_API CImgCrop : public CVelImage {
 public:
  /// This image takes the size of rect and its pixels of src, another image; reference points are cleared. 1,
  /// or 0 when rect leaves src or is empty, and when there is no room.
  int Do(CRect rect, CVelImage* src, int show);
};
