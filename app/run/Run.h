// The whole road: a session's frames to a finished picture.
#pragma once

#include <filesystem>

#include "app/calibrate/Calibrate.h"
#include "app/stack/StackChoices.h"

namespace korimg::tool {

/// What a frame may be to be stacked, relative to the median of the frames stacked with it. 0 sets no limit.
struct FrameLimits {
  double stars = 0.4;       ///< at least so many: clouds
  double fwhm = 1.5;        ///< at most: focus, seeing
  double elongation = 1.4;  ///< at most: trails
};

struct RunOptions {
  CalibrateOptions calibrate;  ///< `out` is the folder for all results
  StackChoices stack;
  FrameLimits limits;
};

/// Calibrates, develops, measures, registers and stacks the lights, one stack for each filter, all on the
/// grid of one reference. Writes stack.fits, stack_float.tif, stack_16bit.tif and stack.png
/// (stack_<filter>... when there are several), report.html and the masters. Calibrated frames are made twice,
/// for measuring and for stacking, and never written. A frame that cannot be used is left out, and the report
/// says why; copies count once. The exit code is 1 when a stack holds less than half of its lights. What ends
/// the run leaves no outputs.
/// @throws FileError when calibration frames or outputs are wrong, or no frame is left.
void Run(Tool& tool, RunOptions options);

}  // namespace korimg::tool
