// Shift and rotation that bring points together. Internal.
#pragma once

#include <cmath>
#include <vector>

#include "korimg/measurement/internal/PointGrid.h"

namespace korimg {

/// Holds a turn, a scale and a shift.
struct Similarity {
  double a = 1, b = 0;  ///< scale times cosine and sine
  double x = 0, y = 0;

  Point operator()(const Point& p) const { return {a * p.x - b * p.y + x, b * p.x + a * p.y + y}; }
  double Scale() const { return std::hypot(a, b); }
};

/// Answers what does the one after the other.
Similarity Joined(const Similarity& first, const Similarity& second);

/// Holds what CImgComposit::Do takes: the shift of the middle of an image, and the angle, clockwise on the
/// screen.
struct Pose {
  double dx = 0, dy = 0, degrees = 0;
};

/// Answers the pose of an image of that size.
Pose PoseOf(const Similarity& map, int width, int height);
Similarity MapOf(const Pose& pose, int width, int height);

struct Pair {
  Point from, to;
  double weight = 1;
};

/// Fits by weighted least squares; with `rigid` the scale stays 1.
Similarity Fit(const std::vector<Pair>& pairs, bool rigid);
/// Does the same without the pairs that are off by more than four times what is usual for their weights;
/// those are taken out of the list.
Similarity RobustFit(std::vector<Pair>& pairs, bool rigid);

/// Answers that of the distances that a map leaves.
double RootMeanSquare(const std::vector<Pair>& pairs, const Similarity& map);

}  // namespace korimg
