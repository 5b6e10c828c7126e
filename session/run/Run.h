// A session's frames to a finished picture.
#pragma once

#include <filesystem>

#include "session/Export.h"
#include "session/calibrate/Calibrate.h"
#include "session/compose/Palette.h"
#include "session/register/LayFrames.h"
#include "session/stack/StackChoices.h"

namespace korimg::session {

/// Limits what frames are stacked, relative to the median of the frames stacked with them. 0 sets no limit.
struct FrameLimits {
  double stars = 0.4;       ///< at least so many: clouds
  double fwhm = 1.5;        ///< at most: focus, seeing
  double elongation = 1.4;  ///< at most: trails
};

struct RunOptions {
  /// `out` is the folder for all results.
  CalibrateOptions calibrate = {.cosmetic = Cosmetic::Auto};
  /// Patterns of names, as of a shell: lights whose name or path none of `include` fits, if there are any, or
  /// one of `exclude` fits, are left out.
  std::vector<std::string> include, exclude;
  /// A light, or an image with stars of the lights' size, such as a stack of another night: the grid of all
  /// stacks. Empty: the best light.
  std::filesystem::path reference;
  StackChoices stack;
  FrameLimits limits;
  LayOptions lay;                   ///< how lights are laid on the reference
  Palette palette = Palette::Auto;  ///< of the colour image of several filters
  /// How many values were rejected in each pixel of a stack, as stack_low.fits and stack_high.fits; not of
  /// what is drizzled.
  bool rejectionMaps = false;
  bool gradient = false;  ///< the gradient of the sky is taken off each stack, by CImgGradient
};

/// A light, and what has become of it.
struct RunFrame {
  std::filesystem::path file;
  FrameMeasure measure = {};
  Registration registration = {};
  std::string status = {};  ///< "stacked", or why it is not
  bool isStacked = false;
  double weight = 0;                 ///< in its stack; the mean of its planes
  std::vector<double> weights = {};  ///< of each
  double rejected = 0;               ///< share of its pixels
};

struct RunStack {
  std::filesystem::path file;  ///< the FITS file; pictures lie beside it
  std::string filter;
  int frames = 0, lights = 0;  ///< stacked, and wanted
  double exposure = 0;         ///< seconds
  int stars = 0;
  double fwhm = 0;                 ///< pixels
  double noise = 0;                ///< of the sky
  std::filesystem::path gradient;  ///< the FITS file of what was taken off; empty: nothing was
};

struct RunResult {
  std::vector<RunFrame> frames;
  std::vector<RunStack> stacks;
  std::vector<std::filesystem::path> colours;  ///< the FITS files of all filters, where there are such
  std::vector<std::filesystem::path> reports;  ///< one for each object
};

/// Adds what a file says to include, exclude and reference: an object of JSON with these names, the first two
/// lists of patterns. Throws FileError.
KORIMG_SESSION_API void AddSelection(RunOptions& options, const std::filesystem::path& file);

/// Calibrates, develops, measures, registers and stacks the lights, one stack for each filter, all on the
/// grid of one reference. Writes stack.fits, stack_float.tif, stack_16bit.tif and stack.png
/// (stack_<filter>... when there are several), colour.fits, colour.tif of 16 bits and colour.png where the
/// filters make a colour image by the palette, stack_low.fits and stack_high.fits where they are wanted,
/// stack_gradient.fits where a gradient is taken off,
/// report.html, the masters, and maps of hot and cold pixels where they are wanted. Calibrated frames are
/// made twice, for measuring and for stacking, and never written. A frame that cannot be used is left out,
/// and the report says why; copies count once. The job has failed when a stack holds less than half of its
/// lights; those that are still being written are left for later, and do not count.
///
/// Lights of several objects (OBJECT) are worked through one after the other, each into a folder of its own.
/// A run that was ended, or is called again with the same folder for its results, goes on: lights that were
/// measured and stacks that were made of the same files by the same options are kept (in OUT/.korimg), all
/// else is made anew.
/// @throws FileError when calibration frames or outputs are wrong, the disk has no room, no frame is left, or
/// the folder holds the results of other lights.
KORIMG_SESSION_API RunResult Run(Job& job, const RunOptions& options);

/// Tells what Run would do: groups of frames, what serves each light, stacks, and what it takes of memory,
/// disk and time. Writes nothing.
/// @throws FileError too where the disk has no room.
KORIMG_SESSION_API void PlanRun(Job& job, const RunOptions& options);

}  // namespace korimg::session
