#pragma once

#include "korimg/image/CVelImage.h"

/// Merges two images into this one, which has the shape of the first, `a`, in up to three planes; this image
/// and either of the two may be the same. The second, `b`, may be of any size; a mono one serves every plane.
/// Its pixel (x - dx, y - dy) comes to (x, y). With an angle in degrees it turns about its reference centre
/// (useImageCentre non-zero) or about (width, height) / 2, and then shifts; a positive angle turns it
/// clockwise on the screen:
///
///     X = x - cx - dx, Y = cy - y + dy
///     (cos X - sin Y + cx, cy - (sin X + cos Y)) of b comes to (x, y).
///
/// Modes, where b is `outside` beyond its edges, 255 for modes 4 and 5 and 0 for others:
///
///     0 (a + b) / 2                   5 a / b, a where b is 0
///     1 a + b                         6 |a - b|
///     2 a (1 - weight) + b weight     7 the brighter
///     3 a - b, with cutMinus not      8 the darker
///       below 0                       9 neighbours, see Abr
///     4 a b                           above: a
///
/// Raw values are combined, or, with `level`, values on the scale of 0 to 255 by the levels of each image,
/// and the result is raw by a's levels; mode 4 is then a b / 255 with b limited to that scale, and mode 5 its
/// inverse. A negative mode does nothing. `method` is one of CInterp.
///
/// Pipelines run where all three stores are contiguous, else lines on the calling thread. They differ: a
/// small rectangle is widened to 64 x 32 pixels by pipelines; with `level`, what is outside counts from b's
/// black there and from 0 on lines; a mono `a` meets plane 0 of a colour `b` in pipelines and its luminance
/// on lines. `resourceId` is the text of the progress display, -1 for the usual one.
class KORIMG_API CImgComposit : public CVelImage {
 public:
  CImgComposit() = default;

  /// Merges as told above; in mode 9 `weight` is the ratio of Abr.
  void Do(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int useImageCentre, int mode,
          int method, double weight, int level, int cutMinus, double threshold, int radius, CRect* rect,
          int progress, int resourceId);
  /// Does the same with weight 0.5, a threshold of 0.95 and radius 0, over the whole image.
  void Do(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int useImageCentre, int mode,
          int method, int level);
  /// Merges by lines and bilinearly always, about the middle of b, as version 6.5 did; mode 0 sums in floats.
  void Do65(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode, double weight,
            int level, int cutMinus, double threshold, int radius, CRect* rect, int progress, int resourceId);
  void Do65(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode, int level);

  /// Replaces what is saturated in a long exposure `a` by a short one, `b` times `ratio`, bilinear. Saturated
  /// is what exceeds `threshold` of the scale (with level), or reaches that share of GetMaxPixel(0), which
  /// CalcMinMax finds, of each image. A radius of 1 or 2 looks at the neighbours too and smooths the border
  /// of a spot; 0 takes the smaller of a and b times ratio everywhere. b turns about its reference centre, by
  /// less than 90 degrees.
  void Abr(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode, double ratio,
           int level, int cutMinus, double threshold, int radius, CRect* rect, int progress, int resourceId);

 private:
  struct Task;

  void DoComposit(CVelImage& a, CVelImage& b, const Task& task, CRect* rect, int progress, int resourceId);
  void DoPipelines(CVelImage& a, CVelImage& b, const Task& task, CRect* rect);
  void DoLines(CVelImage& a, CVelImage& b, const Task& task, CRect* rect, int progress, int resourceId);
  void DoNbrComposit(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode, int method,
                     double ratio, int level, int cutMinus, double threshold, int radius, CRect* rect,
                     int progress, int resourceId);
};
