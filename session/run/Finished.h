// What a run has left in its folder of results, for those who look at it afterwards.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"
#include "session/picture/Images.h"
#include "session/run/Run.h"

namespace korimg::session {

struct FinishedFrame {
  RunFrame frame;  ///< its measure without the stars
  std::string filter;
  std::string stack;               ///< the name of its stack's files; empty for what could not be read
  std::optional<double> start;     ///< of its exposure, seconds since 1970
  std::optional<double> exposure;  ///< seconds
  bool isExcluded = false;         ///< by the options' patterns
  bool isMeasured = false;
  std::string stem, digest;  ///< what its measures are kept by
};

struct FinishedRun {
  std::filesystem::path folder;
  std::string version;  ///< of the library that made it
  std::string command;  ///< as the tool was called; may be empty
  /// As the run had them: those of one object, with all its lights, the excluded ones too. Paths are
  /// absolute.
  RunOptions options;
  std::vector<FinishedFrame> frames;  ///< in order of time; in the end those that were not read
  std::vector<RunStack> stacks;
  std::vector<std::filesystem::path> colours;
  std::optional<size_t> reference;  ///< among the frames; none where it is an image of its own
  Shape grid;                       ///< of the reference
};

/// Finds the folders of results at a folder: itself, and those right below it, as of several objects.
KORIMG_SESSION_API std::vector<std::filesystem::path> FindRuns(const std::filesystem::path& folder);

/// Reads what the last run that was finished in a folder has told of its frames. Files of stacks may be gone.
/// @throws FileError where no run was finished, or by a version that kept other things.
KORIMG_SESSION_API FinishedRun OpenRun(const std::filesystem::path& folder);

/// Answers a small JPEG of a light, made when it was measured; empty where that is gone.
KORIMG_SESSION_API std::string ThumbnailOf(const FinishedRun& run, size_t frame);

/// Tells which of the run's frames a selection leaves out, by the patterns of `include` and `exclude`.
KORIMG_SESSION_API std::vector<bool> LeftOutBy(const FinishedRun& run, const RunOptions& selection);
/// Answers a pattern that fits one frame of the run and no other.
KORIMG_SESSION_API std::string PatternOf(const FinishedRun& run, size_t frame);
/// Answers the options that stack the run again without some of its frames, into the same folder.
KORIMG_SESSION_API RunOptions Again(const FinishedRun& run, const std::vector<bool>& leftOut);

/// Reads the calibrated and developed pixels of a run's frames, laid on its reference's grid as its stacks
/// have them, but for their sky and weight. Writes nothing. Any thread may ask.
class KORIMG_SESSION_API RegisteredFrames {
 public:
  /// Reads the masters and finds hot and cold pixels again, which takes a while.
  /// @throws FileError where frames or masters have changed or are gone
  RegisteredFrames(const FinishedRun& run, const JobOptions& job);
  ~RegisteredFrames();

  const Shape& Size() const { return grid_; }
  /// Fills rows of a frame, NaN where it does not reach.
  /// @throws FileError for a frame that was not registered, or has changed since the run
  void Read(size_t frame, const Band<float>& to);
  /// Answers one stretch for all frames of a stack, so that they compare: that of the reference, or of the
  /// first one that is stacked, about the sky of the frame.
  Levels StretchOf(size_t frame);
  /// Answers what the file of a frame says, but for where its pixels lie on the sky and in a mosaic.
  files::ImageInfo InfoOf(size_t frame) const;
  /// True where the file of a stack has its last row at the top of a picture, these have it too.
  bool IsOverturned() const { return isOverturned_; }

 private:
  struct Kept;

  std::unique_ptr<Kept> kept_;
  Shape grid_;
  bool isOverturned_ = false;
  struct Stretched {
    size_t frame;  ///< that the stretch is of
    Levels levels;
  };
  std::mutex mutex_;
  std::map<std::string, Stretched> stretched_;  ///< by stacks
};

}  // namespace korimg::session
