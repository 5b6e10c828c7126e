#pragma once

#include <memory>

#include "korimg/measurement/CStarMatcher.h"

/// Tells how an image lies on a reference by phase-only correlation, where stars are too few, too faint or
/// out of shape. Three planes count by their luminance, mosaics by the mean of their colours.
///
/// What is correlated is light that stands out of the sky, so that neither gradients nor the sensor's own
/// pattern is taken for the picture: in all pixels, then, for wide objects, in means of 4 x 4. The angle
/// comes from rotation-invariant correlation, and half a turn is tried too, which the light has to prove: by
/// a tenth more of it lying on the reference's than without; angle and shift are then those to which
/// correlations of tiles agree. When fewer than three do, or most do not, there is no match: a correlation of
/// whole images has a highest point always. Nor is there one where no corner of the image moves by half a
/// pixel, since the dead and hot pixels of a sensor match like that under any sky.
class KORIMG_API CPhaseMatcher {
 public:
  /// Makes a matcher, which the reference must outlive.
  explicit CPhaseMatcher(CVelImage* reference);
  ~CPhaseMatcher();
  CPhaseMatcher(const CPhaseMatcher&) = delete;
  CPhaseMatcher& operator=(const CPhaseMatcher&) = delete;

  /// Answers Ok, or NoMatch; `stars` is the number of tiles. One thread at a time may call it.
  CStarMatch Match(CVelImage& image);

 private:
  struct Scale;

  CVelImage* reference_;
  std::unique_ptr<Scale> scales_[2];
};
