// What development makes of the noise of a mosaic's photosites.
#pragma once

#include <vector>

#include "session/Export.h"
#include "session/develop/Develop.h"
#include "session/picture/Quality.h"

namespace korimg::session {

/// Holds the variance of developed pixels in that of the photosites about them, by where they lie in the
/// mosaic.
///
/// Interpolation takes its directions from the pixels, so that no weights can be given beforehand: what it
/// makes of noise is measured once, on noise of each colour on an even field. Where it follows the edge of a
/// star it differs, by a few per cent.
class KORIMG_SESSION_API DevelopedNoise {
 public:
  /// Measures a development. Throws UsageError for one with a gamma, which no such numbers describe.
  DevelopedNoise(Job& job, const files::Mosaic& mosaic, const WhiteBalance& balance,
                 const DevelopOptions& options);

  /// Fills rows of the developed image by the mosaic's rows that they are made of, and two more on either
  /// side, as far as there are any. A pixel has the bits of all photosites about it.
  void Fill(const QualityRows& mosaic, const QualityRows& to) const;

  /// Answers the correlation of developed pixels, as the bicubic kernel reads between them, whatever the
  /// parts of a pixel.
  const Correlation& CorrelationOfNoise() const { return correlation_; }

 private:
  static constexpr int kColours = 3;

  /// Answers where shares_ holds that of a colour in a plane.
  size_t ShareAt(int x, int y, int plane, int colour) const {
    return ((static_cast<size_t>(y % period_) * period_ + x % period_) * kColours + plane) * kColours +
           colour;
  }

  int cfa_, part_, period_, reach_;
  Correlation correlation_ = kUncorrelated;
  std::vector<double> shares_;  ///< by row and column in the period, plane and colour
};

}  // namespace korimg::session
