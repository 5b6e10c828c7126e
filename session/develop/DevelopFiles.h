// Colour images of the mosaics in files.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "session/Export.h"
#include "session/develop/Develop.h"
#include "session/job/Job.h"

namespace korimg::session {

struct DevelopFilesOptions : DevelopOptions {
  std::vector<std::filesystem::path> frames;  ///< camera raw, FITS or TIFF files, or folders of them
  std::filesystem::path out;         ///< folder for the results, or the .fits or .tif of a single one
  std::filesystem::path dark, flat;  ///< of each a file; empty: none
  double black = 0;       ///< raw value of no light, where neither a dark nor the file says it; 0: not known
  bool integers = false;  ///< 16 bits with white at 65535 and room for noise below black, not raw values
  bool previews = false;  ///< a small picture of each frame too, in the folder previews
};

struct DevelopedFrame {
  std::filesystem::path file, output;
  std::optional<std::filesystem::path> preview;
  files::Mosaic mosaic;
  WhiteBalance whiteBalance;
};

/// Takes the dark off each frame, divides it by the flat, and develops its mosaic; what has colours already
/// gets its white balance. Gives the frames that were developed. One that cannot be is a failure of the job,
/// and so is an output that exists already, unless it may be replaced.
/// @throws UsageError for options that do not go together, FileError for a dark or flat, Cancelled.
KORIMG_SESSION_API std::vector<DevelopedFrame> DevelopFiles(Job& job, const DevelopFilesOptions& options);

/// Tells what DevelopFiles would do. Writes nothing.
KORIMG_SESSION_API std::vector<DevelopedFrame> PlanDevelopFiles(Job& job, const DevelopFilesOptions& options);

}  // namespace korimg::session
