// Clean sky in images: where it is, how bright and how noisy.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "korimg/platform/CRect.h"

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/picture/Image.h"

namespace korimg::session {

struct SkyFilesOptions {
  std::vector<std::filesystem::path> files;  ///< or folders of files
  std::string hdu;                           ///< FITS: number or name of the extension that is read
};

/// Holds of a plane's pixels there: the median and the standard deviation, raw.
struct PlaneSky {
  double background = 0, noise = 0;
};

struct FoundSky {
  CRect square;
  std::vector<PlaneSky> planes;
};

struct FileSky : FoundSky {
  std::filesystem::path file;
};

/// Finds a clean square of an image and measures it.
/// @throws Error when there is none.
KORIMG_SESSION_API FoundSky FindSky(const Image& image);

/// Does the same for each file, in the order of files: take(sky) is called once for each. What cannot be
/// read, or has no clean sky, is a failure of the job.
/// @throws FileError for a folder without images, Cancelled.
KORIMG_SESSION_API void FindSky(Job& job, const SkyFilesOptions& options,
                                const std::function<void(FileSky)>& take);

}  // namespace korimg::session
