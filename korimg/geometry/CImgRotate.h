#pragma once

#include "korimg/image/CVelImage.h"

/// Turns an image. The target is an image of the source's size with no more planes than it.
class KORIMG_API CImgRotate : public CVelImage {
 public:
  /// Turns by degrees about the middle, clockwise on screen for positive angles, with a method of CInterp.
  /// Where the source does not reach, the target gets `colour` (R in the low byte, then G, then B): the R
  /// byte by plane 0's levels for all planes of a colour image, the luminance for a mono one. `expand` grows
  /// the canvas to hold the turned corners; it is one pixel short of Do90's after a quarter turn. An angle of
  /// 0 copies, and a method unknown writes no pixel. 1, or 0 when there was no room for the new canvas.
  ///
  /// The centre is width / 2 and height / 2, on paged stores in whole numbers, so that odd sizes differ by
  /// half a pixel. Line loops have no pixel beyond the centres of the last column and row; pipelines have up
  /// to the edges.
  int Do(double degrees, unsigned long colour, CVelImage* src, int expand, int method, int progress);
  /// Copies the source.
  void Do0(CVelImage* src, int progress);
  /// Turns by 180 degrees.
  void Do180(CVelImage* src, int progress);
  /// Turns by 90 degrees, counter-clockwise for direction 0, clockwise for others: width and height are
  /// exchanged, and the levels are the source's. 1, or 0 when there was no room, or sizes do not fit.
  int Do90(int direction, CVelImage* src, int progress);

 private:
  float OutsideValue(unsigned long colour, const CVelImage& src) const;
  void DoPipelines(CVelImage* src, double sine, double cosine, float outside, int method);
  void DoLines(CVelImage* src, double sine, double cosine, float outside, int method);
};
