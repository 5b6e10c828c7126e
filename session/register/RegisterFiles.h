// How the frames of files, or images from elsewhere, lie on a reference.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/picture/Image.h"
#include "session/register/LayFrames.h"

namespace korimg::session {

/// Tells what frames are laid on the reference by.
enum class LayBy {
  Auto,  ///< their stars or their light; what these do not lay, by its world coordinates
  Stars,
  World  ///< world coordinates alone
};
inline const std::vector<Named<LayBy>> kLayBy = {
    {"auto", LayBy::Auto}, {"stars", LayBy::Stars}, {"wcs", LayBy::World}};

struct RegisterOptions {
  std::vector<std::filesystem::path> files;  ///< or folders of files
  std::string reference = "auto";            ///< an image, or the sharpest of the frames
  std::string hdu;                           ///< FITS: number or name of the extension that is read
  double sigmas = 5;                         ///< of the sky's noise, that stars exceed
  double residual = 1;                       ///< pixels that stars may be off by in the mean
  FrameModel model = FrameModel::Auto;
  LayBy by = LayBy::Auto;
  std::filesystem::path lenses = {};  ///< a LensLibrary that knows the lens, or gets it; empty: none
};

/// An image from elsewhere.
struct RegisterSource {
  std::string name;             ///< for people
  std::function<Image()> open;  ///< any thread may call it, and more than once
  long long bytes = 0;          ///< that it takes beside what is there already
};

/// What frames are laid on: the sharpest of them, one by its number, or another image.
using RegisterReference = std::variant<std::monostate, size_t, RegisterSource>;

struct RegisterResult {
  std::filesystem::path reference;
  FrameMeasure measure;              ///< of the reference
  std::vector<Registration> frames;  ///< one for each file; those that could not be read come last
  std::string model;                 ///< for people: what the frames are laid by, and why
};

/// Finds the stars of frames and lays each on the reference. The job has failed when less than half of them
/// lie on it, or none but itself.
/// @throws FileError for a reference that cannot be read.
KORIMG_SESSION_API RegisterResult RegisterFiles(Job& job, const RegisterOptions& options);

/// Does the same for images from elsewhere. Of the options, files, reference and hdu are not looked at.
KORIMG_SESSION_API RegisterResult RegisterImages(Job& job, const std::vector<RegisterSource>& images,
                                                 const RegisterReference& reference,
                                                 const RegisterOptions& options);

/// Writes them as Transforms reads them, one a line. Throws FileError.
KORIMG_SESSION_API void WriteRegistrations(const std::filesystem::path& path,
                                           const std::vector<Registration>& registrations);

}  // namespace korimg::session
