#pragma once

#include "korimg/image/CVelImage.h"

/// Chooses black and white of the image that it is, by its own pixels, and sets its levels; pixels stay as
/// they are. The rectangle is where it looks. Planes go each by itself on mono images and when `separate` is
/// non-zero; else brightness decides, and all planes move together. Brightness is made raw by plane 0's
/// levels. NaN is passed over by extremes, means and deviations, and sorts last in medians. Levels that would
/// not be finite are not set.
class KORIMG_API CImgAutoLevel : public CVelImage {
 public:
  /// Clips by shares of the pixels, from 0 to 1: black leaves lowRate of them below, white leaves 1 -
  /// highRate above. At 0 and below, and 1 and above, a rate goes that far in proportion from minimum to
  /// maximum.
  void DoByNormal(double lowRate, double highRate, int separate, CRect* rect);
  /// Sets black `low` standard deviations below the mean, white `high` above. On contiguous stores brightness
  /// is plane 0 alone, here and in GetByMean.
  void DoByMean(double low, double high, int separate, CRect* rect);
  /// Does the same about the median, with the root mean square distance from it.
  void DoByMedian(double low, double high, int separate, CRect* rect);
  /// Brings the peak of the histogram to low / (low + high) of the range. Mode 0 sets black `low` times the
  /// peak's foot below it; 1 goes by the upper foot, or gives all planes brightness' black; 2 shifts plane
  /// 0's levels by the distance of the peaks. Other modes do nothing.
  void DoByHistogram(double low, double high, int separate, int mode, CRect* rect);

  /// Answers the parameters that would give the present levels of plane 0: method 1 by mean, 2 by median, any
  /// other by normal. Not finite when there is no spread to measure by.
  void Get(double& low, double& high, int method, CRect* rect);
  void GetByNormal(double& low, double& high, CRect* rect);
  void GetByMean(double& low, double& high, CRect* rect);
  void GetByMedian(double& low, double& high, CRect* rect);

  /// Finds the median of a plane, or of raw brightness on a colour image; of an even count the upper one.
  /// With `sample` non-zero a window of more than 50000 pixels is first reduced to about so many means of
  /// square blocks, and what remains at its right and lower edge is left out. 0 for an empty window.
  void GetMedian(float* result, int sample, int brightness, int plane, CRect* rect);
  /// Does the same for each position of plane 0's 2 x 2 mosaic cells: even row even column, even row odd
  /// column, odd row even column, odd row odd column. Whole cells only.
  void GetMedianBayer(float* result, int sample);
  /// Does the same for each of the eight sites of plane 0's 4 x 4 honeycomb cells, by rows: columns 0 and 2
  /// of even rows, 1 and 3 of odd ones. 50000 samples serve all eight.
  void GetMedianHoneyComb(double* result, int sample);
  /// Finds the fullest bin of the histogram, 256 bins for images from 8-bit channels and 5000 for others,
  /// with the feet of its peak, all raw. `lower` lies six times the spread below it, the spread taken from 0
  /// to the peak; `upper` is where the histogram stays low for more than ten bins. Both may be null.
  void GetMode(float* mode, float* lower, float* upper, int brightness, int plane, CRect* rect);

  /// Measures pixels from lo to hi: their number, their standard deviation, and their root mean square
  /// distance from hi; 0 when there are none. With brightness non-zero on a colour image it is brightness on
  /// the 256 scale.
  void GetLevelRangeNum(float lo, float hi, int* count, int plane, CRect* rect);
  void GetLevelRangeStd(float lo, float hi, double* std, int plane, CRect* rect);
  void GetLevelDoubleRangeStd(float lo, float hi, double* std, int brightness, int plane, CRect* rect);
};
