// How sharp frames are, and how round their stars: which of them is the best.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "korimg/measurement/CStarFinder.h"

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/picture/Image.h"

namespace korimg::session {

struct FocusOptions {
  std::vector<std::filesystem::path> files;  ///< or folders of files
  std::string hdu;                           ///< FITS: number or name of the extension that is read
};

struct FoundFocus {
  /// How much of the light above the sky lies in what is finer than ten pixels, by CImgEvaluateFocus: from 0,
  /// also where nothing stands out, to somewhat less than 2, the larger the sharper. It knows of no exposure,
  /// gain, or level of the sky, and of small changes of stars that are small anyway: FWHM tells more there.
  double focus = 0;
  int stars = 0;
  double fwhm = 0, elongation = 0;   ///< of the usual star; 0 without any
  std::optional<double> guideError;  ///< see GuideErrorOf
};

struct FileFocus : FoundFocus {
  std::filesystem::path file;
};

/// Measures an image: three planes by their luminance, a mosaic by the mean of its colours.
KORIMG_SESSION_API FoundFocus MeasureFocus(const Image& image);

struct FocusRanking {
  std::vector<FileFocus> frames;  ///< the sharpest first
  bool byStars = false;           ///< by FWHM, since all have stars enough; else by the focus value
};

/// Measures each file. What cannot be read is a failure of the job.
/// @throws FileError for a folder without images, Cancelled.
KORIMG_SESSION_API FocusRanking RankByFocus(Job& job, const FocusOptions& options);

/// Measures the mean elongation of the brightest stars about the middle of an image, up to 40, as
/// CImgEvaluateGuideError measures it: 1 for round ones; noise alone gives 1.1 to 1.2. `stars` are the
/// image's own by falling flux, of which those with a flag do not count. None without such stars.
KORIMG_SESSION_API std::optional<double> GuideErrorOf(CVelImage& image, const std::vector<CStar>& stars);

}  // namespace korimg::session
