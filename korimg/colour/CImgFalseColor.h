#pragma once

#include "korimg/image/CVelImage.h"

/// Shows brightness as colour, so that faint differences are seen.
class KORIMG_API CImgFalseColor : public CVelImage {
 public:
  /// Gives the brightness of src from `low` to `high`, raw values by the levels of its plane 0, the colours
  /// of a palette, at this image's levels. low above high turns the palette over. What lies beyond has the
  /// colour of the end; NaN, and all pixels when low and high are equal, that of the palette's begin. Above
  /// 0, `cycles` is how often the range runs through the palette.
  ///
  /// Palettes: 0 blue, cyan, green, yellow, red; 1 the same between black and white; 2 black, blue, white; 3
  /// teal, and 4 red, from black to nearly white; 5 heat: black, red, yellow, white; any other grey. In
  /// palette 1 a colour comes two thirds near to the next one and then jumps to it.
  ///
  /// Nothing happens unless this image has three planes.
  void Do(double low, double high, int palette, int cycles, CVelImage* src, CRect* rect, int show);

 protected:
  /// Gives the colour of a value from 0 to 255, to which others are limited, on the same scale.
  void GetFalseColor(float value, int palette, int cycles, float* r, float* g, float* b);
};
