// The noise of a sensor's raw values, and what calibration leaves of it.
#pragma once

#include "session/picture/Quality.h"

namespace korimg::session {

/// Models the noise of a sensor; variances are in squared raw values.
struct NoiseModel {
  double gain = 1;         ///< electrons of a raw value
  double floor = 0;        ///< variance of a raw value without light: readout and dark current
  double zero = 0;         ///< raw value without light
  double saturation = 0;   ///< raw value at the end of the scale
  double offsetFloor = 0;  ///< variance of the master that comes off where it is `zero`,
  double offsetSlope = 0;  ///< and for each raw value above that: hot pixels
  double flatShare = 0;    ///< variance of the flat's master in that of one of its frames
  double flatFloor = 0;    ///< variance of one of these without light

  /// Fills the quality of raw rows as it is once the offset is off them and they are divided by the flat, as
  /// light * average / flat. Either may have no planes; planes that they lack are their last one.
  ///
  /// A raw value's variance is `floor` and its light's photons: light over gain. The master's is added, both
  /// are divided by the flat squared, and the flat's own relative variance is that of the light too.
  void Fill(const Band<const float>& raw, const Band<const float>& offset, const Band<const float>& flat,
            const float* averages, const QualityRows& to) const;
};

}  // namespace korimg::session
