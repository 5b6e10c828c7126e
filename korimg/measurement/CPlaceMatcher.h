#pragma once

#include <memory>
#include <vector>

#include "korimg/measurement/CImgMatching.h"
#include "korimg/measurement/CStarMatcher.h"

/// Tells how an image lies on a reference by the place where its light fits best: for one object alone, such
/// as a small planet, which has neither stars about it nor details all over the image. Three planes count by
/// their luminance, mosaics by the mean of their colours.
///
/// Only shifts are found, up to a third of the shorter side. What is compared is light that stands out of the
/// sky, in means of many pixels first, then of fewer as long as it is alike. There is a best place always: it
/// counts when the light of both images is alike there by 0.75 of 1, when the last halving of the means has
/// moved it by a pixel at most, and when the image has moved by three times that and by half a pixel, since
/// what belongs to the sensor does not move.
class KORIMG_API CPlaceMatcher {
 public:
  /// The reference may go afterwards.
  explicit CPlaceMatcher(CVelImage& reference);
  ~CPlaceMatcher();
  CPlaceMatcher(const CPlaceMatcher&) = delete;
  CPlaceMatcher& operator=(const CPlaceMatcher&) = delete;

  /// Answers Ok, or NoMatch. The residual is what the last halving of the means moved it by. One thread at a
  /// time may call it.
  CStarMatch Match(CVelImage& image) const;

 private:
  struct Scale;
  static std::vector<Scale> ScalesOf(CVelImage& image, int coarsest);

  int coarsest_;
  std::vector<Scale> scales_;
};
