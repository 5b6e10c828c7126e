// What image files hold.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/files/Mosaic.h"
#include "session/job/Job.h"

namespace korimg::session {

struct InspectOptions {
  std::vector<std::filesystem::path> files;
  std::string hdu;  ///< FITS: number or name of the extension that is read
};

/// Holds measures of the pixels of a plane that are not NaN, and its levels.
struct PlaneContents {
  double min = 0, max = 0, mean = 0, median = 0, stddev = 0;
  double black = 0, white = 0;
};

struct FileContents {
  files::ImageInfo info;  ///< what the file says: format, size, header, camera
  std::vector<PlaneContents> planes;
  files::Mosaic mosaic;  ///< by the file, or by the name of its camera if its colours show
  /// The header's keywords that people look for first, with their values.
  std::vector<std::pair<std::string, std::string>> keywords;
  std::string instrument, exposure, rawType;  ///< camera raw: for people
};

/// Reads and measures each file, in their order. What cannot be read is a failure of the job.
/// @throws Cancelled
KORIMG_SESSION_API std::vector<FileContents> Inspect(Job& job, const InspectOptions& options);
/// Does the same one by one: take(contents) is called once for each file.
KORIMG_SESSION_API void Inspect(Job& job, const InspectOptions& options,
                                const std::function<void(FileContents)>& take);

}  // namespace korimg::session
