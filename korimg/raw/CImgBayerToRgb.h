#pragma once

#include "korimg/image/CVelImage.h"

namespace korimg {
struct RawRange;
}

/// Tells how a Bayer frame is developed.
struct tagBayerStruct {
  int nCFA = 0;      ///< 1 RGGB, 2 GRBG, 3 BGGR, 4 GBRG: the 2 x 2 cell from the frame's top left, by rows
  int nSrcBits = 0;  ///< of the raw numbers, 12 or 14; -32 for floats on a scale of their own
  int nTrimLeft = 0, nTrimTop = 0, nTrimRight = 0, nTrimBottom = 0;  ///< pixels cut off the result
  int nDstBits = 0;         ///< 16 for nSrcBits 12 and 14, -32 for -32
  int bMono = 0;            ///< brightness in one plane instead of colour in three
  int bAutoRange = 0;       ///< black and white are the frame's extremes instead of the bits' ends
  int bToneCurve = 0;       ///< gains, and what belongs to them, on the raw numbers
  int bKnee = 0;            ///< gains bend back to white instead of going beyond it
  int bCurvePower = 0;      ///< a power curve after the gains
  double dCurvePower = 1;   ///< its exponent
  double* pGain = nullptr;  ///< 4 positive gains by position in the cell, by rows
  int bGamma = 0;           ///< a gamma curve at the end
  double dGamma = 1;        ///< out = in to the power 1 / dGamma
  int bLevelCut = 0;        ///< results are limited to black and white
  int bSubtract = 0;        ///< fSubtract is taken off the raw numbers first
  float fSubtract = 0;
  int bRoundUp = 0;  ///< 1: half the size instead, each pixel from one cell; nothing but the next is used
  int nRoundUpGreen =
      0;  ///< its green: 0 the upper sample, 1 the lower, 2 their mean, 3 the smaller, 4 the larger
};

/// Develops a mosaic of colour samples, in place, into an image of three planes or of one.
///
/// Brightness is interpolated for each pixel from its own surroundings and keeps the full resolution. Colour
/// is the mean over 3 x 3 pixels of how far a plain interpolation lies from that brightness. A star stays
/// where it is, and keeps its colour.
///
/// On contiguous stores the frame's edges are mirrored, and every pixel is developed. On paged ones the line
/// loop leaves out the frame's first three rows and its last three or four, row nTrimTop when that is even
/// and 4 or more, and in colour the first and the last column; in the next two the plain samples of the edge
/// take part. There the pixels keep what the change of shape left: 0, and the raw number in plane 0 when
/// nothing is trimmed. Elsewhere both give the same bits.
class KORIMG_API CImgBayerToRgb : public CVelImage {
 public:
  CImgBayerToRgb() = default;
  CImgBayerToRgb(const CImgBayerToRgb& other) : CVelImage(other, nullptr) {}

  /// Develops this frame, at least 6 x 6 pixels. 1 when done: the Bayer mark is off then, and colour has
  /// plane 0's levels in all planes. 0 for parameters that make no sense, with nothing changed, and when
  /// there is no room for the result. Throws CMemoryException* when there is none for the working frame.
  int Do(tagBayerStruct bayer, int nProgress);
  /// Does the same on a copy of the source.
  int Do(tagBayerStruct bayer, CVelImage* pSrc, int nProgress);

  /// Measures the white balance: gains by position in the cell that bring the medians of red and blue to
  /// green's. A median below 1 has gain 1. 1, or 0 when nCFA is not 1 to 4.
  int GetGain(int nCFA, double* pGain);
  /// True when pipelines may develop from the working frame into the image.
  static bool CanHalide(const CImage& frame, const CImage& image, int nCFA);

 protected:
  struct Strip;

  static int GetGain(int nCFA, double* pGain, CImage& image);
  bool ArgCheck(const tagBayerStruct& bayer) const;
  void CopySrcToBayer(CImage& frame);
  static void ChangeBitImage(CImage& frame, int srcBits, int dstBits, bool autoRange);
  /// Corrects plane 0 of the frame into plane 1.
  static void ToneCurveCorrect(CImage& frame, const tagBayerStruct& bayer, const korimg::RawRange& range);
  void GammaCorrect(int dstBits, double gamma);
  int DoRoundUp(const tagBayerStruct& bayer, int nProgress);

  // The line path's steps for the rows y and y + 1, y odd.
  static void CopyOrgToDisp(CImage& frame, int plane, int y, Strip& strip);
  static void MakeYImage(int nCFA, Strip& strip);
  static void MakeRGBImage(int nCFA, Strip& strip);
  void SynthImage(const tagBayerStruct& bayer, const korimg::RawRange& range, int y, Strip& strip);

 private:
  void DevelopByPipelines(CImage& frame, int plane, const tagBayerStruct& bayer,
                          const korimg::RawRange& range);
  void DevelopByLines(CImage& frame, int plane, const tagBayerStruct& bayer, const korimg::RawRange& range);
};
