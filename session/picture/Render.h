// Pictures of images, by their levels.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/picture/Annotate.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::session {

struct RenderOptions {
  std::filesystem::path input;
  std::filesystem::path output;                 ///< of 8 bits: PNG, TIFF or JPEG, by its extension
  std::string hdu;                              ///< FITS: number or name of the extension that is read
  LevelMethod level = LevelMethod::Auto;        ///< how it is shown; Auto leaves what has 8 bits as it is
  double scale = 1;                             ///< to 1, rounded to one over a whole number
  std::optional<Annotations> annotations = {};  ///< where they tell nothing, DefaultAnnotations
  /// With annotations, boxes are those that CImgGradient finds by these.
  std::optional<CImgGradient::Options> gradient = {};
};

struct RenderResult {
  Shape shape;                                ///< of the picture
  Levels levels;                              ///< what it is shown by
  std::vector<CImgGradient::Box> boxes = {};  ///< that were drawn, in pixels of the image
};

/// Makes a picture of an image, upright by its header's sky.
/// @throws FileError, Cancelled
KORIMG_SESSION_API RenderResult Render(Job& job, const RenderOptions& options);

/// A picture in memory.
struct Picture {
  RenderResult result;
  std::vector<unsigned char> pixels;  ///< by rows, the top one first; red, green and blue of a pixel together
};

/// Does the same to an image in memory, which is used up: it is shown as it lies, and `input`, `output` and
/// `hdu` of the options are not looked at.
/// @throws UsageError, Cancelled
KORIMG_SESSION_API Picture RenderImage(Job& job, Image image, const RenderOptions& options);

/// Tells what Render would do. Reads and writes nothing.
/// @throws FileError for an output that exists already, unless it may be replaced.
KORIMG_SESSION_API void PlanRender(Job& job, const RenderOptions& options);

}  // namespace korimg::session
