#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/Text.h"

/// Makes images of text: what letters cover, and layers of one colour to lay over an image.
class KORIMG_API CImgDrawText : public CVelImage {
 public:
  /// Lays text over an image, its box with the left top corner at a point: 95 % of the box become the text in
  /// a colour, 0x00BBGGRR, on black, on the image's levels. What lies beyond the image is left out. 1, or 0
  /// when there is nothing to draw or no room.
  int Do(CVelImage* target, CPoint at, const CString& text, LOGFONTW* font, unsigned long colour, int smooth);

  /// Makes a mono image, levels 0 to 1, of the text's box: 1 where letters are and 0 elsewhere. smooth
  /// non-zero draws twice as large and takes the mean of each 2 x 2 pixels. Empty when the text has no box,
  /// and when there is no room.
  static std::unique_ptr<CVelImage> MakeMask(const std::shared_ptr<CVmManager>& manager, const CString& text,
                                             const LOGFONTW& font, int smooth);
  /// Makes a layer of the mask in a colour, 0x00BBGGRR, with the planes of an image that it is laid over: in
  /// a colour one each plane times its channel / 255, in a mono one times the mean of the smallest and the
  /// largest channel.
  static std::unique_ptr<CVelImage> MakeLayer(CVelImage& mask, const CVelImage& target, unsigned long colour);
};
