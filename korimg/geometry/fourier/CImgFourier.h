#pragma once

#include "korimg/geometry/fourier/CFftd.h"
#include "korimg/image/CVelImage.h"

namespace korimg {
struct Window;
}

/// Measures shift and rotation between this image and another by phase-only correlation, of plane 0, and
/// shows transforms as images. This image is read only.
///
/// Without a rectangle the measures take the whole images, with zeros up to the next powers of two; with one,
/// its top left window of the largest powers of two that fit in it. The transforms take such a window always,
/// a null rectangle being the image. Images that are written may be of any size: what lies beyond the
/// transform is left. Answers are 1, or 0 when there is no room for the transform, or nothing to transform.
class KORIMG_API CImgFourier : public CVelImage {
 public:
  /// Measures the displacement of other against this: other(x, y) resembles this(x - dx, y - dy).
  /// Displacements of more than half the size wrap round. `peak` is the height of the correlation: 1/4 for
  /// equal images, and 0, with no shift, where there is none. The peak is looked for in the correlation
  /// blurred by a sigma of `blur`, in which it is then measured too; with blur 0 or less, in one blurred by
  /// 1, and measured in the sharp one. `surface`, when not null, receives the correlation. The sizes of the
  /// transform are told too.
  int CalcShiftByPOC(CVelImage* other, CVelImage* surface, double blur, CRect* rect, double& dx, double& dy,
                     double& peak, int& outWidth, int& outHeight, int progress);
  /// Measures the angle by which other is turned against this, from -90 to 90 degrees, clockwise on the
  /// screen: CImgComposit turns it back by the negative angle. Half a turn is not seen. The angle is true of
  /// a square transform only: one of unequal sides stretches the spectra, which then do not match when they
  /// are turned. CPhaseMatcher lays images of any shape on squares. Images that keep their scale are compared
  /// by their amplitude spectra in polar coordinates, which polarA and polarB receive when both are given.
  int CalcRotByRIPOC(CVelImage* other, CVelImage* polarA, CVelImage* polarB, CRect* rect, double& degrees,
                     int& outWidth, int& outHeight, int progress);
  /// Does the same by rows, of which no peak is found: degrees is 0. polarA receives this image's transformed
  /// rows, and polarB the correlation.
  int CalcRotByRIPOC_1D(CVelImage* other, CVelImage* polarA, CVelImage* polarB, CRect* rect, double& degrees,
                        int& outWidth, int& outHeight, int progress);

  /// Transforms each plane, with that of secondInput, which may be null or mono, as the imaginary part; into
  /// output1 and output2, either of which may be null. reIm 0 means amplitude and phase, with the zero
  /// frequency in the middle, as the result, or as the input when inverse is non-zero. window non-zero
  /// multiplies by a raised cosine first.
  int Do(int inverse, int reIm, int window, CVelImage* secondInput, CVelImage* output1, CVelImage* output2,
         CRect* rect, int progress);
  /// Shows each plane in logarithmic polar coordinates over half a turn, as CFftd::ToLogPolar gives them.
  int DoLogPolar(CVelImage* output, CRect* rect, int logTone, int progress);

 private:
  int Begin(CFftd& fft, CVelImage& other, CRect* rect, int& outWidth, int& outHeight, korimg::Window& window);
  void PolarSpectra(CFftd& fft, CVelImage& other, const korimg::Window& window, int r0);
  /// Puts this image's first plane into array 0 as its real parts, the other's as its imaginary parts. The
  /// array is zero before.
  void PutPair(CVelImage& other, CFftd& fft, const korimg::Window& window);
  /// Shows a step for each row that is copied by lines, unless the caller counts otherwise.
  void PutImage(CVelImage& real, CVelImage* imaginary, int plane, CFftd& fft, int array,
                const korimg::Window& window, bool steps = true);
  void GetImage(CVelImage* real, CVelImage* imaginary, int plane, CFftd& fft, int array);
};
