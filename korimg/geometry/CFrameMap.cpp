#include "korimg/geometry/CFrameMap.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>
#include <vector>

#include "korimg/geometry/internal/Homography.h"
#include "korimg/platform/CArray.h"

using namespace korimg;

CFrameMap::CFrameMap(const Matrix& matrix, const CLensDistortion& frame, const CLensDistortion& reference)
    : matrix_(matrix), frame_(frame), reference_(reference) {
  for (double& number : matrix_) {
    number /= matrix[8];
  }
  const double determinant = Determinant(matrix_, Adjugate(matrix_));
  if (!(determinant > 0) || !std::isfinite(determinant)) throw new CInvalidArgException;
}

CFrameMap CFrameMap::FromPose(double dx, double dy, double degrees, int width, int height) {
  const double angle = degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
  const double x = width * 0.5, y = height * 0.5;
  return CFrameMap({c, -s, x + dx - (c * x - s * y), s, c, y + dy - (s * x + c * y), 0, 0, 1});
}

CFrameMap::Model CFrameMap::GetModel() const {
  constexpr double kSame = 1e-9;  // chosen: rounding is far less, and 10^6 pixels move by 0.001
  const Matrix& m = matrix_;
  if (std::abs(m[6]) > kSame * kSame || std::abs(m[7]) > kSame * kSame) return Homography;
  if (std::abs(m[0] - m[4]) > kSame || std::abs(m[1] + m[3]) > kSame) return Affine;
  return std::abs(std::hypot(m[0], m[3]) - 1) > kSame ? Similarity : Rigid;
}

CFrameMap::Pose CFrameMap::PoseOf(int width, int height) const {
  const Point middle{width * 0.5, height * 0.5};
  const auto moved = (*this)(middle);
  const auto j = JacobianAt(middle);
  if (!moved || !j) return {};
  return {moved->x - middle.x, moved->y - middle.y,
          std::atan2(j->yx - j->xy, j->xx + j->yy) * 180 / std::numbers::pi};
}

std::optional<Point> CFrameMap::operator()(Point p) const {
  const Point q = frame_.Straight(p);
  const Matrix& m = matrix_;
  const double w = m[6] * q.x + m[7] * q.y + m[8];
  if (!(w > 0)) return std::nullopt;
  return reference_.Bent({(m[0] * q.x + m[1] * q.y + m[2]) / w, (m[3] * q.x + m[4] * q.y + m[5]) / w});
}

std::optional<CLensDistortion::Jacobian> CFrameMap::JacobianAt(Point p) const {
  const auto left = (*this)({p.x - 0.5, p.y}), right = (*this)({p.x + 0.5, p.y}),
             above = (*this)({p.x, p.y - 0.5}), below = (*this)({p.x, p.y + 0.5});
  if (!left || !right || !above || !below) return std::nullopt;
  return CLensDistortion::Jacobian{right->x - left->x, below->x - above->x, right->y - left->y,
                                   below->y - above->y};
}

CFrameMap CFrameMap::Inverse() const {
  return CFrameMap(Adjugate(matrix_), reference_, frame_);
}

CFrameMap CFrameMap::Then(const CFrameMap& next) const {
  if (!(reference_ == next.frame_)) throw new CInvalidArgException;
  return CFrameMap(Product(next.matrix_, matrix_), frame_, next.reference_);
}

CFrameMap CFrameMap::Moved(double dx, double dy) const {
  const Point centre = reference_.Centre();
  return CFrameMap(Product({1, 0, dx, 0, 1, dy, 0, 0, 1}, matrix_), frame_,
                   {{centre.x + dx, centre.y + dy}, reference_.Scale(), reference_.Values()});
}

CFrameMap::Bounds CFrameMap::BoundsOf(double left, double top, double right, double bottom) const {
  constexpr int kSteps = 32;  // chosen, of an edge; what it bends between them is added
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  Bounds bounds{kInfinity, kInfinity, -kInfinity, -kInfinity};
  double bend = 0;
  const auto walk = [&](Point from, Point to) {
    std::optional<Point> before, beforeThat;
    for (int i = 0; i <= kSteps; ++i) {
      const double t = 1.0 * i / kSteps;
      const auto p = (*this)({from.x + t * (to.x - from.x), from.y + t * (to.y - from.y)});
      if (p) {
        bounds = {std::min(bounds.left, p->x), std::min(bounds.top, p->y), std::max(bounds.right, p->x),
                  std::max(bounds.bottom, p->y)};
      }
      if (p && before && beforeThat) {
        bend = std::max({bend, std::abs(p->x - 2 * before->x + beforeThat->x),
                         std::abs(p->y - 2 * before->y + beforeThat->y)});
      }
      beforeThat = std::exchange(before, p);
    }
  };
  walk({left, top}, {right, top});
  walk({left, bottom}, {right, bottom});
  walk({left, top}, {left, bottom});
  walk({right, top}, {right, bottom});
  // A parabola between two of three places leaves their line by an eighth of its second difference; twice
  // that for what is none.
  bend /= 4;
  return {bounds.left - bend, bounds.top - bend, bounds.right + bend, bounds.bottom + bend};
}
