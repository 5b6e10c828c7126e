#pragma once

#include "korimg/image/CVelImage.h"

/// Sharpens an image. The source must be another object of the same size and planes. Arrays have one value
/// for each plane.
///
/// Forms with a band of levels work as those of CImgFilterBlur do: pixels from `dark` to `highlight` on the 0
/// to 255 scale of the source's planes are sharpened, and the effect fades out over a range beyond. There,
/// where `brighter` is non-zero, a pixel that came out darker than it was gets `percent` (0 to 100) of the
/// difference back: 100 leaves no dark rings about stars.
class KORIMG_API CImgFilterSharp : public CVelImage {
 public:
  /// Applies a kernel of -strength at each neighbour whose squared distance is at most the radius, in whole
  /// pixels and at least 1, about a centre that brings the sum to 1.
  void SharpFilter(double r, double strength, CVelImage* src, CRect* rect, int show);
  void SharpFilter(double r[], double strength[], CVelImage* src, CRect* rect, int show);
  void SharpFilter(double r, double strength, int useDark, double dark, double darkRange, int useHighlight,
                   double highlight, double highlightRange, int brighter, double percent, CVelImage* src,
                   CRect* rect, int show);
  void SharpFilter(double r[], double strength[], int useDark[], double dark[], double darkRange[],
                   int useHighlight[], double highlight[], double highlightRange[], int brighter[],
                   double percent[], CVelImage* src, CRect* rect, int show);

  /// Does the same, by a radius with its fraction, where the image has edges: the sharpened pixel counts by
  /// the square of the Laplacian's share of this image's level range, 0 to 1. Flat ground and its noise stay.
  void SharpEdgeFilter(double r, double strength, CVelImage* src, CRect* rect, int show);
  void SharpEdgeFilter(double r[], double strength[], CVelImage* src, CRect* rect, int show);
  void SharpEdgeFilter(double r, double strength, int useDark, double dark, double darkRange,
                       int useHighlight, double highlight, double highlightRange, int brighter,
                       double percent, CVelImage* src, CRect* rect, int show);
  void SharpEdgeFilter(double r[], double strength[], int useDark[], double dark[], double darkRange[],
                       int useHighlight[], double highlight[], double highlightRange[], int brighter[],
                       double percent[], CVelImage* src, CRect* rect, int show);

  /// Adds `strength` times the difference from a Gaussian to pixels that differ from it by the share
  /// `threshold` or more. Shoulders of a band scale the strength, and where they cross, both do.
  void UnSharpMask(double sigma, double strength, double threshold, CVelImage* src, CRect* rect, int show);
  void UnSharpMask(double sigma[], double strength[], double threshold[], CVelImage* src, CRect* rect,
                   int show);
  void UnSharpMask(double sigma, double strength, int useDark, double dark, double darkRange,
                   int useHighlight, double highlight, double highlightRange, int brighter, double percent,
                   CVelImage* src, CRect* rect, int show);
  void UnSharpMask(double sigma[], double strength[], int useDark[], double dark[], double darkRange[],
                   int useHighlight[], double highlight[], double highlightRange[], int brighter[],
                   double percent[], CVelImage* src, CRect* rect, int show);

  /// Takes the mean of six unsharp masks, with a sigma and a strength w each; a strength of 0 or below stands
  /// for the pixel as it is.
  void SubBandUnSharpMask(double sigma0, double w0, double sigma1, double w1, double sigma2, double w2,
                          double sigma3, double w3, double sigma4, double w4, double sigma5, double w5,
                          int useDark, double dark, double darkRange, int useHighlight, double highlight,
                          double highlightRange, int brighter, double percent, CVelImage* src, CRect* rect,
                          int show);
  void SubBandUnSharpMask(double sigma0[], double w0[], double sigma1[], double w1[], double sigma2[],
                          double w2[], double sigma3[], double w3[], double sigma4[], double w4[],
                          double sigma5[], double w5[], int useDark[], double dark[], double darkRange[],
                          int useHighlight[], double highlight[], double highlightRange[], int brighter[],
                          double percent[], CVelImage* src, CRect* rect, int show);
};
