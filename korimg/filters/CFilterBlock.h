#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"

class CFilterMatrix;

/// Holds the rows about one row of a plane, for exact work in two dimensions: 2 R + 1 rows about row y, from
/// column x0 on, which columns are counted from. Rows beyond either edge mirror about the edge row, columns
/// repeat the edge. For one thread. A kernel of another radius than the block's is cut to the smaller of
/// both.
class KORIMG_API CFilterBlock {
 public:
  /// `flags` with CImage::Locked keeps the rows locked as long as the block lives, as paged images need it. A
  /// plane that does not exist leaves the block without rows, and all values are 0.
  CFilterBlock(CVelImage* image, int r, int x0, int y, int plane, int flags);
  /// Does the same over pixels without a store.
  CFilterBlock(const float* buffer, int width, int height, int r, int x0, int y);
  virtual ~CFilterBlock();
  CFilterBlock(const CFilterBlock&) = delete;
  CFilterBlock& operator=(const CFilterBlock&) = delete;

  /// Answers the pixel of the image at (x, y); 0 outside the block.
  float GetPixel(int x, int y) const;
  /// Answers the kernel's sum about column x of the middle row, in float by rows; 0 for a radius of 0. Cells
  /// of 0 do not count, whatever lies under them.
  float Convolve(const CFilterMatrix* matrix, int x) const;
  /// Writes what Convolve answers for columns left to right - 1.
  void ConvolveLine(const CFilterMatrix* matrix, int left, int right, float* line) const;
  /// Does the same with each pixel limited to min to max.
  float ConvolveClamped(const CFilterMatrix* matrix, int x, float min, float max) const;
  /// Answers the pixels under the cells of exactly 1, ascending, NaN last; good until the next call. A radius
  /// of 0 leaves the array as it is.
  const float* SortMasked(const CFilterMatrix* matrix, int x);
  /// Answers number i of them; 0 beyond their number.
  float GetSorted(const CFilterMatrix* matrix, int x, int i);

 private:
  void Unlock();
  template <class Row>
  void MakeRows(int height, Row&& row);
  template <class F>
  void ForPixels(const CFilterMatrix& matrix, int x, F&& cell) const;
  /// Answers the radius that kernel and block have in common.
  int Common(const CFilterMatrix& matrix) const;

  int r_;
  int x0_;
  int y_;
  int width_;  ///< columns from x0 on
  CVelImage* image_ = nullptr;
  std::vector<const float*> rows_;
  std::vector<CImage::AddressHandle> locks_;
  std::vector<float> sorted_;
};
