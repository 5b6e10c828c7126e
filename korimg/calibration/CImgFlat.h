#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CPoint.h"

/// Takes a sloping or bowl-shaped background off an image by a model whose numbers the caller knows. Arrays
/// have one value for each plane; positions are those of the image, x and y from 0 at its first pixel.
///
/// Mode 0 subtracts the model t from a pixel v. Mode 1 divides by it: v becomes (b + K) / (t + b + K) (v + K)
/// - K, where b is the level that the model stands on, and K, which keeps the divisor away from 0, is -min(a
/// bottom, the source's recorded minimum), or 1 where that is 0: CalcMinMax of the source comes first. Other
/// modes make pixels 0. Levels and recorded extremes stay.
class KORIMG_API CImgFlat : public CVelImage {
 public:
  /// Takes off a ramp that rises from p1 towards p2 by `slope` for each pixel. It is 0 at a point that packs
  /// into one number, m = (p1.y + p2.y) / 2 toward 0: x is the low 16 bits of m as a signed number, y the
  /// high ones; in ordinary images (m, 0).
  void DoFlat(CVelImage* src, CPoint p1[], CPoint p2[], double slope[], double level[], double bottom[],
              int mode, CRect* rect, int show);
  /// Takes off a x + b y.
  void DoFlatPoint(CVelImage* src, double a[], double b[], double level[], double bottom[], int mode,
                   CRect* rect, int show);
  /// Takes off slope times the square of the distance to the centre. The level is the bottom of one that
  /// rises.
  void DoParabolic(CVelImage* src, CPoint centre[], double slope[], double level[], double bottom[], int mode,
                   CRect* rect, int show);
  /// Takes off A (x^2 + y^2) + B x + C y + D, which stands on the value at its vertex, or on 0 when A is 0;
  /// that is its bottom when A is not negative. Mode 0 adds what it stands on; in mode 1 t + b is the
  /// polynomial itself.
  void DoParabolicPoint(CVelImage* src, double A[], double B[], double C[], double D[], double bottom[],
                        int mode, CRect* rect, int show);
};
