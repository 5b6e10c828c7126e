#pragma once

#include "korimg/image/CVelImage.h"

/// Takes one channel out of a colour image, as a mono image.
class KORIMG_API CImgSeparation : public CVelImage {
 public:
  /// Takes a channel by number: 0 red, 1 green, 2 blue, each with its levels; 3 cyan, the mean of green and
  /// blue; 4 magenta, of red and blue; 5 yellow, of red and green. The levels of a mean are the means of the
  /// two planes', of yellow those of red and blue. Nothing happens for another number, and unless this image
  /// has one plane, src three, and both one size.
  void Do(CVelImage* src, int channel, int show);
};
