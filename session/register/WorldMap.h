// Where one image lies on another by their world coordinates.
#pragma once

#include <optional>

#include "korimg/geometry/CFrameMap.h"

#include "session/Export.h"
#include "session/files/Geometry.h"

namespace korimg::session {

/// Finds the map from the pixels of an image to those of another: both are gnomonic (TAN), by CD, or by CDELT
/// with PC or CROTA2, with or without a distortion (SIP) up to the third order (Calabretta and Greisen, 2002;
/// Shupe et al., 2005). None where one of them says nothing of that kind, or they are a quarter of the sky or
/// more apart.
KORIMG_SESSION_API std::optional<CFrameMap> MapByWorld(const files::Header& image,
                                                       const files::ImageSize& size,
                                                       const files::Header& other,
                                                       const files::ImageSize& otherSize);

/// A place of the sky, in degrees.
struct SkyPlace {
  double ra = 0, dec = 0;
};

/// Tells where a place of an image lies on the sky, by world coordinates of the same kinds. Whole numbers are
/// the pixels' centres, from 0, downward as rows are read.
KORIMG_SESSION_API std::optional<SkyPlace> SkyAt(const files::Header& header, const files::ImageSize& size,
                                                 double x, double y);

}  // namespace korimg::session
