#pragma once

#include "korimg/image/CVelImage.h"

/// Undoes a Gaussian blur by Richardson-Lucy deconvolution, in place.
class KORIMG_API CImgLucy : public CVelImage {
 public:
  /// Restores what was blurred by a Gaussian of fSigma pixels, in nIterations at most. fGain is the electrons
  /// of a raw value, fReadNoise the read noise in electrons; the sky may stay in the image, a pedestal should
  /// be off.
  ///
  /// The estimate climbs the likelihood of counts with read noise (Richardson 1972; Lucy 1974; Snyder,
  /// Hammoud and White 1993): the correction of a plain step is the mean, by the blur, of (d + N) / (M + N),
  /// with the data d, the model M of the blurred estimate and N = fReadNoise^2 / fGain. Corrections are
  /// combined with the direction of the step before, as conjugate gradients are, and the length of the step
  /// is searched for along the line (Kaufman 1987), which needs no more blurs; the direction is limited so
  /// that all cells stay above 0. The estimate reaches beyond the edges as far as light comes from there
  /// (Bertero and Boccacci 2005). Each plane ends when chi-square, the mean of (g (d - M))^2 / ((M + N) g +
  /// fReadNoise^2), is not above 1.
  ///
  /// Pixels that are no finite numbers have no weight and stay. 1, or 0 after a debug line when Escape was
  /// pressed or there is no room, and when fSigma or fGain is not above 0 or fReadNoise is not finite: the
  /// image is as it was then. The light of the data is kept. The result is the same for any number of
  /// threads.
  int Do(double fSigma, double fGain, double fReadNoise, int nIterations, CRect* pRect, int nShowProgress);
  /// Does the same above a background that is known for each plane, such as the sky less three times its
  /// noise: its light is no part of the estimate and counts as noise. Nothing of the result lies below it, so
  /// that stars get no dark rings deeper than that. Chi-square has the read noise once here: (g (d - M))^2
  /// over (M + N) g.
  int DoAboveBackground(double sigma, double gain, double readNoise, int iterations, const double* background,
                        CRect* rect, int show);

 private:
  int Restore(double sigma, double gain, double readNoise, double variance, int iterations,
              const double* background, CRect* rect, int show);
};
