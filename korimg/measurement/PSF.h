#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CObject.h"

/// Measures widths of stars by walks from a peak along rows and columns, on the mean of the planes. Each
/// star's width is kept as the square root of its FWHM in pixels times 0.42466, so means are those of roots;
/// FwhmToPsf and PsfToFwhm undo each other. Widths from 0 to the setting "Max" of section "Psf" (64) count.
/// Functions answer 1, or 0 and leave their results.
class KORIMG_API PSF : public CObject {
 public:
  explicit PSF(CVelImage* image);
  ~PSF() override;

  /// Measures the star that the way up from a position leads to, and keeps its width.
  int Add(CPoint seed);
  int GetCount() const { return static_cast<int>(samples_.size()); }
  /// Answer mean and median of the widths kept, in pixels (FWHM) and as kept (PSF). The median is the upper
  /// one of an even number.
  int GetMeanFWHM(double* out);
  int GetMedianFWHM(double* out);
  int GetMeanPSF(double* out);
  int GetMedianPSF(double* out);
  /// Measures half widths at half height to four sides, along the axes or at 45 degrees, whichever is the
  /// more elongated. `peak` may be null.
  int GetFWHMXY(CPoint seed, double* left, double* right, double* up, double* down, CPoint* peak);

  static double FwhmToPsf(double fwhm);
  static double PsfToFwhm(double psf);

 private:
  CPoint ClimbToPeak(CPoint p);
  int GetBase(CPoint peak, double* base);
  int GetFWHM(CPoint peak, double base, double* width);
  int GetFWHMXY(CPoint peak, double base, double* left, double* right, double* up, double* down,
                double degrees);
  double GetPixelValue(CPoint p, CPoint centre, double degrees);
  int Accept(double psf, double* out) const;

  CVelImage* image_;
  std::vector<double> samples_;
  double maximum_ = 64;
};
