#pragma once

#include <array>
#include <optional>

#include "korimg/geometry/CLensDistortion.h"
#include "korimg/geometry/Point.h"
#include "korimg/platform/Export.h"

/// Tells how a frame lies on another one, the reference: straightened by the distortion of its lens, moved by
/// a homography, and bent by the distortion of the reference's lens. Inverse and composition are of the same
/// kind (Hartley and Zisserman, 2004, chapter 2).
class KORIMG_API CFrameMap {
 public:
  /// What the homography is, from the simplest on.
  enum Model : int { Rigid, Similarity, Affine, Homography };

  /// Rows of h: (x, y) comes to (h0 x + h1 y + h2, h3 x + h4 y + h5) / (h6 x + h7 y + h8).
  using Matrix = std::array<double, 9>;

  /// Everything stays where it is.
  CFrameMap() = default;
  /// The matrix has a determinant above 0, and is scaled to h8 = 1. Throws CInvalidArgException* for others.
  explicit CFrameMap(const Matrix& matrix, const CLensDistortion& frame = {},
                     const CLensDistortion& reference = {});
  /// Makes a map of what CImgComposit::Do takes: a frame is turned about (width / 2, height / 2), clockwise
  /// on the screen, and then shifted to the right and down.
  static CFrameMap FromPose(double dx, double dy, double degrees, int width, int height);

  const Matrix& GetMatrix() const { return matrix_; }
  const CLensDistortion& FrameDistortion() const { return frame_; }
  const CLensDistortion& ReferenceDistortion() const { return reference_; }
  /// Answers the simplest model that the matrix is, to 1e-9.
  Model GetModel() const;
  /// True for a shift and a turn without distortion.
  bool IsRigid() const { return frame_.IsNone() && reference_.IsNone() && GetModel() == Rigid; }
  /// Shift and turn of a rigid map, and what comes nearest in the middle of the frame of another.
  struct Pose {
    double dx = 0, dy = 0, degrees = 0;
  };
  Pose PoseOf(int width, int height) const;

  /// Answers where a place of the frame lies on the reference, to 1e-6 pixels: none beyond the map's reach.
  std::optional<korimg::Point> operator()(korimg::Point p) const;
  /// Answers how a small step from there changes, by differences over a pixel.
  std::optional<CLensDistortion::Jacobian> JacobianAt(korimg::Point p) const;

  /// Answers the map from the reference to the frame.
  CFrameMap Inverse() const;
  /// Joins this map and then another, whose frame is this one's reference: of one lens, or of none. Throws
  /// CInvalidArgException* for two lenses.
  CFrameMap Then(const CFrameMap& next) const;
  /// Answers the map onto a grid in which the reference's pixel (0, 0) is the one at (dx, dy).
  CFrameMap Moved(double dx, double dy) const;

  /// Bounds where the pixels of a rectangle lie, with a margin for what curves between the places that are
  /// looked at. Places that the map does not reach don't count; empty (left > right) when none is left.
  struct Bounds {
    double left, top, right, bottom;
  };
  Bounds BoundsOf(double left, double top, double right, double bottom) const;

 private:
  Matrix matrix_{1, 0, 0, 0, 1, 0, 0, 0, 1};
  CLensDistortion frame_, reference_;
};
