#pragma once

#include "korimg/image/CVelImage.h"

/// Shifts the planes of a colour image against each other, so that its sky becomes grey.
class KORIMG_API CImgColorBalance : public CVelImage {
 public:
  /// Adds an offset to each plane of src, in percent of the level range of this image's plane 0 (all planes
  /// alike), and limits nothing.
  void Do(double red, double green, double blue, CVelImage* src, CRect* rect, int show);
};
