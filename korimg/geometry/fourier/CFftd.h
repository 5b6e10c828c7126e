#pragma once

#include "korimg/geometry/fourier/ComplexPlanes.h"

/// Transforms and correlation of two complex planes on the whole team. Forward is the kernel exp(+2 pi i jk /
/// n) and does not scale; inverse divides by the number of elements. The result is the same for any number of
/// threads.
class KORIMG_API CFftd : public ComplexPlanes {
 public:
  CFftd();

  /// Sets the image whose display counts each row, or column, that is handled; null for none. Not owned.
  void SetProgressImg(CVelImage* image) { progress_ = image; }

  /// Transforms a plane in place: direction 0 forward, else inverse. Answers 0.
  int Do(int direction, int plane);
  /// Does the same for the rows alone, in order on one thread. Element k of the transformed row y is also
  /// written to element y + k (height + 1) of the plane, where there is one, so that rows yet to come see it.
  int Do1D(int direction, int plane);
  /// Multiplies by a raised cosine of the distance from (width / 2, height / 2), 0 from half the shorter side
  /// on.
  void Windowing(int plane);
  /// A becomes the cross-power spectrum conj(A) B / |A B| of the lower half of the frequencies along both
  /// axes, and 0 beyond; its inverse transform peaks at the shift of B against A (phase-only correlation).
  /// For equal planes the peak is 1/4, that share of the spectrum.
  void CalcPOC();
  /// Does the same with the rows, with the limit along x alone.
  void CalcPOC1D();
  /// A's real parts are one image, and its imaginary parts another: A becomes their correlation with no
  /// displacement in the middle, as Windowing, Do, CalcPOC, Do back and Swap make it of planes A and B,
  /// within rounding and in half the time. All is 0 when an image is 0 under the window, or not finite. B is
  /// left alone.
  void CorrelateParts();
  using ComplexPlanes::Swap;
  /// Exchanges the halves of each row.
  void SwapX(int plane);

  /// Finds the peak of A's real part, with A swapped to the middle: `peak` its value, and dx and dy its place
  /// from (width / 2, height / 2), between the elements by the peak evaluation formula: a fit of the closed
  /// form of a peak of half the band (Nagashima, Aoki, Higuchi, Kobayashi 2006). x and y give the whole
  /// element, or null for the largest one. All are 0 when it is not above 0.
  void PeakOfPOC(const int* x, const int* y, double& dx, double& dy, double& peak);
  /// Finds the place along x of the peak of one row.
  void PeakOfPOC1D(int row, double& dx);
  /// Planes of more than 40 rows: clears the real parts of row 0, in which no peak is found then, and gives
  /// 0. Else dx is left.
  void PeakOfPOC1D(double& dx);

  /// Resamples the real part of a plane about its middle, as CFft::ToLogPolar does, with radii from r0 + 1 up
  /// to half the diagonal when mode is 0, else half the shorter side. logTone non-zero takes log(v + 1)
  /// first, or log(v - minimum + 1) when the smallest value is not above 0.
  void ToLogPolar(int r0, int mode, int degStart, int degEnd, int logTone, int plane);

 private:
  void CalcPOC(bool limitRows);
  /// Answers the lower half of the frequencies.
  static Frequencies Band(int size) { return {static_cast<int>(size * 0.25), static_cast<int>(size * 0.75)}; }
  bool BalanceParts();
  void CalcPOCOfParts();
  void SubPixPeakPEF(int px, int py, int both, double& dx, double& dy);
};
