#pragma once

#include <memory>

#include "korimg/measurement/CStarMatcher.h"

/// Tells how an image of a planet, the Sun or the whole Moon lies on a reference: by the middles of their
/// discs. Three planes count by their luminance, mosaics by the mean of their colours.
///
/// A disc is the one bright object of an image, lies on it as a whole, and is nearly as bright throughout as
/// it is large: 10 pixels of radius or more. Its middle is that of its outline, which neither bands nor spots
/// move. What a turn of 180 degrees would change of it (the part of its light that is odd about the middle)
/// tells whether one image is turned by that; unless it tells so clearly, it is not. No other turn is looked
/// for.
class KORIMG_API CDiscMatcher {
 public:
  /// The reference may go afterwards.
  explicit CDiscMatcher(CVelImage& reference);
  ~CDiscMatcher();
  CDiscMatcher(const CDiscMatcher&) = delete;
  CDiscMatcher& operator=(const CDiscMatcher&) = delete;

  bool HasDisc() const { return disc_ != nullptr; }

  /// Answers Ok, or NoMatch where one of both shows no disc or they differ in size. The residual is what the
  /// shift differs by when a brighter part of the disc is taken. Any number of threads may call it at once.
  CStarMatch Match(CVelImage& image) const;

 private:
  struct Disc;
  static std::unique_ptr<const Disc> Find(CVelImage& image);

  std::unique_ptr<const Disc> disc_;
};
