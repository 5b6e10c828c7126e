#pragma once

#include "korimg/image/CVelImage.h"

/// Shows the rotational gradient: each pixel against those of the same radius about a centre, an angle to
/// either side, as Larson and Sekanina (1984) show the jets and shells of comets. The source must be another
/// object of the same size and planes.
///
/// Angles are in degrees. Between pixels the source is read bilinearly, and beyond its last column and row by
/// drawing the last two on; outside it is 0, so that pixels near its corners come out brighter.
class KORIMG_API CImgRttnGrdnt : public CVelImage {
 public:
  /// Writes s (k + 2) less both neighbours on the circle, divided by k unless that is 0: the pure gradient at
  /// k = 0, and more of the source the larger k is.
  void Do(double angle, double k, double centreX, double centreY, CVelImage* src, CRect* rect, int show);
  /// Does the same beyond a radius and in a band of levels, as the sharpeners of CImgFilterSharp have it.
  /// `markCentre` non-zero draws a dashed cross through the centre on plane 0.
  void Do(double angle, double k, double centreX, double centreY, double radiusMin, int useDark, double dark,
          double darkRange, int useHighlight, double highlight, double highlightRange, int brighter,
          double percent, int markCentre, CVelImage* src, CRect* rect, int show);
};
