#pragma once

#include "korimg/image/CVelImage.h"

/// Holds the light of an image in one plane, on a store of the same kind: its only plane, the luminance of
/// three, or of a mosaic a mean over its colours. The sky is that of cells of 64 x 64 pixels. Exhausted
/// memory throws velora::CVmMemoryAllocationError.
class KORIMG_API CImgLight : public CVelImage {
 public:
  CImgLight() = default;

  void Do(CVelImage* image);
  /// Takes the image less the sky. Pixels that are no numbers become 0.
  void DoWithoutSky(CVelImage* image);
  /// Takes what stands out of the sky by more than `sigmas` of its deviations, less these; all else becomes
  /// 0.
  void DoAboveSky(CVelImage* image, double sigmas);
};
