// What frames may be, by the others that were taken with them.
#pragma once

#include <string>
#include <vector>

#include "session/run/Run.h"

namespace korimg::session {

/// Holds what the stars of a frame tell of it.
struct SeenStars {
  int count;
  double fwhm, elongation;

  SeenStars(int count, double fwhm, double elongation) : count(count), fwhm(fwhm), elongation(elongation) {}
  SeenStars(const FrameMeasure& frame) : SeenStars(frame.starCount, frame.fwhm, frame.elongation) {}
};

/// Holds the limits in stars and pixels; 0 sets none.
struct FrameBounds {
  static constexpr int kEnough = 20;     ///< stars, chosen: fewer tell nothing of FWHM and elongation
  static constexpr size_t kTelling = 3;  ///< frames with so many stars: of fewer the median says little

  double fewest, widest, longest;
  size_t starry;  ///< frames with enough stars

  FrameBounds(const FrameLimits& limits, const std::vector<SeenStars>& frames);
  /// Tells why a frame is bad; empty for one within the limits.
  std::string WhyBad(const SeenStars& frame) const;
};

}  // namespace korimg::session
