#pragma once

#include "korimg/image/CVelImage.h"

/// Repairs a frame by filters. The source must be another object of the same size and planes. Arrays have
/// one value for each plane. Levels and the 0 to 255 scale are those of this image, unless it is said
/// otherwise; shares and strengths run from 0 to 1.
class KORIMG_API CImgFilterMisc : public CVelImage {
 public:
  CImgFilterMisc() = default;

  /// Pixels that stand out from the median of the disc of that radius become the median: cool ones below it,
  /// hot ones above it, where |median / pixel - 1| exceeds `coolShare` or `hotShare`. A flag of 0 leaves that
  /// kind alone. Beyond the edges rows mirror and columns repeat the edge; at radius 1, with both kinds, on
  /// contiguous stores columns mirror as well.
  void NoiseCut(double radius, int cool, double coolShare, int hot, double hotShare, CVelImage* src,
                CRect* rect, int show);

  /// Blurs what is faint and flat: by the square mean of CImgFilterBlur, with `flat` as the weight of the
  /// neighbours. The blurred pixel stands where both it and the Laplacian are at or below `threshold` on the
  /// 0 to 255 scale, and it fades out as either comes to 255. The Laplacian is over the neighbours whose
  /// squared distance is at most the radius; on contiguous stores, at most the radius rounded up. Edges are
  /// those of CFilterProc and CFilterBlock; contiguous stores mirror about the edge rows and columns.
  /// `wholeRadius` is not used.
  void NoiseCutWithBrightness(double threshold, double radius, double flat, int wholeRadius, CVelImage* src,
                              CRect* rect, int show);
  /// Answers the whole radii of that filter's blur and Laplacian, and the largest of them and `wholeRadius`.
  static int GetNoiseCutWithBrightness_nR(double radius, int wholeRadius, int* blur, int* laplacian);

  /// Draws the colour of dark pixels towards their grey (0.2989 R + 0.5866 G + 0.1145 B) by `strength`: where
  /// any channel is below `level` + `margin` on the 0 to 255 scale and the channels differ. For images of
  /// three planes; pixels with a channel that is not finite stay.
  void ColorNoiseCut(double level, double margin, double strength, CVelImage* src, CRect* rect, int show);
  static int GetColorNoiseCut_nR() { return 1; }

  /// Removes hot and cold pixels of an undeveloped mosaic, one plane behind the colour filter array `cfa`: 1
  /// RGGB, 2 GRBG, 3 BGGR, 4 GBRG, 11 to 14 a honeycomb, whose pixels between the sites stay. Other images,
  /// arrays and modes leave this image as it is.
  ///
  /// A pixel is compared with the four nearest of its colour. One that lies more than `threshold` (0 to 255)
  /// above or below them is cut, unless the surroundings follow it, or one of the four that lies there too,
  /// as they do about a star's peak: see CompareArea, which gets `pattern` and `ratio`. Modes by strength:
  ///
  ///     1  lone pixels, which differ from all four; they become the nearest of the four in value
  ///     2  the same; they become the mean of the middle two
  ///     3  pairs too: pixels that differ from all but one; they become the second in value
  ///     4  the same; they become the mean of the middle two
  ///
  /// NaN stays and counts as larger than any number. Beyond the edges a Bayer mosaic mirrors, and no
  /// pixel is compared with itself; a honeycomb repeats by its period, and does not know a star that the edge
  /// cuts. Contiguous and paged stores give the same.
  void CFANoiseCut(int mode, int cfa, double threshold, int pattern, double ratio, CVelImage* src,
                   CRect* rect, int show);
  /// Tells whether the surroundings of a mosaic's pixel follow it, so that it is no noise: 1 or 0, which is
  /// also the answer for a pixel outside and for images of different sizes.
  ///
  /// A pixel rises by what it is above the second lowest of the four pixels of its colour that lie two
  /// columns or two rows away, and falls by what it is below the second highest; the larger of both counts. A
  /// neighbour follows when it rises, or falls, by at least a sixteenth of that. The next 8 neighbours are
  /// asked, and with a `rings` of 2 or more the 16 about them too, which suits well sampled stars: of each
  /// ring at most the share `ratio` may not follow. With a `cfa` of 11 or above, a honeycomb's, the four of
  /// the same colour are those two columns and two rows away, and only the neighbours that are sites are
  /// asked.
  int CompareArea(CVelImage* target, CVelImage* src, int x, int y, int cfa, int rings, double ratio);

  /// Removes fringes of a colour, which is told by its shares of green and blue to red, within `tolerance` of
  /// themselves. Of pixels of that colour the channel that makes it (red where it is the largest, blue where
  /// it is above green, else green) is drawn towards the mean of the other two by `strength`. For images of
  /// three planes, by their raw values; a red of 0 has no shares, of a pixel or of the colour.
  void FalseColorCut(int red, int green, int blue, double tolerance, double strength, CVelImage* src,
                     CRect* rect, int show);

  /// Draws together trails of bad guiding: mixes in the kernel of CFilterMatrix::MakeGuideErrorCanceller by
  /// `strength`, with `width` as its factor of the centre. Edges are those of CFilterBlock.
  void GuideErrorCanceller(double length, double angle, double width, double strength, CVelImage* src,
                           CRect* rect, int show);

  /// Smooths the sky by a Gaussian of sigma `radius`: pixels above `level`, a raw value, stay, those at least
  /// `width` (0 to 255) below become the Gaussian, which nowhere exceeds the level, and between them it is
  /// mixed in by proportion. Kinds 0 and 1 are the same; any other does nothing. `flat` is not used. Edges
  /// are those of CFilterProc.
  void BkgSmooth(double* level, double* width, int kind, double* radius, double flat, CVelImage* src,
                 CRect* rect, int show);

  /// Draws the borders between `levels` (at least 2) steps of brightness in white on black, antialiased: each
  /// unequal edge among the samples of a grid of thirds of a pixel adds a ninth of white, so that lines may
  /// be brighter than white. Beyond white and black there are steps only when `wrap` is non-zero.
  void ContourFilter(int levels, int wrap, CVelImage* src, CRect* rect, int show);

  /// Applies kernels of 2 r + 1 rows of 2 r + 1 cells as they are, not normalised, with the edges of
  /// CFilterBlock. Pixels below `dark` or above `highlight` on the 0 to 255 scale of the source stay, where
  /// their flags are set; where `brighter` is, a pixel that came out darker gets `percent` (0 to 100) of the
  /// difference back. A radius below 0 does nothing.
  void Custom(int r, double* kernel, CVelImage* src, CRect* rect, int show);
  void Custom(int r, double* kernel, int useDark, double dark, int useHighlight, double highlight,
              int brighter, double percent, CVelImage* src, CRect* rect, int show);
  void Custom(int r[], double* kernel[], int useDark[], double dark[], int useHighlight[], double highlight[],
              int brighter[], double percent[], CVelImage* src, CRect* rect, int show);

  /// Answers the number of ranks of a disc of that radius: of its pixels.
  int GetMinMaxFilterNmax(double r) const;
  /// Takes the pixel of the given rank in the disc about each pixel: 0 the smallest, the number of ranks less
  /// 1 the largest, 0.0 for a rank beyond. NaN sorts last. Arrays have one value for each plane.
  ///
  /// When all planes ask for the smallest, or all for the largest, contiguous images are done by pipelines:
  /// discs have the radius rounded up to a whole number then, pixels mirror about the edges, and a plane of a
  /// radius above 10 is left as it is. Else discs have the radius given, rows mirror, and columns repeat the
  /// edge.
  void MinMaxFilter(double r[], int rank[], CVelImage* src, CRect* rect, int show);
};
