// A selection from a file.
#pragma once

#include <filesystem>

#include "korimg/image/CImageSelection.h"

#include "session/Export.h"

namespace korimg::session {

/// Reads the vertices of a polygon, "x y" in pixels on each line, whole numbers being the centres of pixels;
/// # begins a comment. Selected are the pixels of a width x height image whose centres are inside (by the
/// even-odd rule) or on the outline. Throws FileError, also for a row of pixels that would be selected in two
/// pieces: selections hold one.
KORIMG_SESSION_API CImageSelection ReadPolygon(const std::filesystem::path& path, int width, int height);

}  // namespace korimg::session
