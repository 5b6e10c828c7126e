#pragma once

#include <limits>
#include <vector>

#include "korimg/image/CVelImage.h"

/// A star of an image, in pixels from the middle of the first one, and in raw values.
struct CStar {
  /// The top is cut off; the edge of the image, or pixels that are no numbers, cut its light; another star
  /// shines into its aperture.
  enum Flag : int { Saturated = 1, Edge = 2, Blended = 4 };

  double x = 0, y = 0;
  double flux = 0;   ///< of the whole star, above the sky
  double peak = 0;   ///< brightest pixel, above the sky
  double sky = 0;    ///< level under the star
  double noise = 0;  ///< deviation of a pixel of the sky
  double snr = 0;    ///< what the aperture holds over its noise: the sky's, and the star's where SetGain told
  double fwhm = 0;   ///< of the image before pixels integrated it
  double elongation = 1;  ///< longer axis over shorter one
  int flags = 0;
};

/// Finds the stars of an image and measures them; of three planes, in their luminance, of a mosaic
/// (IsBayerImage) in the mean of its colours. Nothing is written to the image. The same stars come out for
/// any number of threads and on any store.
///
/// The background and its noise come from cells of 64 x 64 pixels. Stars are the maxima of the image smoothed
/// by a binomial filter of 5 x 5, `threshold` deviations above the sky, that stand by as many deviations (at
/// most by half, at least by a tenth of their height) above the ground that joins them to something higher.
/// Single bright pixels, what is much narrower or wider than the frame's other stars, and trails are left
/// out. There is no limit to the number of stars, and none is a usual answer. Pixels that are no numbers
/// count as sky.
///
/// Positions and shapes are moments in a Gaussian window as wide as the star (Bernstein and Jarvis, 2002).
/// Widths at half the height are brought to what profiles of the brighter stars measure. The flux is what a
/// circle of 1.5 FWHM holds over the sky, corrected by what circles of 3.5 FWHM hold of bright stars that
/// stand alone.
class KORIMG_API CStarFinder {
 public:
  /// Makes a finder of an image, which must outlive Find.
  explicit CStarFinder(CVelImage* image) : image_(image) {}

  /// Sets the deviations of the smoothed sky that a star exceeds; 5 at first. What is not above 0 counts as
  /// 0.
  void SetThreshold(double sigmas) { threshold_ = sigmas; }
  /// Sets the raw value from which on pixels are saturated. Without it those stars count as saturated whose
  /// tops are flat, and those that share the highest top of the image.
  void SetSaturation(double raw) { saturation_ = raw; }

  /// Sets the electrons of a raw value: what a star's own photons add to its noise. 0, at first, where nobody
  /// knows: signal to noise is then that of the sky alone, which is too much for bright stars.
  void SetGain(double electrons) { gain_ = electrons; }

  /// Returns the number of stars.
  int Find();

  /// Answers the stars in order of falling flux.
  const std::vector<CStar>& GetStars() const { return stars_; }
  /// Answer medians of the brighter half of the stars that are whole, alone and not saturated; 0 without any
  /// star.
  double GetFwhm() const { return fwhm_; }
  double GetElongation() const { return elongation_; }
  /// Answer medians over the image: level and noise of the sky.
  double GetSky() const { return sky_; }
  double GetNoise() const { return noise_; }

 private:
  void SetTypical();

  CVelImage* image_;
  double threshold_ = 5;
  double saturation_ = std::numeric_limits<double>::infinity();
  double gain_ = 0;
  std::vector<CStar> stars_;
  double fwhm_ = 0, elongation_ = 0, sky_ = 0, noise_ = 0;
};
