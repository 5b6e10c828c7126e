#pragma once

#include <memory>
#include <vector>

#include "korimg/geometry/Point.h"
#include "korimg/measurement/CStarFinder.h"

namespace korimg {
struct StarField;
}

/// A star of a frame, and the same one of the reference.
struct CStarPair {
  korimg::Point frame, reference;
  double weight = 1;  ///< one over the square of what their distance may be off by, in pixels along an axis
};

/// Tells how an image lies on a reference, by their stars.
struct CStarMatch {
  enum Status : int {
    Ok,
    NoStars,          ///< fewer than two in one of the lists
    NoMatch,          ///< no pattern that both share
    Mirrored,         ///< a pattern that is turned over: one of the images has to be flipped
    ResidualTooLarge  ///< a pattern that no shift and rotation bring together, as of another scale
  };
  Status status = NoStars;
  // Set with Ok and ResidualTooLarge only.
  /// As CImgComposit::Do takes them to lay the image on the reference, without its reference centre.
  double dx = 0, dy = 0, degrees = 0;
  double scale = 1;     ///< of the reference over the image, by a fit of its own
  double residual = 0;  ///< pixels, root mean square of the distances that shift and rotation leave
  /// Pixels that a corner of the image may be off by, one deviation, by what is known of the stars'
  /// positions.
  double cornerError = 0;
  int stars = 0;  ///< pairs that the fit is made of
  /// The stars that both share, as far as they were found, whether shift and turn bring them together or a
  /// distortion keeps them apart.
  std::vector<CStarPair> pairs = {};
};

/// Matches lists of stars against the list of a reference by similar triangles, which know of no shift,
/// rotation or scale (Groth, 1986), and fits shift and rotation to all pairs that the best agreement of
/// patterns brings together, by least squares without what lies far off.
///
/// Triangles are of up to 200 bright stars spread over the image, each with its nearest neighbours; the fit
/// takes up to 2000. An agreement is one that far exceeds what chance makes of as many stars; three stars are
/// matched with up to 30 only, and when no other triangle agrees.
///
/// Where triangles tell nothing, any two of the 30 brightest stars will do that are as far from each other as
/// two of the reference, if chance would not make as much: the larger the turn, and the fewer others meet,
/// the more of it chance makes. Two stars alone leave a half turn open, which their brightness may tell, and
/// are not believed where nothing has moved. At last the brightest stars are laid on each other, if others
/// meet then. Where the stars lie too close to each other to tell a turn, only the shift is taken.
///
/// Where shift and turn leave the stars apart, pairs are looked for from those that meet outwards: each star
/// where its nearest neighbours say.
class KORIMG_API CStarMatcher {
 public:
  explicit CStarMatcher(const std::vector<CStar>& reference);
  ~CStarMatcher();
  CStarMatcher(const CStarMatcher&) = delete;
  CStarMatcher& operator=(const CStarMatcher&) = delete;

  /// Answers those stars of a list that matching uses; the others may be forgotten.
  static std::vector<CStar> Select(std::vector<CStar> stars);

  /// Sets the largest residual of a match, in pixels; 1 at first.
  void SetResidualLimit(double pixels) { residualLimit_ = pixels; }

  /// Matches a list; the size is that of the image whose stars these are. Any number of threads may call it
  /// at once.
  CStarMatch Match(const std::vector<CStar>& stars, int width, int height) const;

 private:
  std::unique_ptr<korimg::StarField const> reference_;
  double residualLimit_ = 1;
};
