#pragma once

#include <array>
#include <vector>

#include "korimg/geometry/CFrameMap.h"
#include "korimg/image/View.h"

/// Lays frames on a finer grid by variable-pixel linear reconstruction, also called drizzling (Fruchter and
/// Hook, 2002, PASP 114, 144). Each pixel of a frame is shrunk about its middle to a drop, which a map brings
/// to the grid; it falls on the pixels there by the shares of its area that they hold. A pixel of the grid is
/// the mean of what fell on it, by share times weight, and its weight is the sum of these. No neighbours are
/// mixed but by the size of drops, so that undersampled frames at many positions give back resolution.
///
/// Pixel (X, Y) of the grid has its middle at ((X + 0.5) / scale - 0.5, (Y + 0.5) / scale - 0.5) on the
/// reference, whose whole area the grid covers. Surface brightness is kept: a sky has the same value in a
/// pixel, and the sum of a star's pixels is scale squared times as large.
///
/// The grid is made in bands of rows, each from all frames in turn. The result depends on their order, but
/// not on bands or threads.
class KORIMG_API CImgDrizzle {
 public:
  enum Kernel : int {
    Square,   ///< the drop is the shrunk pixel, and shares are exact areas
    Point,    ///< all falls on the pixel that holds the middle
    Gaussian  ///< the drop is a Gaussian as wide at half of its height as the shrunk pixel, cut at 2.5 sigma
  };

  struct Options {
    double scale = 2;      ///< pixels of the grid along one of the reference, from 1 on
    double pixfrac = 0.7;  ///< side of a drop in that of its pixel, above 0 up to 1
    Kernel kernel = Square;
  };

  /// The plane that each pixel of a mosaic falls on, by the last two bits of its row and column; none where
  /// it is less than 0.
  using SitePlanes = std::array<std::array<int, 4>, 4>;

  /// Makes the grid of a reference of this size. Throws CInvalidArgException* for options that are out of
  /// their ranges.
  CImgDrizzle(const Options& options, int width, int height, int planes);

  static int SizeOf(int pixels, double scale);
  int Width() const { return width_; }
  int Height() const { return height_; }
  /// Answers the bytes of a row of a band, while it is made.
  long long BytesOfRow() const { return 1LL * width_ * planes_ * static_cast<long long>(sizeof(Sum)); }

  /// Begins a band, empty. Throws std::bad_alloc.
  void Begin(int y0, int rows);

  struct Rows {
    int first = 0, end = 0;
  };
  /// Answers the rows of a frame of this height of which something may fall on rows y0 to y1 - 1 of the grid.
  Rows RowsOf(const CFrameMap& map, int height, int y0, int y1) const;

  /// Finds where the middles of a row's pixels lie on the reference: NaN where the map does not reach the
  /// whole row.
  static void PlaceRow(const CFrameMap& map, int y, std::vector<double>& xs, std::vector<double>& ys);

  /// Drops rows of a frame on the band. Values have weights of the same shape, and those whose weight is not
  /// above 0, or which are no finite numbers, are left out. A frame has the planes of the grid, or one of
  /// a mosaic, with `sites`. `map` brings the frame to the reference; rows that it does not reach are left
  /// out.
  void Add(const korimg::Band<const float>& values, const korimg::Band<const float>& weights,
           const CFrameMap& map, const SitePlanes* sites = nullptr);

  /// Gives the rows of the band: means, NaN where nothing fell, and weights.
  void Take(const korimg::Band<float>& means, const korimg::Band<float>& weights) const;

 private:
  class Drops;
  struct Sum {
    double values = 0, weights = 0;
  };

  Options options_;
  int width_, height_, planes_;
  int top_ = 0, rows_ = 0;
  std::vector<Sum> sums_;  ///< plane by plane
};
