#pragma once

#include "korimg/image/CVelImage.h"

/// Scales an image to a new size. Output pixel (x, y) looks at (x, y) times old size / new size, without
/// half-pixel centring: the top left pixels coincide. The source is another image with a plane for each of
/// the target's; levels stay. 1, or 0 when the target could not get its size, and has the pixels that it had.
///
/// The kernels are those of CInterp, but the bicubic one has slope -0.1. Pipelines repeat the edge. Line
/// loops differ: Bilinear goes on beyond the last two pixels of an axis as a straight line; Bicubic divides
/// by the sum of weights, mirrors at the left and top edge, and reads column or row 0 beyond the others;
/// DoChange is CInterp::Do.
class KORIMG_API CImgResolution : public CVelImage {
 public:
  int Do(CVelImage* src, int width, int height, int progress);
  int Bilinear(CVelImage* src, int width, int height, int progress);
  int Bicubic(CVelImage* src, int width, int height, int progress);
  /// Scales by a method number of CInterp; any other changes the size and no pixel.
  int DoChange(CVelImage* src, int width, int height, int method, int progress);

 private:
  void DoBilinear(CVelImage* src);
  void DoBicubic(CVelImage* src);
};
