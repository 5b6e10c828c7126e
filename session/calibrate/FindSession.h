// The frames of a session, wherever in a folder they lie.
#pragma once

#include <filesystem>
#include <vector>

#include "session/Export.h"
#include "session/calibrate/Calibrate.h"
#include "session/job/Job.h"

namespace korimg::session {

struct SessionFrames {
  std::vector<std::filesystem::path> lights, darks, flats, biases;
};

/// Finds the frames in a folder and the folders in it. What a frame is for, it says itself, by IMAGETYP or
/// FRAME; else the folder that it lies in does, if it, or one that it lies in, is called lights, darks,
/// flats, biases or alike; else its name, as in dark_0001.fits. Darks of flats count as darks, masters as
/// frames of their kind. What says nothing is taken for a light. Finished stacks are left out, and so is
/// `results`, a folder of which nothing is read, and any other that an earlier run wrote. Where there are no
/// frames of a kind, those of the folder `calibration` serve, such as ready masters.
/// @throws FileError when there are no lights, or when a folder holds several kinds of files.
KORIMG_SESSION_API SessionFrames FindSession(Job& job, const std::filesystem::path& folder,
                                             const std::filesystem::path& results = {},
                                             const std::filesystem::path& calibration = {});

/// Gives options the frames of a session, whose results go to their `out`.
KORIMG_SESSION_API void TakeSession(Job& job, const std::filesystem::path& folder, CalibrateOptions& options,
                                    const std::filesystem::path& calibration = {});

/// Finds the calibration frames alone: there may be none.
KORIMG_SESSION_API SessionFrames FindCalibration(Job& job, const std::filesystem::path& folder);
/// Finds those of a folder that was named for them, as of ready masters. Throws FileError where there are
/// none.
KORIMG_SESSION_API SessionFrames FindReady(Job& job, const std::filesystem::path& folder);

}  // namespace korimg::session
