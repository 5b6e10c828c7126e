#pragma once

#include <array>
#include <optional>

#include "korimg/geometry/Point.h"
#include "korimg/platform/Export.h"

/// Describes the distortion of camera and lens: where a pixel would lie if straight lines were straight.
///
/// With n the place from the centre in units of `scale`, and r its length, a pixel at n belongs at
///   n (1 + k1 r^2 + k2 r^4 + k3 r^6) + P(n),
/// P a polynomial with terms of the second and third degree for each axis. The radial terms are those of
/// Brown (1966), those of P are the ones that SIP has for such degrees (Shupe et al., 2005), decentring among
/// them. Beyond kReach the distortion goes on as a straight line from the centre, so that it never folds.
class KORIMG_API CLensDistortion {
 public:
  static constexpr int kRadial = 3;
  static constexpr int kTerms = 7;  ///< of an axis: x^2, xy, y^2, x^3, x^2 y, x y^2, y^3
  static constexpr int kNumbers = kRadial + 2 * kTerms;
  static constexpr double kReach = 1.25;  ///< chosen: in units of the scale, a quarter beyond the corners

  /// The radial ones, then the terms of x and of y.
  using Numbers = std::array<double, kNumbers>;

  /// Makes no distortion.
  CLensDistortion() = default;
  /// The scale, in pixels, is above 0: half the diagonal of the frames that the numbers were found on.
  CLensDistortion(korimg::Point centre, double scale, const Numbers& numbers)
      : centre_(centre), scale_(scale), numbers_(numbers) {}

  /// Makes the distortion of frames of this size, about their middle.
  static CLensDistortion Of(int width, int height, const Numbers& numbers);

  bool IsNone() const { return numbers_ == Numbers{}; }
  bool operator==(const CLensDistortion& other) const;

  korimg::Point Centre() const { return centre_; }
  double Scale() const { return scale_; }
  const Numbers& Values() const { return numbers_; }

  /// Tells how an axis' place changes with the numbers: factors of the radial ones and of the axis' terms.
  struct Factors {
    double radial[kRadial][2];
    double terms[kTerms];
  };
  /// Answers the factors, in units of the scale.
  Factors FactorsAt(korimg::Point pixel) const;

  /// Tells how a small step changes: xx is that of x by x, xy of x by y.
  struct Jacobian {
    double xx = 1, xy = 0, yx = 0, yy = 1;
    double Determinant() const { return xx * yy - xy * yx; }
  };

  /// Answers where a pixel belongs.
  korimg::Point Straight(korimg::Point pixel, Jacobian* jacobian = nullptr) const;
  /// Answers the pixel that belongs there, to 1e-6 of one: none where the distortion does not reach.
  std::optional<korimg::Point> Bent(korimg::Point straight) const;
  /// True when no two pixels of a frame of this size belong at one place, nor nearly so.
  bool IsSound(int width, int height) const;

 private:
  korimg::Point centre_;
  double scale_ = 1;
  Numbers numbers_{};
};
