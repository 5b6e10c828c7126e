#pragma once

#include "korimg/geometry/fourier/ComplexPlanes.h"

/// Transforms and correlation of two complex planes on one thread. Forward is the kernel exp(-2 pi i jk / n);
/// both directions are divided by the square root of the number of elements, so that energy is kept.
class KORIMG_API CFft : public ComplexPlanes {
 public:
  CFft();

  /// Answer the smallest power of two that is not below n, and the largest that is not above; 0 for n below 1
  /// and for powers that are no int.
  static int GetCeilPowerOf2(int n);
  static int GetFloorPowerOf2(int n);

  /// Transforms a plane in place: direction 0 forward, else inverse. Answers 0.
  int Do(int direction, int plane);
  /// Multiplies by a raised cosine of the distance from (width / 2, height / 2): 1 there, 0 at a distance of
  /// width / 2, and rising again beyond.
  void Windowing(int plane);
  /// A becomes the cross-power spectrum conj(A) B / |A B|, whose inverse transform peaks at the shift of B
  /// against A (phase-only correlation). Planes of amplitude and phase are brought back first; when only one
  /// of them is, a debug line says so and nothing happens.
  void CalcPOC();
  /// Finds the peak of A's real part, which Swap brings to the middle here: its centroid within 11 elements,
  /// counted from (width / 2, height / 2). 0 when nothing is above 0.
  void PeakOfPOC(double& x, double& y);
  /// Resamples the real part of a plane about its middle: angles from degStart to degEnd degrees along the
  /// columns, clockwise on the screen, logarithms of radii from r0 + 0.5 up along the rows. The largest
  /// radius reaches the corners of a square when mode is 0, else its edges. What lies outside is 0, and so is
  /// the imaginary part. logTone non-zero takes log(value) + 1 first.
  void ToLogPolar(int r0, int mode, int degStart, int degEnd, int logTone, int plane);

  /// Answers the extremes of the squared absolute values of A; 0 without planes.
  void GetMinMax(double* min, double* max);
  /// Fills A with a Gaussian about element (0, 0), of 1000 / 2 pi at its peak. A sigma of 0 is an impulse.
  void SetGauss(double sigma);
  /// A becomes A conj(B) / (|B|^2 + eps), where B is the plane A of another object of the same size.
  void Convolution(CFft* other, double eps);

 private:
  static double Interp(const complex* data, int width, int height, int imaginary, int method, double x,
                       double y);
};
