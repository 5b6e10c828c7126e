// Two images become one, by shift, angle and mode.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "korimg/geometry/CInterp.h"
#include "korimg/platform/CRect.h"

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/job/Named.h"
#include "session/picture/Image.h"

namespace korimg::session {

/// Tells what a pixel becomes of those of both images, by the numbers of CImgComposit; Neighbour replaces
/// what is saturated in a long exposure by a short one.
enum class CompositeMode {
  Average,
  Add,
  Weight,
  Subtract,
  Multiply,
  Divide,
  Difference,
  Brighter,
  Darker,
  Neighbour
};

/// The modes by their names.
inline const std::vector<Named<CompositeMode>> kCompositeModes = {
    {"average", CompositeMode::Average},       {"add", CompositeMode::Add},
    {"weight", CompositeMode::Weight},         {"subtract", CompositeMode::Subtract},
    {"multiply", CompositeMode::Multiply},     {"divide", CompositeMode::Divide},
    {"difference", CompositeMode::Difference}, {"brighter", CompositeMode::Brighter},
    {"darker", CompositeMode::Darker},         {"neighbour", CompositeMode::Neighbour}};

struct CompositeOptions {
  CompositeMode mode = CompositeMode::Average;
  double dx = 0, dy = 0;  ///< pixels that the second image is shifted by to the right and down
  double angle = 0;       ///< degrees that it is turned by first, clockwise on the screen
  std::optional<std::pair<double, double>> centre;   ///< x, y of it that it turns about; none: its middle
  CInterp::Method kernel = CInterp::MethodBilinear;  ///< reads it between its pixels
  double weight = 0.5;        ///< Weight: the second's share; Neighbour: what it is multiplied by
  double threshold = 0.95;    ///< Neighbour: saturated is what exceeds this share
  int radius = 1;             ///< Neighbour: pixels that are looked at on each side, 0 to 2
  bool level = false;         ///< by black and white of each image, not by raw values
  bool cutMinus = false;      ///< Subtract: negative results become 0
  std::optional<CRect> rect;  ///< outside of it the first image stays
};

/// Combines the second image, which is used up, into the first, which keeps its size, header and levels.
/// Where the second does not reach, the first stands as it is. The second may be of any size; a mono one
/// serves colour, a colour one serves mono by its luminance. With a rectangle the pixels of the first are
/// changed where they lie, else a new image of its store takes their place.
/// @throws UsageError for numbers that are not finite, and for Neighbour with 90 degrees and more.
KORIMG_SESSION_API void Composite(Job& job, Image& first, Image second, const CompositeOptions& options);

struct CompositeFilesOptions : CompositeOptions {
  std::filesystem::path first, second;
  std::filesystem::path output;  ///< FITS, TIFF or PNG, by its extension
  std::string hdu;               ///< FITS: number or name of the extension that is read, of both
  bool paged = false;            ///< images live in a paged store
  bool integers = false;         ///< 16 bits in place of floats, for FITS and TIFF
};

/// Does the same for files.
/// @throws UsageError, FileError, Cancelled
KORIMG_SESSION_API void CompositeFiles(Job& job, const CompositeFilesOptions& options);

/// Tells what CompositeFiles would do. Reads and writes nothing.
KORIMG_SESSION_API void PlanCompositeFiles(Job& job, const CompositeFilesOptions& options);

}  // namespace korimg::session
