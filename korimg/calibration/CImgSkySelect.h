#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CArray.h"
#include "korimg/platform/CPoint.h"

/// Holds a square of an image and what was measured of it, in raw values: means over the planes of their
/// standard deviations and medians.
class KORIMG_API CSelectRegionItem {
 public:
  virtual ~CSelectRegionItem() = default;

  CPoint topLeft;
  struct {
    int cx = 0, cy = 0;
  } size;
  double deviation = 0;
  double median = 0;
};

/// Finds clean sky: a square that is neither brighter nor noisier than half of all small ones. Gradients,
/// nebulae and stars make a square noisier, so that the larger the square, the fewer are clean.
class KORIMG_API CImgSkySelect : public CVelImage {
 public:
  /// Finds a clean square in the image without its border and its middle, where objects are: the first of
  /// 128, 64, 32 or 16 pixels, judged by squares of 8. Answers 1, or 0 and leaves `out` alone when there is
  /// none. Squares with NaN are never clean.
  int AutoSelect(CRect* out, int nProgress);
  /// Measures the medians of deviation and level of squares of `size` pixels in the area, on a grid, but for
  /// those whose corner lies in the hole; of an even number the upper one, NaN counting as the largest. Null
  /// rectangles are the whole image and no hole. Answers 1, or 0 with the results left alone when there is no
  /// square.
  int CalcStddevMedian(int size, CRect* area, CRect* hole, double* deviation, double* median, int nProgress);
  /// Finds the first square, by rows, of at most this deviation and median. Answers 1, or 0 and leaves `out`
  /// alone when there is none.
  int Do(int size, CRect* area, CRect* hole, double deviation, double median, CRect* out, int nProgress);

 protected:
  using Items = CArray<CSelectRegionItem, CSelectRegionItem&>;

  /// Adds squares of `size` pixels every size x step pixels of the area; the last stride, which would reach
  /// its edge, has none. Answers their number.
  int PrepareRegion(int size, CRect* area, CRect* hole, unsigned int step, Items& items);

 private:
  int Prepare(int size, CRect* area, CRect* hole, int step, Items& items);
  double DeviationOf(const CSelectRegionItem& square);
  double MedianOf(const CSelectRegionItem& square);
};
