#pragma once

#include "korimg/image/CVelImage.h"

/// Undoes a Gaussian blur by Wiener's filter, in place: the spectrum of each plane is divided by that of the
/// blur, where that stands above a share of its largest power.
class KORIMG_API CImgWiener : public CVelImage {
 public:
  /// Restores what was blurred by exp(-r^2 / fSigma^2), whose deviation is fSigma / sqrt 2 pixels. Spectra A
  /// of the image less its black and B of the blur become A conj(B) / (|B|^2 + fNoise P), P being the largest
  /// |B|^2; fNoise 0 is the plain inverse filter, with 0 where B is but rounding. The rectangle is
  /// transformed with black up to the next powers of two, and wraps round beyond. Brightness is that of
  /// CFft::SetGauss: it is multiplied by sqrt(elements of the transform) / (500 fSigma^2 (1 + fNoise)),
  /// about.
  ///
  /// Pixels that are no finite numbers count as black and stay. 1, or 0 when Escape was pressed, there is no
  /// room, or fSigma is not above 0: the image is as it was then. Runs on the whole team.
  int Do(double fSigma, double fNoise, CRect* pRect, int nShowProgress);
  /// Does the same for a Gaussian whose deviation is `sigma` pixels, with brightness kept: a level stays a
  /// level, and light is only moved.
  int DoKeepingFlux(double sigma, double noise, CRect* rect, int show);

 private:
  int Filter(double sigma, double noise, bool keepsFlux, CRect* rect, int show);
};
