#pragma once

#include <string>

#include "korimg/image/CVelImage.h"

#include "session/Export.h"

namespace korimg::session {

/// Sets the levels of an image so that it makes a good picture of a sky: "normal", "mean", "median" or
/// "histogram" as the automatic levels do, "none" leaves them. A colour image keeps its colours.
KORIMG_SESSION_API void LevelForPicture(CVelImage& image, const std::string& method);

/// The same by "histogram", from the pixels that a preview of `side` pixels takes: quick on a large image.
KORIMG_SESSION_API void LevelForPreview(CVelImage& image, int side);

}  // namespace korimg::session
