#include "session/run/internal/TimeAxis.h"

#include <algorithm>

namespace korimg::session {

std::optional<TimeAxis> TimeAxis::Of(const std::vector<std::optional<double>>& moments) {
  constexpr double kHour = 3600, kPause = 3 * kHour;          // chosen: clouds pass sooner, days last longer
  constexpr double kMostOfPause = 0.06, kMostOfPauses = 0.4;  // of the axis; chosen
  const bool allKnown = std::ranges::all_of(moments, [](const auto& moment) { return moment.has_value(); });
  if (!allKnown || moments.empty() || *moments.back() <= *moments.front()) return std::nullopt;
  TimeAxis axis;
  axis.start = *moments.front();
  axis.hours = (*moments.back() - axis.start) / kHour;
  double worked = 0;
  std::vector<double> before;  // seconds without pauses
  for (size_t i = 0; i < moments.size(); ++i) {
    const double gap = i > 0 ? *moments[i] - *moments[i - 1] : 0;
    if (gap > kPause) {
      axis.pauses.push_back({worked, gap / kHour});
    } else {
      worked += gap;
    }
    before.push_back(worked);
    axis.parts.push_back(static_cast<int>(axis.pauses.size()));
  }
  const auto pauses = static_cast<double>(axis.pauses.size());
  const double width = pauses == 0  ? 0
                       : worked > 0 ? std::min(kMostOfPause, kMostOfPauses / pauses)
                                    : 1 / pauses,
               perSecond = worked > 0 ? (1 - pauses * width) / worked : 0;
  for (size_t i = 0; i < moments.size(); ++i) {
    axis.places.push_back(before[i] * perSecond + axis.parts[i] * width);
  }
  for (size_t k = 0; k < axis.pauses.size(); ++k) {
    axis.pauses[k].at = axis.pauses[k].at * perSecond + (static_cast<double>(k) + 0.5) * width;
  }
  return axis;
}

}  // namespace korimg::session
