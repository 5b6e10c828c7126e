#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CArray.h"

namespace korimg {

/// Holds the filters of an order of wavelets: low pass h and high pass g of the synthesis, and half of each
/// for the analysis. The low pass sums up to 2.
struct WaveletFilters {
  static constexpr int kMostTaps = 20;
  int taps = 0;  ///< coefficients that take part: twice the order
  float h[kMostTaps] = {}, g[kMostTaps] = {};
  float ha[kMostTaps] = {}, ga[kMostTaps] = {};
};

}  // namespace korimg

/// Decomposes an image into sub-bands by orthogonal wavelets of compact support (Daubechies 1988), weighs
/// them and composes it again. The transform runs in place in a buffer, an image whose sides are multiples of
/// 2^levels. Signals are periodic.
///
/// After a decomposition the buffer's corner of half its width and height holds the low pass, the quadrant
/// beside it the horizontal detail, the one below the vertical, and the last one the diagonal detail; the low
/// pass holds the next level in the same way. A constant keeps its value in the low pass.
///
/// Sums are of floats, and the same for any number of threads. NaN and infinities spread over what their
/// filters reach, further with each level. The object itself shows the progress and needs no pixels.
class KORIMG_API CImgWavelet : public CVelImage {
 public:
  /// Selects the filters of order 1 to 10; 1 is Haar's. Other orders keep the coefficients, of which none
  /// takes part below 1 and all 20 above 10. Bands of no coefficients, as before the first call, are 0.
  void SetDaubechyParams(int order);

  /// Answers the size of the buffer for a rectangle, null for this image: each side rounded up to a multiple
  /// of 2^levels, and at least 2^(levels + 1), so that the deepest level has four cells to split. Without
  /// levels it is the rectangle's. Left and top become 0; sides beyond int are the largest int.
  void CalcBufferSize(CRect* rect, int levels, CRect* size) const;
  /// Copies the rectangle of an image to the buffer's corner, and repeats its last column and row up to the
  /// buffer's ends. Levels stay.
  void CopyToBuffer(CVelImage* image, CVelImage* buffer, CRect* rect);
  /// Copies the buffer's corner back to the rectangle.
  void CopyFromBuffer(CVelImage* buffer, CRect* rect, CVelImage* image);

  /// Splits the buffer, and then its low pass again, so many times. Answers 1, or 0 when the user cancelled:
  /// the buffer is half done then.
  int DoMultiResSubbandDecomposition(CVelImage* buffer, int levels, int show);
  /// Puts the sub-bands of so many levels together again. The low pass of the deepest is multiplied by
  /// `lowGain` about the middle of the buffer's levels, and details by the gain of their direction and level;
  /// cell 0 is that of the finest. A gain of 1 leaves its band as it is. Arrays with fewer cells than levels
  /// throw CInvalidArgException*. Answers as above.
  int DoMultiResSubbandComposition(CVelImage* buffer, int levels, float lowGain,
                                   CArray<float, float>* horizontal, CArray<float, float>* vertical,
                                   CArray<float, float>* diagonal, int show);

 protected:
  /// Splits a signal into the low pass, in its first half, and the high pass. The last cell of an odd number
  /// stays.
  void Wavelet1d(CArray<float, float>* signal);
  /// Puts both together again.
  void InvWavelet1d(CArray<float, float>* signal);
  /// Splits the columns and then the rows of all planes of a buffer's corner, as large as the rectangle. 1,
  /// or 0 when cancelled.
  int Wavelet2d(CVelImage* buffer, CRect* corner);
  /// Multiplies the quadrants by their gains, the low pass about the middle of the levels, and puts rows and
  /// then columns together.
  int InvWavelet2d(CVelImage* buffer, CRect* corner, float low, float topRight, float bottomLeft,
                   float bottomRight);

 private:
  korimg::WaveletFilters filters_;
};
