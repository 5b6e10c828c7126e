#pragma once

#include "korimg/image/CVelImage.h"

/// Does digital development, and filters by what is a star and what a nebula. The source must be another
/// object of the same size and planes. Arrays have one value for each plane.
class KORIMG_API CImgFilterSpecial : public CVelImage {
 public:
  // Digital development, after the response of photographic emulsion: each pixel is divided by a blur of its
  // surroundings plus a constant, on the 0 to 255 scale of this image's levels: pixel / (blur + a) * b. What
  // is faint rises, and the cores of bright objects keep their shapes. DigitalDvlp1 prepares the blurs and
  // constants of an image, and one of the others renders it. All arrays have three values at least, whatever
  // the planes.
  //
  // The gamma curve brings x to (x - min) / range to the power of 1 / gamma, times range, plus min; pixels
  // not above min stay, and a range not above 0 leaves all pixels. Gammas are above 0; 1 is no curve.
  //
  // A level mode says from where to where the curve goes: 0 from 0 to the largest pixel of the source's plane
  // 0, 1 from its smallest pixel to its largest, 2 from its smallest to the source's level maximum, 3 from
  // this image's level minimum to the largest pixel. On three planes the others get the same places in their
  // own levels. The source's extremes are those of its CalcMinMax, which runs first.

  /// Fills the slots of prepared filters, which keep what they hold until ClearFilterProc, with blurs of the
  /// source: Gaussians (filter 0) of sigma r[], or means (1) over squares of radius r[] whose neighbours
  /// count `weight` against the pixel's 1. Any other filter ends it at once, with nothing written.
  ///
  /// min[] and range[] become the curve's; a[] background[0], a raw value, on the 0 to 255 scale; b[] the
  /// median of the source's plane 0 on that scale plus a[0], so that median ground stays about as it is. Both
  /// go through the curve when it comes before the division. An unknown level mode goes from 0 to the level
  /// maximum.
  void DigitalDvlp1(double background[], int filter, double r[], double weight, double gamma[], int levelMode,
                    CVelImage* src, float min[], float range[], float a[], float b[], int gammaAfter);
  /// Renders with the curve before the division. planeOf[p] is the plane whose blur divides plane p; 3 and
  /// above is the mean of all three, which keeps hues on colour images. A plane that there is not stands for
  /// p. Pixels whose divisor is not above 0 get the curve alone, and so do all when `develop` is 0.
  void DigitalDvlp2(int develop, double gamma[], CVelImage* src, int planeOf[], float min[], float range[],
                    float a[], float b[], CRect* rect, int show);
  /// Renders with the curve after the division, from 0 to 255; min[] and range[] are not used. Pixels whose
  /// divisor is not above 0 get the curve alone; with `develop` 0 the source is copied.
  void DigitalDvlpGmAftrDdp(int develop, double gamma[], CVelImage* src, int planeOf[], float min[],
                            float range[], float a[], float b[], CRect* rect, int show);
  /// Renders without a curve, and mixes the result with the source: strength 1 is the result alone. Pixels
  /// whose divisor is not above 0 stay. Where each plane is divided by its own blur, contiguous images are
  /// done by a pipeline, which mirrors about the edges; else blurs have the edges of CFilterProc.
  void DigitalDvlpOnly(int develop, CVelImage* src, double strength, int planeOf[], float min[],
                       float range[], float a[], float b[], CRect* rect, int show);
  /// Takes a pair of raw levels for each plane through the curve: both where they lie inside its ends, `high`
  /// alone where only that does not exceed them.
  void DigitalDvlpGetLevel(double gamma[], int levelMode, CVelImage* src, double low[], double high[]);
  /// Answers the ends of the curve for three planes. An unknown level mode leaves min[] and max[].
  void DigitalDvlpGetMinMax(int levelMode, CVelImage* src, float min[], float max[], float range[]);
  /// Answers the kernel's radius of a mean of radius r: twice the whole pixels, and at least 1.
  static int GetDigitalDvlp_Mean_nR(double r);

  // Filters that find stars by their high pass: eight times a pixel less its eight neighbours. A threshold is
  // a share of the source's level range, times 256 / 255; the high pass of a single white pixel on black is 8
  // ranges. Black and white are those of the source.

  /// Makes stars smaller: the pixel of a rank in the disc of radius r[] about each pixel, 0 the smallest, the
  /// number of the disc's pixels less 1 the largest, limited to these; between whole ranks it is
  /// interpolated. Pixels that are the largest of their disc stay when `keepPeak` is non-zero. Those whose
  /// result comes closer to the largest pixel than the share `threshold` of it stay too; 0 is no threshold.
  /// NaN sorts last, and NaN pixels stay. Rows mirror about the edges, columns repeat them.
  void StarSharpFilter(double r[], double rank[], double threshold[], int keepPeak, CVelImage* src,
                       CRect* rect, int show);
  /// Answers the number of ranks of a disc of that radius: of its pixels.
  int GetStarSharpFilterNum(double r) const;

  /// Adds to each pixel `mag` times a map of the stars: the image limited to black and white, smoothed by a
  /// Gaussian, its high pass where that reaches the threshold, smoothed again by one of 3 x 3 pixels. The
  /// first Gaussian is cut off at 2 pixels, and darker by what that takes away. With `showMask` non-zero the
  /// result is the map alone, above black.
  void StarEnhanceFilter(double sigma, double mag, double threshold, int showMask, CVelImage* src,
                         CRect* rect, int show);
  /// Does the same with another map: smoothed by a Gaussian of sigma 1, not limited, and after the high pass
  /// by one of sigma[], which spreads the stars. Pixels mirror about the edges.
  void StarEnhanceFilter2(double sigma[], double mag[], double threshold[], int showMask, CVelImage* src,
                          CRect* rect, int show);
  /// Makes a mask of the stars: the map of StarEnhanceFilter2 of the image limited to black and white, times
  /// `strength`, above black. With `blend` non-zero it is the mean of map and pixel, above black. Contiguous
  /// images mirror about the edges on both axes; else columns repeat the edge.
  void StaryMask(double sigma, double strength, double threshold, int blend, CVelImage* src, CRect* rect,
                 int show);
  /// Smooths by a Gaussian everything but stars, whose high pass reaches the threshold, and the pixels within
  /// r[] of one (and no more rows away than the Gaussian's radius): these stay, and are left out of their
  /// surroundings' sums, which are divided by the weights that remain. Sums are in double. Rows and columns
  /// repeat the edge. With `showMask` non-zero, pixels that come out as they were are white, all others
  /// black.
  void NebularSmootherFilter(double sigma[], double threshold[], double r[], int showMask, CVelImage* src,
                             CRect* rect, int show);
};
