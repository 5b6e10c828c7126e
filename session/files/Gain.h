// What a raw value is worth in electrons.
#pragma once

#include <optional>
#include <string>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

struct Gain {
  double electrons = 0;  ///< of a raw value; 0: not known
  std::string source;    ///< for people: where it is from, or why it is not known
};

/// Finds the gain by KORLGAIN, which stacks of ours hold; else by EGAIN, or by GAIN where its comment speaks
/// of electrons (else it is a setting of the camera); times NCOMBINE, since a mean of so many frames has
/// their photons. `noise`, the deviation of a pixel of the sky, tells when values were brought to another
/// scale since: there is no less of it than hundredths of an electron.
KORIMG_SESSION_API Gain FindGain(const Header& header, double noise);

/// Finds the read noise in electrons, by RDNOISE or READNOIS; none where neither says one.
KORIMG_SESSION_API std::optional<double> FindReadNoise(const Header& header);

/// Removes the cards that FindGain goes by, where values are no counts of the camera any more.
KORIMG_SESSION_API void DropGain(Header& header);

}  // namespace korimg::files
