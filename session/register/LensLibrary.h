// Distortions of lenses, kept from session to session.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "korimg/geometry/CLensDistortion.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/register/LayFrames.h"

namespace korimg::session {

/// Keeps a file of JSON with the lenses that sessions have told, by camera, lens and focal length.
class KORIMG_SESSION_API LensLibrary {
 public:
  /// The file need not be there. An empty path is no library: it knows none, and keeps none.
  explicit LensLibrary(std::filesystem::path path) : path_(std::move(path)) {}

  /// Makes a key of INSTRUME, LENS or TELESCOP, FOCALLEN in whole millimetres, and the size; empty where the
  /// header names neither camera nor lens.
  static std::string KeyOf(const files::Header& header, int width, int height);

  /// @throws files::FileError for a file that is no library.
  std::optional<CLensDistortion> Find(const std::string& key) const;
  /// Takes the place of what was known by that key.
  /// @throws files::FileError when it cannot be written.
  void Keep(const std::string& key, const CLensDistortion& lens, const std::string& note) const;

 private:
  std::filesystem::path path_;
};

/// Keeps the lens that frames have told, if any; a library that cannot be written is warned of.
void KeepLens(Job& job, const LensLibrary& lenses, const std::string& key, const LaidFrames& laid);

}  // namespace korimg::session
