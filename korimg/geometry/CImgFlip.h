#pragma once

#include "korimg/image/CVelImage.h"

/// Mirrors an image of the same size, which is another one. Reference points stay.
class KORIMG_API CImgFlip : public CVelImage {
 public:
  /// Mirrors: axis 0 turns top and bottom over, 1 left and right; any other does nothing.
  void Do(int axis, CVelImage* src, int show);
};
