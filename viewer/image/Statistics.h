// Measures of a rectangle of a picture.
#pragma once

#include <functional>
#include <vector>

#include "korimg/image/CfPoint.h"
#include "korimg/platform/CRect.h"

#include "viewer/image/Pyramid.h"

namespace korimg::viewer {

/// Holds measures of the finite pixels of a plane; all 0 without any.
struct PlaneStatistics {
  long long count = 0, blank = 0;  ///< blank: those that are not finite
  double min = 0, max = 0, mean = 0, median = 0;
  double deviation = 0;        ///< standard deviation
  double spread = 0;           ///< 1.4826 times the median distance from the median
  std::vector<int> histogram;  ///< of finite pixels, in equal steps between the ends that were asked for
};

struct RectStatistics {
  CRect rect;    ///< that was measured, inside the picture
  int step = 1;  ///< every so many rows and columns were taken
  std::vector<PlaneStatistics> planes;
};

/// Measures pixels of the picture itself: all of a small rectangle, and of a large one those at equal steps,
/// some millions. Histograms have `bins` steps from `low` to `high`; what lies beyond is counted in the first
/// and the last one.
/// @throws Cancelled once isGone() says so, UsageError for a rectangle beside the picture
RectStatistics Measure(
    Pyramid& pyramid, CRect rect, int bins, double low, double high,
    const std::function<bool()>& isGone = [] { return false; });

/// Answers pixels of each plane along a line from one place of a picture to another: at equal steps, the
/// first and the last place among them, the pixel that each lies in; NaN beside the picture.
/// @throws Cancelled once isGone() says so
std::vector<std::vector<float>> ProfileOf(
    Pyramid& pyramid, const CfPoint& from, const CfPoint& to, int count,
    const std::function<bool()>& isGone = [] { return false; });

}  // namespace korimg::viewer
