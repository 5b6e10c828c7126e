// Where one image lies on another by their world coordinates.
#pragma once

#include <optional>

#include "korimg/geometry/CFrameMap.h"

#include "session/Export.h"
#include "session/files/Geometry.h"

namespace korimg::session {

/// The map from the pixels of an image to those of another: both are gnomonic (TAN), by CD, or by CDELT with
/// PC or CROTA2, with or without a distortion (SIP) up to the third order (Calabretta and Greisen, 2002;
/// Shupe et al., 2005). None where one of them says nothing of that kind, or they are a quarter of the sky or
/// more apart.
KORIMG_SESSION_API std::optional<CFrameMap> MapByWorld(const files::Header& image,
                                                       const files::ImageSize& size,
                                                       const files::Header& other,
                                                       const files::ImageSize& otherSize);

}  // namespace korimg::session
