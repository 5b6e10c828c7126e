#pragma once

#include "korimg/image/CVelImage.h"

/// Does the rotational unsharp mask: each pixel against the mean along an arc about a centre, for the jets
/// and shells of comets and for streamers of the corona. The source must be another object of the same size
/// and planes.
class KORIMG_API CImgRUsm : public CVelImage {
 public:
  /// The arc of a pixel reaches `angle` degrees to either side. It is read bilinearly in as many places as
  /// its chord has pixels, those outside the image left out. The mean is that of the means over windows of
  /// half the arc, which begin in `segments` places, or pixel by pixel if these are fewer, along its first
  /// half: what is in the middle counts most. Where an end of the arc lies outside or isn't above 0, the
  /// chord is shorter than 1.5 pixels, or there is no segment, the pixel itself stands for the mean.
  ///
  /// The result is the pixel plus (3.1 - strength) times its difference from the mean: 3.1 changes nothing,
  /// and less sharpens. `showMask` non-zero gives the mean itself. Pixels within `radiusMin` stay, and the
  /// band of levels works as that of CImgFilterSharp does. NaN pixels stay, and make NaN of pixels whose arcs
  /// meet them. `gray` non-zero filters the luminance of colour images, and writes it to all planes, on the
  /// 0 to 255 scale of each. `markCentre` non-zero draws a dashed cross through the centre on plane 0.
  void Do(double angle, double strength, int segments, int gray, double centreX, double centreY,
          double radiusMin, int useDark, double dark, double darkRange, int useHighlight, double highlight,
          double highlightRange, int brighter, double percent, int markCentre, int showMask, CVelImage* src,
          CRect* rect, int show);

 protected:
  /// Does the same, plane by plane, into another image than this one, which shows the progress.
  void Do(double angle, double strength, int segments, double centreX, double centreY, double radiusMin,
          int useDark, double dark, double darkRange, int useHighlight, double highlight,
          double highlightRange, int brighter, double percent, int markCentre, int showMask, CVelImage* src,
          CVelImage* target, CRect* rect, int show);
};
