#pragma once

#include "korimg/image/CVelImage.h"

/// Makes a flat of an image itself, and divides by it: for vignettes where no flat was taken. Cells of 10 x
/// 10 pixels are summed, stars are eaten away by a minimum filter, and what is brighter than a share of the
/// range is capped; so what is larger than the filter, nebulae and galaxies too, counts as background up to
/// there.
class KORIMG_API CImgSelfFlat : public CVelImage {
 public:
  /// The filter has a radius of 10 x radius cells, from 1 to 10. `cap` is the share of the levels of the
  /// binned image, from the lowest of its planes to the highest, above which it is cut. The rectangle is not
  /// used: the whole image is corrected. This image stays as it is when it or a cell has no room.
  void Do(double radius, double cap, CVelImage* pSrc, CRect*, int nProgress);

 protected:
  void DoSelfFlat(double radius, double cap, CVelImage* pSrc);
};
