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

/// Mirrors above the first row, and below the last one with that row repeated.
inline int RowBelowRepeated(int y, int height) {
  const int row = static_cast<int>(std::abs(y % (2LL * height)));
  return row < height ? row : 2 * height - row - 1;
}

/// Repeats the edge.
inline int NearestColumn(int x, int width) {
  return std::clamp(x, 0, width - 1);
}

}  // namespace korimg
