#pragma once

#include "korimg/image/CVelImage.h"

/// Changes the canvas of an image without scaling it.
class KORIMG_API CImgResize : public CVelImage {
 public:
  /// The source lies at an anchor, 0 to 8 by rows from the top left to the bottom right (any other: top
  /// left), and what it does not cover gets fill[plane], on the 0 to 255 scale of this image's levels. The
  /// source is another image with a plane for each of the target's. 1, or 0 when there was no room.
  int Do(int width, int height, int anchor, float* const fill, CVelImage* src, int progress);
};
