#pragma once

#include "korimg/geometry/CFrameMap.h"
#include "korimg/image/CVelImage.h"

/// Lays an image on another grid by a map. It has the size of that grid when Do is called, and up to as many
/// planes as the image.
class KORIMG_API CImgWarp : public CVelImage {
 public:
  /// The pixel at map(x, y) is what `src`, another image, holds at (x, y), by a method of CInterp, raw; what
  /// the image does not reach becomes `outside`. The image reaches as far as CInterp::Do says, less the far
  /// edges. Pipelines run where both stores are contiguous, with positions in single precision, else lines on
  /// all threads, in double. 0, and nothing is done, for an unknown method or too few planes.
  int Do(CVelImage* src, const CFrameMap& map, int method, float outside, int progress);
};
