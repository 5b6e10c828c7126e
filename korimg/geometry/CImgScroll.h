#pragma once

#include "korimg/image/CVelImage.h"

/// Shifts an image of the same size, another one, around its edges.
class KORIMG_API CImgScroll : public CVelImage {
 public:
  /// Shifts by `amount` pixels to the right when horizontal is non-zero, else down; a negative amount goes
  /// the other way. Reference points are cleared.
  void Do(int amount, int horizontal, CVelImage* src, int show);
};
