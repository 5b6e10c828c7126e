#pragma once

#include "korimg/image/CVelImage.h"

/// Unfolds the disc of a planet into a map of equal degrees, 2 to 1, as large as fits in the middle of this
/// image.
class KORIMG_API CImgExpansion : public CVelImage {
 public:
  /// The disc lies at (centreX, centreY) of src, seen from afar in the given radius, with its poles at
  /// `oblateness` times the radius. Its north pole is up, tipped towards the viewer by tiltY degrees and then
  /// turned to the left by tiltX. The middle of the map is the meridian that faces the viewer, north is up
  /// and longitude grows to the right. The far side and what lies outside src is 0, what lies outside the map
  /// the level minimum. grid non-zero draws meridians and parallels by 30 degrees at the level maximum.
  /// Levels are taken from src, whose planes are at least this image's.
  void Do(CVelImage* src, double centreX, double centreY, double radius, double tiltY, double tiltX,
          double oblateness, int grid, CRect* rect, int show);
};
