// The pixel of a given rank among a pixel's neighbours. Internal.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "korimg/image/internal/Frame.h"

namespace korimg {

/// A shape about a pixel that stays the same when rows and columns change places: row dy, from -r to r, holds
/// the columns that are at most halfWidth[r + dy] away; none for -1.
struct Neighbourhood {
  int r = 0;
  std::vector<int> halfWidth = {0};

  /// Makes the cells whose squared distance is at most that of `extent`, and the pixel itself.
  static Neighbourhood Disc(int r, double extent);
  int Count() const;
};

struct RankQuery {
  Neighbourhood cells;
  std::optional<int> rank;     ///< 0 the smallest, NaN last; none: the upper middle of those that are there
  std::vector<int> also = {};  ///< up to two more ranks of the cells
  /// The rows and columns that are read for those beyond the edges. Null: cells beyond the edges are left
  /// out.
  int (*row)(int y, int height) = nullptr;
  int (*column)(int x, int width) = nullptr;
};

/// Takes the results for `columns` pixels of row y from column x on, after them as many of each further rank;
/// called by all workers.
using RankSink = std::function<void(int x, int y, const float* values, int columns)>;

/// Finds the rank for each pixel of the window, on the whole team, and counts finished rows on the display of
/// `shown`. The value is that of sorting the cells; a rank beyond them gives 0.0.
void FindRanks(CVelImage& shown, CVelImage& src, int plane, const Window& window, const RankQuery& query,
               const RankSink& sink);

}  // namespace korimg
