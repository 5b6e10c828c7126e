// Exposures through filters become one colour image.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "korimg/geometry/CInterp.h"

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/job/Named.h"
#include "session/picture/Image.h"
#include "session/register/Register.h"

namespace korimg::session {

/// Tells what the sources are: exposures through red, green and blue filters; through cyan, magenta and
/// yellow ones, in this order; a luminance before those of red, green and blue; or planes of Lab, L before a
/// and b.
enum class Composition { Rgb, Cmy, Lrgb, Lab };

/// Tells what black and white are where colours meet a luminance, and on pictures of the result: those of the
/// sources; or, by the sky, values that lose no pixel, one range for all colours. Auto takes the sky's where
/// there is a luminance.
enum class LevelsBy { Auto, Source, Sky };

/// Tells what becomes of the sky of each colour: it stays, or comes to that of the first one by a shift of
/// values.
enum class Backgrounds { Keep, Equal };

inline const std::vector<Named<Composition>> kCompositions = {{"rgb", Composition::Rgb},
                                                              {"cmy", Composition::Cmy},
                                                              {"lrgb", Composition::Lrgb},
                                                              {"lab", Composition::Lab}};
inline const std::vector<Named<LevelsBy>> kLevelsBy = {
    {"auto", LevelsBy::Auto}, {"source", LevelsBy::Source}, {"sky", LevelsBy::Sky}};
inline const std::vector<Named<Backgrounds>> kBackgrounds = {{"keep", Backgrounds::Keep},
                                                             {"equal", Backgrounds::Equal}};

struct ComposeOptions {
  Composition composition = Composition::Rgb;
  bool registers = true;  ///< lays sources on the first one by their stars, else by phase; false: as they lie
  bool crops = true;      ///< to what all sources share
  LevelsBy levels = LevelsBy::Auto;
  Backgrounds backgrounds = Backgrounds::Keep;
  CInterp::Method kernel = CInterp::MethodBicubic;  ///< reads sources between their pixels
};

/// Composes images, which are used up: the luminance first where there is one, then three colours, or one
/// image in colour that serves for all three. They may be of any sizes. For Lab L is a plane of 0 to 100, and
/// the colour has two planes, a and b. The result has the grid of the first source, and its header but for
/// what is true of a single filter only.
/// @throws UsageError for a number of sources that does not suit; FileError for one that cannot be laid on
/// the first, and when nothing is left that all share.
KORIMG_SESSION_API Image Compose(Job& job, std::vector<Image> sources, const ComposeOptions& options);

struct ComposeFilesOptions : ComposeOptions {
  std::filesystem::path luminance;             ///< empty: none
  std::vector<std::filesystem::path> colours;  ///< three, or one
  std::filesystem::path output;                ///< FITS, TIFF or PNG, by its extension
  std::string hdu;                             ///< FITS: number or name of the extension that is read, of all
  bool paged = false;                          ///< images live in a paged store
  bool integers = false;                       ///< 16 bits in place of floats, for FITS and TIFF
};

/// Does the same for files.
/// @throws UsageError, FileError, Cancelled
KORIMG_SESSION_API void ComposeFiles(Job& job, const ComposeFilesOptions& options);

/// Tells what ComposeFiles would do. Reads and writes nothing.
KORIMG_SESSION_API void PlanComposeFiles(Job& job, const ComposeFilesOptions& options);

}  // namespace korimg::session
