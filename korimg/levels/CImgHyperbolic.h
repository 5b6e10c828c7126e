#pragma once

#include "korimg/image/CVelImage.h"

/// Does the generalised hyperbolic stretch, by a family of curves that lift the tones about one point most,
/// between an exponential and a logarithm, with straight ends where shadows and highlights are to keep their
/// contrast. It never clips: the straight ends go on beyond the levels.
class KORIMG_API CImgHyperbolic : public CVelImage {
 public:
  /// Points are shares of a plane's levels, 0 the minimum and 1 the maximum. As they stand they change
  /// nothing.
  struct Parameters {
    double amount = 0;      ///< u, from 0 for a line to 15; D = e^u - 1 is the slope at the symmetry point
    double shape = 0;       ///< b, from -15 to 15: -1 logarithmic, 0 exponential, 1 harmonic
    double symmetry = 0;    ///< SP, where the slope is largest
    double shadows = 0;     ///< LP, from 0 to SP: the curve is its tangent below
    double highlights = 1;  ///< HP, from SP to 1: the curve is its tangent above
  };

  /// Stretches src into this image, each plane by its own parameters, on this image's levels, which keep
  /// their place. With T(x) = 1 - (1 + b D x)^(-1 / b) for b > 0, 1 - e^(-D x) for 0, ln(1 + D x) for -1 and
  /// (1 - (1 - b D x)^((b + 1) / b)) / (D (b + 1)) for all others, the curve is T(x - SP) above SP and
  /// -T(SP - x) below, brought to 0 and 1 at the levels.
  ///
  /// `inverse` non-zero undoes it; what the curve has made flatter comes back with as much less precision.
  /// NaN stays NaN, and infinity infinite. Floats serve: results differ from those of double by less than
  /// 2e-7 of the level range, and by less than 4e-7 of their distance to the symmetry point's. Answers 1, or
  /// 0 with nothing done when sizes or planes differ, a parameter is beyond its range, or a level maximum is
  /// not above its minimum.
  int Do(const Parameters* parameters, int inverse, CVelImage* src, CRect* rect, int show);
};
