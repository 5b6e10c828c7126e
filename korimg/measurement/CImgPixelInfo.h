#pragma once

#include "korimg/image/CVelImage.h"

/// Measures statistics of a part of an image, in raw values. Results are arrays of one entry for each plane,
/// up to three, and 0 where there is no pixel. `median` may be null. Positions beyond the image are left out.
/// NaN pixels count as the largest in medians and trimming, make means NaN, and are never a minimum, maximum
/// or peak beside numbers.
class KORIMG_API CImgPixelInfo : public CVelImage {
 public:
  CImgPixelInfo() = default;

  /// Measures a rectangle; standard deviations are of the population; the median is the lower one of an even
  /// number.
  void Calc(CRect rect, double* min, double* max, double* mean, double* sd, double* median);
  /// Measures a square of size / 2 pixels to each side of the centre.
  void Calc(CPoint centre, int size, double* min, double* max, double* mean, double* sd, double* median);
  /// Measures the FWHM by PSF of the brightest pixel of plane 0 within 10 pixels; 0 when there is none to
  /// measure.
  void CalcFWHM(int x, int y, double* fwhm);

  /// Measures trimmed statistics: of the sorted pixels those from n (1 - high) / 2 to n (1 + low) / 2. 1
  /// keeps all of a half, 0 only its end in the middle. The median is the upper one of an even number.
  void CalcSky(CRect rect, double* min, double* max, double* mean, double* sd, double* median);
  void CalcSky(CRect rect, double low, double high, double* min, double* max, double* mean, double* sd,
               double* median);
  /// Measures the same of a circle.
  void CalcSky(int x, int y, int radius, double low, double high, double* min, double* max, double* mean,
               double* sd, double* median);
  /// Measures of the circle also the largest pixel, and the diameter of a disc as large as what lies above
  /// the middle between it and the median.
  void CalcStar(int x, int y, int radius, double low, double high, double* min, double* max, double* mean,
                double* sd, double* median, double* peak, double* fwhm);

 private:
  struct Results;

  std::vector<float> PixelsOf(CRect rect, int plane);
  std::vector<float> PixelsOf(int x, int y, int radius, int plane);
  int Planes() const { return GetPlanes() < 3 ? GetPlanes() : 3; }
};
