// Live stacking: a picture that grows with each frame that a camera delivers.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/calibrate/Calibrate.h"
#include "session/job/Job.h"
#include "session/picture/Image.h"
#include "session/register/LayFrames.h"
#include "session/run/Run.h"

namespace korimg::session {

struct LiveOptions {
  /// The calibration frames, which are made into masters with the first light; `masters` keeps these, or,
  /// where no calibration frames are named, is the folder that ready ones are found in. Lights and `out` are
  /// not looked at.
  CalibrateOptions calibrate = {.cosmetic = Cosmetic::Auto};
  /// An image of the lights' size, such as the stack of another night, that frames are laid on. Empty: the
  /// first frame with five stars or more.
  std::filesystem::path reference;
  /// Against the frames that were measured so far, once there are three with 20 stars.
  FrameLimits limits;
  LayOptions lay;  ///< how frames are laid on the reference
  /// Deviations that a value may lie from the mean of those before it; above 0.
  double kappa = 4;
  int kernel = CInterp::MethodBicubic;
  bool countCopies = false;  ///< a frame with the pixels of another one counts as well
};

/// A frame, and what has become of it.
struct LiveFrame {
  std::filesystem::path file;
  bool isAdded = false;
  std::string status;                  ///< "added", or why it is not
  double dx = 0, dy = 0, degrees = 0;  ///< as Registration has them
  int stars = 0;                       ///< found
  double fwhm = 0, elongation = 0;     ///< of the usual star
  double sky = 0, noise = 0;           ///< level and deviation, as calibrated
  std::string masters;                 ///< names of those that it was calibrated by; empty for none
  /// Of its stars' light to that of the reference's; none where they share none: its sky alone is matched.
  std::optional<double> fluxRatio;
  double weight = 0;  ///< by its noise, that of the reference being 1; the mean of its planes
  /// Share of the stack's pixels at which its value was rejected; none of the first two frames until the
  /// third is added.
  std::optional<double> rejected;
  double seconds = 0;  ///< that Add took
};

/// Calibrates frames, lays them on the first good one and adds them to a running mean, one at a time. It
/// holds four images of the frames' size and the masters, two more until the third frame is added, and two
/// while it works; of each frame some 300 bytes and its name are kept. Nothing is written but
/// masters, and nothing but these is known to the next object: it begins anew with the files.
///
/// Means are weighted by the noise of frames as Stack's are, and outliers rejected against the mean so far;
/// see RunningMean for the first frames. A run on the same frames does better, since it knows all of them
/// from the start: it chooses the best frame as reference and finds hot pixels by the lights.
class KORIMG_SESSION_API LiveStack {
 public:
  /// @throws FileError for a reference that cannot be read, UsageError for options out of range
  LiveStack(Job& job, LiveOptions options);
  ~LiveStack();

  /// Adds a file's frame, or tells why it is left out: it is no light, cannot be read, is not like the frames
  /// before it (size, camera, filter), shows clouds, or does not match. One call at a time.
  /// @throws FileError for calibration frames that cannot be used, Cancelled, and then nothing is added
  LiveFrame Add(const std::filesystem::path& file);

  /// Answers the mean so far, NaN where no frame reaches, with levels that show it and the header of a stack:
  /// that of the reference, with NCOMBINE. None before the first frame. SaveImage writes it. Any thread may
  /// ask, and waits for an update of the mean at most, not for the work before it.
  std::optional<Image> Snapshot() const;
  /// Tells what became of each frame, in the order they came. Any thread may ask.
  std::vector<LiveFrame> Frames() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/// Answers what stacks the frames of a folder properly: with these options Run does what it does on that
/// folder, into `out`. Calibration frames of kinds that the folder lacks are those of live stacking.
/// @throws FileError as FindSession does
KORIMG_SESSION_API RunOptions ProperRun(Job& job, const std::filesystem::path& folder,
                                        const std::filesystem::path& out, const LiveOptions& options);

}  // namespace korimg::session
