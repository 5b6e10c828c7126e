// Where values were rejected, in colours to be laid over the stack.
#pragma once

#include <functional>
#include <string>

#include "viewer/image/Tiles.h"

namespace korimg::viewer {

/// Draws a tile of two maps of rejected values, as a PNG that is clear where there are none: blue where they
/// were too low, orange where they were too high, which eyes of all kinds tell apart, and more opaque the
/// more there are of `frames`, at a fifth of them fully. Of planes the largest number counts.
/// @throws UsageError for a tile that is not there or maps of two sizes, and as Pyramid::Get
std::string DrawRejections(
    Pyramid& low, Pyramid& high, const TilePlace& place, int frames,
    const std::function<bool()>& isGone = [] { return false; });

}  // namespace korimg::viewer
