// Where filters read beyond the edges of an image. Internal.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace korimg {

/// Mirrors about the edge rows, as often as it takes.
inline int MirroredRow(int y, int height) {
  const int row = static_cast<int>(std::abs(y % (2LL * height)));
  // A single row has no other to mirror to.
  return row < height ? row : std::min(std::abs(2 * height - row - 2), height - 1);
}

}  // namespace korimg
