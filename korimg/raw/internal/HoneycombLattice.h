// Where the colours of a honeycomb lie. Internal.
#pragma once

#include <optional>

#include "korimg/raw/internal/Colours.h"

namespace korimg {

/// The sites of a honeycomb are the squares of one colour of a chessboard, and the squares between them are
/// empty. From a red site on they lie as in
///
///     R . B .
///     . G . G
///     B . R .
///     . G . G
///
/// which repeats every 4 columns and every 4 rows, and is the same when moved by 2 of both. Cells of 2 x 2
/// begin with red and with blue as the squares of a chessboard do, and have green across.
struct HoneycombLattice {
  static constexpr int kPeriod = 4, kFirst = 11, kLast = 14;

  int x = 0, y = 0;  ///< a red site, which may lie outside of the frame

  /// Answers the lattice of a colour filter array, 11 to 14.
  static std::optional<HoneycombLattice> Of(int cfa) {
    if (cfa < kFirst || cfa > kLast) return std::nullopt;
    const int i = cfa - kFirst;
    return HoneycombLattice{2 * (i & 1) + (i >> 1), i >> 1};
  }
  /// Answers its number; 0 when the frame's first pixel lies between the sites, which has none.
  int Number() const {
    if ((x + y) & 1) return 0;
    const int column = (x + (y & 2)) & 3;  // of the red site in one of the first two rows
    return kFirst + (column >> 1) + 2 * (y & 1);
  }

  bool IsSite(int column, int row) const { return ((column - x + row - y) & 1) == 0; }
  /// True when the row holds green sites, not red and blue ones.
  bool IsGreenRow(int row) const { return ((row - y) & 1) != 0; }
  /// True when the 2 x 2 cell of a pixel begins with red.
  bool IsOfRed(int column, int row) const { return (((column - x) ^ (row - y)) & 2) == 0; }
  /// Answers the colour of a site.
  int ColourAt(int column, int row) const {
    return IsGreenRow(row) ? kGreen : IsOfRed(column, row) ? kRed : kBlue;
  }

  /// The eight sites of a 4 x 4 cell of the frame, from its first pixel on, are counted by rows: two in each,
  /// at columns 0 and 2 of even rows, 1 and 3 of odd ones.
  static constexpr int kPositions = 8;
  static constexpr int PositionOf(int column, int row) { return (row & 3) * 2 + ((column & 3) >> 1); }
  static constexpr int ColumnOf(int position) { return (position & 1) * 2 + (position >> 1 & 1); }
  static constexpr int RowOf(int position) { return position >> 1; }
};

}  // namespace korimg
