// Where frames lie, as register writes it.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "korimg/geometry/CFrameMap.h"

namespace korimg::session {

/// Tells how a frame is brought to the reference, as CImgComposit takes it.
struct Transform {
  double dx = 0, dy = 0, degrees = 0;
  std::optional<CFrameMap> map;     ///< instead of these
  std::optional<double> fwhm;       ///< pixels
  std::optional<double> fluxRatio;  ///< of its stars to those of the reference
  std::string status = "ok";        ///< else why the frame is of no use
  std::string note;                 ///< the numbers of that

  std::string Text() const { return note.empty() ? status : status + ": " + note; }

  bool IsNone() const { return !map && dx == 0 && dy == 0 && degrees == 0; }
};

/// Holds the transforms of a file of JSON objects, one a line, by frame. Objects without "file" are passed
/// over.
class Transforms {
 public:
  /// @throws files::FileError with the line that cannot be read.
  explicit Transforms(const std::filesystem::path& path);

  /// Finds a frame's transform. Frames are known by their place; relative names in the file count from here,
  /// or else from its folder.
  /// @throws files::FileError for a frame that is not there.
  const Transform& Of(const std::filesystem::path& frame) const;

 private:
  std::filesystem::path path_;
  std::map<std::filesystem::path, Transform> here_, there_;
};

}  // namespace korimg::session
