#pragma once

#include "korimg/image/CVelImage.h"

/// Applies tone curves by tables. A table holds `count` values, 0 to 1 for results of 0 to 255, for pixels of
/// 0 to 255 on the 256 scale of this image's levels. Below 0 the result is 0; above 255 the curve goes on
/// along the table's last step when that rises, about the last value: it jumps there unless the table ends
/// at 1.
class KORIMG_API CImgToneCurve : public CVelImage {
 public:
  CImgToneCurve() = default;
  CImgToneCurve(const CImgToneCurve& other) : CVelImage(other, nullptr) {}

  /// Applies curves[0] to a mono image; on a colour image first curves[1 + p] to plane p, then curves[0].
  /// Fewer than 2 values in a table change nothing. hAlpha non-zero shows another progress text.
  void Do(float** const curves, int count, CVelImage* src, CRect* rect, int show, int hAlpha);
  /// Applies the curve for the sun in H-alpha: below `knee` (0 to 1) of the range a line to `gain`, above it
  /// nothing changes. Colour images have it on plane 0 and once more on all planes.
  void DoHAlpha(double knee, double gain, CVelImage* src, CRect* rect, int show);
  /// Sets levels for it: all planes from the smallest pixel of src's plane 0 to `factor` times the largest.
  void DoHAlphaLevel(double factor, CVelImage* src);

 protected:
  /// Answers the curve beyond the ends of a table whose last entry is table[n].
  static double CalcToneCurve(float* table, int n, double x);
  /// Answers the curve at x on the 256 scale; indexScale is n / 255.
  static double CalcToneNormal(double x, double indexScale, float* table, int n);
};
