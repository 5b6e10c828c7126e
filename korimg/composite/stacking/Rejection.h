#pragma once

#include <span>

#include "korimg/platform/Export.h"

/// Tells how outliers are rejected among the values that frames have for one pixel. The last value is never
/// rejected.
struct Rejection {
  enum Test : int {
    /// Keeps all.
    None,
    /// Rejects what lies further than `low` or `high` standard deviations below or above the median.
    Sigma,
    /// The same with a winsorized deviation, which outliers hardly widen: values beyond 1.5 of it are
    /// clamped to that, and the deviation of these times 1.134 is the next one, until it moves by less than
    /// 0.0005 of itself (Huber 1981).
    Winsorized,
    /// Generalised extreme Studentised deviates (Rosner 1983): at most 0.3 of the values, at a level of 0.05.
    Esd,
    /// Rejects what lies further than `low` or `high` mean distances from the line through the values in
    /// order against their ranks.
    LinearFit,
    /// Rejects what lies further than `low` or `high` times the frame's own noise from the median, of an even
    /// number from the lower of the middle two. It does not tell the noise by the values, and works for two.
    Noise,
    /// Takes Noise for up to 4 values, Winsorized for up to 14 and Esd for more, with limits of their own.
    /// Where the noise of frames is known, values within 3 of it stay, and those beyond 5 go, whatever the
    /// others say.
    Auto
  };
  /// Auto tests up to so many values by Noise, and has these limits of noise. Chosen: of normal values one in
  /// 370 lies beyond the first, and one in 1.7 million beyond the second.
  static constexpr int kFew = 4;
  static constexpr double kStays = 3, kGoes = 5;

  Test test = Sigma;
  double low = 2.5, high = 2.5;
  int iterations = 5;  ///< of Sigma, Winsorized and LinearFit, each by what the last one left
};

namespace korimg {

/// Tells what a test leaves of values in order.
struct Ranks {
  int from = 0, to = 0;  ///< one past the last

  int Count() const { return to - from; }
};

/// Tests finite values in ascending order. Where the noise of frames is known they are in units of the noise
/// of their sky, and `noise` is that of this pixel, 1 or more; else it is 0, and Noise keeps all.
KORIMG_API Ranks WhatStays(const Rejection& rejection, std::span<const float> values, double noise = 0);

}  // namespace korimg
