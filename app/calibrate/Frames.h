// Frames of a session: their groups, and which group of calibration frames serves a frame.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "app/files/ImageFile.h"

namespace korimg::tool {

enum class FrameKind { Bias, Dark, Flat };

/// A file and what it says of itself.
struct Frame {
  std::filesystem::path path;
  files::ImageInfo info;
};

/// Calibration frames that belong together: taken by the same camera in the same way.
struct Group {
  FrameKind kind;
  std::string name;  ///< of their master, as in "master_dark_120s"
  std::vector<Frame> frames;

  /// The frames by number and names.
  std::string Text() const;
  /// What their first header says of the properties that matter for the kind.
  std::string Properties() const;
};

/// A property in which a frame differs from the frames that should serve it.
struct Mismatch {
  std::string key, wanted, found;
};

/// The group that serves a frame best.
struct Match {
  const Group* group = nullptr;  ///< none when there are no groups
  bool sameSize = true;          ///< and planes that serve the frame's
  std::vector<Mismatch> mismatches;
  std::vector<std::string> unknown;  ///< keys that one of the two lacks: they count as matching

  explicit operator bool() const { return group && sameSize && mismatches.empty(); }
};

/// Reads the header of an image file.
Frame ReadFrame(const std::filesystem::path& path);

/// Files as they are, and folders as the image files in them, in the order of their names.
/// @throws FileError for a folder without images.
std::vector<std::filesystem::path> ExpandFolders(const std::vector<std::filesystem::path>& paths);

/// Parts frames by size, camera, binning, gain, offset and readout mode; darks and biases by temperature;
/// darks by exposure; flats by filter.
std::vector<Group> MakeGroups(FrameKind kind, const std::vector<std::filesystem::path>& paths);

/// The group with the fewest mismatches, and of these the one nearest in temperature.
Match FindMatch(const std::vector<Group>& groups, const Frame& frame);

/// Exposure time by EXPTIME or EXPOSURE.
std::optional<double> ExposureOf(const Frame& frame);

/// Refuses files whose results would have the same name.
void CheckStems(const std::vector<std::filesystem::path>& paths);

/// A file's name without the extensions of images and packers.
std::string StemOf(const std::filesystem::path& path);

}  // namespace korimg::tool
