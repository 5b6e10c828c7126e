// Time as a plot shows it: frames of several nights, without the days between them.
#pragma once

#include <optional>
#include <vector>

namespace korimg::session {

/// Tells where moments stand on an axis. Pauses of more than 3 hours are shortened to one small width.
struct TimeAxis {
  struct Pause {
    double at;     ///< its middle on the axis
    double hours;  ///< that it lasted
  };

  double start = 0, hours = 0;  ///< of the first moment, seconds since 1970; from it to the last
  std::vector<double> places;   ///< of each moment: 0 at the first, 1 at the last
  std::vector<Pause> pauses;
  std::vector<int> parts;  ///< of each moment the number of pauses before it

  /// Takes seconds since 1970, in order. None where a moment is not known, or all are the same.
  static std::optional<TimeAxis> Of(const std::vector<std::optional<double>>& moments);
};

}  // namespace korimg::session
