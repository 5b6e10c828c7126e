#pragma once

#include <array>

#include "korimg/image/CVelImage.h"

/// Stretches by the midtones transfer function, the rational function that keeps 0 and 1 and lifts the
/// midtone m to 1/2: (1 - m) x / ((1 - m) x + m (1 - x)). It brings the few tones of a linear sky into sight
/// and never clips by itself.
class KORIMG_API CImgMidtones : public CVelImage {
 public:
  /// The range that is stretched and the tone in it that becomes medium grey. Shadow and highlight are shares
  /// of a plane's levels, 0 the minimum and 1 the maximum, and may lie beyond them; the midtone is a share of
  /// what lies between the two. As they stand they change nothing between the levels.
  struct Parameters {
    double shadow = 0, midtone = 0.5, highlight = 1;
  };

  /// Answers the function itself, of x from 0 to 1 and a midtone between 0 and 1, for float and double: exact
  /// at 0, m and 1. Transfer(x, 1 - m) is its inverse.
  template <class T>
  __attribute__((always_inline)) static T Transfer(T x, T midtone) {
    const T lit = (1 - midtone) * x;
    return lit / (lit + midtone * (1 - x));
  }

  /// Chosen to show a linear sky: black is so many spreads below its median, which becomes this share of
  /// white.
  static constexpr double kShadowSpreads = 2.8, kSky = 0.25;

  /// Measures parameters for each plane that show a linear image. The median M and the spread s (1.4826 times
  /// the median distance from it) of all finite pixels, as shares of the image's levels, give the shadow M
  /// - 2.8 s and the midtone Transfer(M - shadow, 1/4), so that the sky becomes a quarter; the highlight
  /// stays at the level maximum. So the levels have to span what shall be seen. A shadow below the minimum,
  /// of a sky near it, is kept, and its M - shadow is a share of the wider range. Where more than half of the
  /// pixels are alike, the spread is that of a normal distribution with the same distance of 90 %. An image
  /// with a median above 1/2 is a negative, and is treated as one: its sky becomes three quarters, and its
  /// shadow stays. A plane of one value, without finite pixels or without levels gets neutral parameters.
  /// `linked` gives all planes the same ones, by the means of medians and spreads. The same for any number of
  /// threads.
  static std::array<Parameters, 3> Measure(CVelImage& image, bool linked);

  /// Stretches src into this image, each plane by its own parameters, on this image's levels. Pixels beyond
  /// shadow and highlight become the level minimum and maximum. `inverse` non-zero undoes it for all others,
  /// within the rounding of floats times the slope of the inverse; there, pixels beyond the levels become the
  /// shadow and the highlight. NaN stays NaN. Answers 1, or 0 with nothing done when sizes or planes differ,
  /// the highlight is not above the shadow, a midtone not between 0 and 1, or a level maximum not above its
  /// minimum.
  int Do(const Parameters* parameters, int inverse, CVelImage* src, CRect* rect, int show);
};
