// The stars of images, with their measures.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "korimg/measurement/CStarFinder.h"

#include "session/Export.h"
#include "session/files/Gain.h"
#include "session/job/Job.h"
#include "session/picture/Image.h"

namespace korimg::session {

struct StarOptions {
  double sigmas = 5;                ///< of the sky's noise, that stars exceed
  std::optional<files::Gain> gain;  ///< for the noise of a star's own light; none: as the header says
};

struct StarFilesOptions : StarOptions {
  std::vector<std::filesystem::path> files;  ///< or folders of files
  std::string hdu;                           ///< FITS: number or name of the extension that is read
};

struct FoundStars {
  int width = 0, height = 0;         ///< of the image, pixels
  std::vector<CStar> stars;          ///< in order of falling flux
  double fwhm = 0, elongation = 0;   ///< of the usual star; 0 without any
  std::optional<double> guideError;  ///< see GuideErrorOf
  double sky = 0, noise = 0;         ///< level and deviation, raw
  files::Gain gain;                  ///< that the stars' signal to noise takes into account
  std::string noData;                ///< for people: what of the edges holds no data

  /// Tells the gain for people, and what it means that it is not known.
  KORIMG_SESSION_API std::string GainText() const;
};

struct FileStars : FoundStars {
  std::filesystem::path file;
};

/// Finds and measures the stars of an image.
KORIMG_SESSION_API FoundStars FindStars(const Image& image, const StarOptions& options = {});

/// Gives the stars of each file, in the order of files. What cannot be read is a failure of the job.
/// @throws FileError for a folder without images, Cancelled.
KORIMG_SESSION_API std::vector<FileStars> FindStars(Job& job, const StarFilesOptions& options);
/// Does the same for more stars than memory should hold: take(stars) is called once for each file.
KORIMG_SESSION_API void FindStars(Job& job, const StarFilesOptions& options,
                                  const std::function<void(FileStars)>& take);

/// Answers "saturated", "edge" and "blended" with commas between, as far as they are true of a star.
KORIMG_SESSION_API std::string FlagsText(const CStar& star);

/// Writes lines of "x y radius", which Annotate draws circles by, with the other measures as comments.
/// @throws FileError
KORIMG_SESSION_API void WriteStarList(const std::filesystem::path& path, const FileStars& found);

}  // namespace korimg::session
