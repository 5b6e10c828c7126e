#pragma once

#include "korimg/image/CVelImage.h"

namespace korimg {
struct HoneycombLattice;
struct RawRange;
}  // namespace korimg

/// Tells how a honeycomb frame is developed.
struct tagHoneyCombStruct {
  int nCFA = 0;      ///< 11 to 14: where the first red site lies, see GetCFAParam
  int nSrcBits = 0;  ///< of the raw numbers, 12; -32 for floats on a scale of their own
  int nTrimLeft = 0, nTrimTop = 0, nTrimRight = 0, nTrimBottom = 0;  ///< pixels cut off the result
  int nDstBits = 0;                                                  ///< 16 for nSrcBits 12, -32 for -32
  int bMono = 0;            ///< brightness in one plane instead of colour in three
  unsigned char nKind = 0;  ///< 1 to 3, which develop alike
  int bAutoRange = 0;       ///< black and white are the frame's extremes instead of the bits' ends
  int bToneCurve = 0;       ///< gains, and what belongs to them, on the raw numbers
  int bKnee = 0;            ///< gains bend back to white instead of going beyond it
  int bCurvePower = 0;      ///< a power curve after the gains
  double dCurvePower = 1;   ///< its exponent
  double* pGain = nullptr;  ///< 8 positive gains by position in the 4 x 4 cell, by rows: two sites in each
  int bGamma = 0;           ///< a gamma curve at the end
  double dGamma = 1;        ///< out = in to the power 1 / dGamma
  int bLevelCut = 0;        ///< results are limited to black and white
  int bSubtract = 0;        ///< fSubtract is taken off the raw numbers first
  float fSubtract = 0;
};

/// Develops a honeycomb of colour samples, in place, into an image of three planes or of one.
///
/// The sites lie on the squares of a chessboard whose columns and rows have an even sum: rows of red and blue
/// in turn, and between them rows of green. What the frame holds on the other squares is not looked at; they
/// are developed as the sites are. From the first red site on the lattice is
///
///     R . B .
///     . G . G
///     B . R .
///     . G . G
///
/// Brightness has 0.3 of red, 0.59 of green and 0.11 of blue, each from the nearest sites that carry it: on
/// an empty square the two greens, the red and the blue of its cross; on a green site the red and the blue
/// pair of its diagonals; on a red or blue site a diagonal pair of greens and the other colour's pair at a
/// distance of two. Of the two such pairs red sites take the falling diagonal and the pair beside, blue ones
/// the rising diagonal and the pair above and below, so that no direction is preferred by all. Colour is the
/// mean over 3 x 3 pixels of how far a plain interpolation lies from that brightness. Every pixel is
/// developed: beyond an edge the frame goes on with the pixels of the last four columns and rows that lie
/// alike in the lattice. A frame of one value stays exactly so.
///
/// There is one path, by lines; strips of it follow one another in one buffer on the caller's thread.
class KORIMG_API CImgHoneyCombToRgb : public CVelImage {
 public:
  using CVelImage::GetMinMax;

  CImgHoneyCombToRgb() = default;
  CImgHoneyCombToRgb(const CImgHoneyCombToRgb& other) : CVelImage(other, nullptr) {}

  /// Develops this frame, at least 10 x 10 pixels. 1 when done: the honeycomb mark is off then, and colour
  /// has plane 0's levels in all planes. 0 for parameters that make no sense, with nothing changed, and when
  /// there is no room for the result. Throws CMemoryException* when there is none for the working frame.
  int Do(tagHoneyCombStruct honeyComb, int nProgress);
  /// Does the same on a copy of the source.
  int Do(tagHoneyCombStruct honeyComb, CVelImage* pSrc, int nProgress);

  /// Answers the first red site of the frame: 11 (0, 0), 12 (2, 0), 13 (1, 1), 14 (3, 1). 1, or 0 for other
  /// numbers.
  static int GetCFAParam(int nCFA, int* x, int* y);
  /// Measures the medians of the eight positions of the 4 x 4 cell, by rows: two sites in each. Gains are
  /// their ratios. 1.
  int GetGain(int nCFA, double* pGain);
  /// Finds the extremes of a frame on every second row and column from (1, 0), without the masked border of a
  /// "finepixs2pro", which this image's header names. These are the squares between the sites; where they
  /// hold one and the same number, since nothing filled them, extremes are those of the sites. NaN is passed
  /// over; 0 and 0 when there is nothing else.
  void GetMinMax(CImage* frame, int plane, double* min, double* max);

 protected:
  struct Strip;

  bool ArgCheck(const tagHoneyCombStruct& honeyComb) const;
  void CopySrcToDstImage(CImage& frame);
  static void ChangeBitImage(CImage& frame, const korimg::RawRange& range, int dstBits);
  /// Corrects plane 0 of the frame into plane 1.
  static void ToneCurveCorrect(CImage& frame, const tagHoneyCombStruct& honeyComb,
                               const korimg::RawRange& range);
  void GammaCorrect(int dstBits, double gamma);

  // The steps of a strip, whose first result is row y.
  static void CImageToMem(CImage& frame, int y, int plane, Strip& strip);
  static void MakeYImage(const korimg::HoneycombLattice& lattice, int y, Strip& strip);
  static void MakeRGBImage(const korimg::HoneycombLattice& lattice, int y, Strip& strip);
  void SynthImage(const tagHoneyCombStruct& honeyComb, const korimg::RawRange& range, int y, Strip& strip);
};
