#pragma once

#include "korimg/image/CVelImage.h"

/// A matrix of colours, row by row: the first row gives red.
struct tagMATRIX {
  double a11, a12, a13;
  double a21, a22, a23;
  double a31, a32, a33;
};

/// Mixes the planes of a colour image by a matrix, as it brings the colours of a camera to those of the eye.
///
/// A coefficient of 0 leaves its plane out, NaN and infinities too. `strength` above 1 counts as 1. Both
/// forms answer 1, or 0 without three planes or a matrix, or when `mode` is none of 0 to 2.
class KORIMG_API CImgColorCorrect : public CVelImage {
 public:
  /// Works in place on raw values, as distances from an origin: 0 (mode 0), the smallest finite pixel of the
  /// image (mode 1), or `origin` (mode 2). What the matrix gives is limited to the positive floats; with a
  /// strength below 1 it is then mixed with the pixel by that share. A strength of 0 or below does nothing.
  /// `cutNegative` is not used.
  int Do(tagMATRIX* matrix, double strength, int mode, float origin, int cutNegative, int show);
  /// Takes src's pixels from src's levels to shares of them, and what the matrix gives to this image's
  /// levels. With a strength below 1 the result is mixed with src's raw value; one of 0 or below copies src.
  /// Nothing is limited; `mode`, `origin` and `cutNegative` change nothing.
  int Do(tagMATRIX* matrix, double strength, int mode, float origin, int cutNegative, CVelImage* src,
         CRect* rect, int show);
};
