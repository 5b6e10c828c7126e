#pragma once

#include "korimg/image/CVelImage.h"

/// Blurs an image. The source must be another object of the same size and planes. Arrays have one value for
/// each plane.
///
/// Each filter has a plain form and one that is confined to a band of levels, given on the 0 to 255 scale of
/// the source's planes: pixels from `dark` to `highlight` are filtered, those more than a range beyond stay,
/// and between them the filtered pixel is mixed in by proportion. A flag of 0 leaves that side open.
class KORIMG_API CImgFilterBlur : public CVelImage {
 public:
  static constexpr int FAST_MEAN_R_MIN = 1;
  static constexpr int FAST_MEAN_R_MAX = 50;
  static constexpr int FAST_MEDIAN_R_MIN = 1;
  static constexpr int FAST_MEDIAN_R_MAX = 7;

  CImgFilterBlur() = default;

  /// Blurs by a Gaussian of sigma pixels, cut off at 2.8 sigma. Beyond the edges pixels mirror about the edge
  /// row or column on contiguous stores; line loops have the edges of CFilterProc.
  void GaussianFilter(double sigma, CVelImage* src, CRect* rect, int show);
  void GaussianFilter(double sigma[], CVelImage* src, CRect* rect, int show);
  void GaussianFilter(double sigma, int useDark, double dark, double darkRange, int useHighlight,
                      double highlight, double highlightRange, CVelImage* src, CRect* rect, int show);
  void GaussianFilter(double sigma[], int useDark[], double dark[], double darkRange[], int useHighlight[],
                      double highlight[], double highlightRange[], CVelImage* src, CRect* rect, int show);

  /// Takes the mean of the neighbours, of `weight` against the pixel's 1. The plain form takes a square of
  /// side 2 trunc(r) + 1, with the edges of CFilterProc and the weights multiplied along both axes; the band
  /// form a disc of radius r, with those of CFilterBlock.
  void MeanFilter(double r, double weight, CVelImage* src, CRect* rect, int show);
  void MeanFilter(double r[], double weight[], CVelImage* src, CRect* rect, int show);
  void MeanFilter(double r, double weight, int useDark, double dark, double darkRange, int useHighlight,
                  double highlight, double highlightRange, CVelImage* src, CRect* rect, int show);
  void MeanFilter(double r[], double weight[], int useDark[], double dark[], double darkRange[],
                  int useHighlight[], double highlight[], double highlightRange[], CVelImage* src,
                  CRect* rect, int show);

  /// Takes the square mean where the image is flat, the pixel itself where its Laplacian (the product of the
  /// middle row's weights, along both axes) comes near this image's level range.
  void MeanWithoutEdgeFilter(double r, double weight, CVelImage* src, CRect* rect, int show);
  void MeanWithoutEdgeFilter(double r[], double weight[], CVelImage* src, CRect* rect, int show);
  void MeanWithoutEdgeFilter(double r, double weight, int useDark, double dark, double darkRange,
                             int useHighlight, double highlight, double highlightRange, CVelImage* src,
                             CRect* rect, int show);
  void MeanWithoutEdgeFilter(double r[], double weight[], int useDark[], double dark[], double darkRange[],
                             int useHighlight[], double highlight[], double highlightRange[], CVelImage* src,
                             CRect* rect, int show);

  /// Takes the median over the disc of radius r; of an even number of pixels the upper one. Pixels beyond the
  /// edges are left out. NaN sorts last.
  void MedianFilter(double r, CVelImage* src, CRect* rect, int show);
  void MedianFilter(double r[], CVelImage* src, CRect* rect, int show);
  void MedianFilter(double r, int useDark, double dark, double darkRange, int useHighlight, double highlight,
                    double highlightRange, CVelImage* src, CRect* rect, int show);
  void MedianFilter(double r[], int useDark[], double dark[], double darkRange[], int useHighlight[],
                    double highlight[], double highlightRange[], CVelImage* src, CRect* rect, int show);
};
