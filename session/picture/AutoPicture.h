#pragma once

#include "korimg/image/CVelImage.h"

#include "session/Export.h"

namespace korimg::session {

/// What black and white are found by; None leaves them.
enum class LevelMethod { Normal, Mean, Median, Histogram, None };

/// Sets the levels of an image so that it makes a good picture of a sky. A colour image keeps its colours.
KORIMG_SESSION_API void LevelForPicture(CVelImage& image, LevelMethod method);

/// The same by Histogram, from the pixels that a preview of `side` pixels takes: quick on a large image.
KORIMG_SESSION_API void LevelForPreview(CVelImage& image, int side);

}  // namespace korimg::session
