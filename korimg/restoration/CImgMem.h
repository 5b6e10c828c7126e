#pragma once

#include "korimg/image/CVelImage.h"

/// Undoes a Gaussian blur by maximum entropy, in place.
class KORIMG_API CImgMem : public CVelImage {
 public:
  /// Restores what was blurred by a Gaussian of fSigma pixels, with noise of fNoise raw units in every pixel,
  /// in nIterations at most: the smoothest image, all of it above 0, that explains the data as well as the
  /// noise lets expect. Data should be free of a pedestal, and of the sky where it outshines all else.
  ///
  /// The entropy -sum of E (log(E / m) - 1), with m the data's mean, climbs while chi-square, the mean of
  /// ((d - M) / fNoise)^2, goes to 1: the method of Skilling and Bryan (1984), in the space of three
  /// directions: the gradients of both, weighted by the estimate E, and the step before, as conjugate
  /// gradients take it. A plane ends when chi-square is 1 within a hundredth and the gradients are parallel.
  /// The estimate reaches beyond the edges as far as light comes from there.
  ///
  /// Pixels that are no finite numbers have no weight and stay. 1, or 0 after a debug line when Escape was
  /// pressed or there is no room, and when fSigma or fNoise is not above 0: the image is as it was then. The
  /// result is the same for any number of threads.
  int Do(double fSigma, double fNoise, int nIterations, CRect* pRect, int nShowProgress);
};
