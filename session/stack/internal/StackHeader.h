// The header of a stack, from those of its frames.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "session/files/ImageFile.h"

namespace korimg::session {

/// Collects what the frames that are used say of time, and where they differ.
class StackHeader {
 public:
  /// Begins; all comes from the reference but what is said of times here.
  explicit StackHeader(files::Header reference);
  /// Adds a frame that counts by `weight`, its values multiplied by `scale`.
  void Add(const files::Header& frame, double weight, double scale);

  /// Makes the reference's header with, for frames that are combined by their mean or another middle: EXPTIME
  /// the mean exposure of a frame, LIVETIME and XPOSURE all of them, DATE-OBS and DATE-END the first start
  /// and the last end, DATE-AVG the middle weighted by exposure, and as much of DATE-BEG, MJD-... and TELAPSE
  /// as the reference has; STACKCNT and NCOMBINE the number of frames, KORLGAIN the electrons of a value
  /// where those of all frames are known. Keywords that differ between frames keep the reference's value and
  /// are named in HISTORY, and so does the exposure of frames that were scaled to the light of the reference.
  files::Header Make(bool scaled) const;

 private:
  files::Header header_;
  std::map<std::string, std::string> values_;  ///< of the reference, by keyword
  std::set<std::string> differing_;
  int frames_ = 0, withExposure_ = 0, withTime_ = 0;
  double exposure_ = 0;
  double start_ = 0, end_ = 0;
  double middles_ = 0, weights_ = 0;  ///< of the exposures, as seconds from the first frame's start
  double origin_ = 0;
  double allWeights_ = 0, variance_ = 0;  ///< of the frames; of a unit of light, NaN where it is not known
};

}  // namespace korimg::session
