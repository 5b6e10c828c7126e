// Frames of a session: their groups, and which group of calibration frames serves a frame.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"

namespace korimg::session {

enum class FrameKind { Bias, Dark, Flat };

/// A file and what it says of itself.
struct Frame {
  std::filesystem::path path;
  files::ImageInfo info;
};

/// Calibration frames that belong together: taken by the same camera in the same way.
struct KORIMG_SESSION_API Group {
  FrameKind kind;
  std::string name;  ///< of their master, as in "master_dark_120s"
  std::vector<Frame> frames;
  /// Of a dark whose signal is brought to another exposure: the darks, the bias that holds the rest, and the
  /// ratio of exposures.
  const Group *scaledFrom = nullptr, *bias = nullptr;
  double scale = 1;

  /// Tells the frames by number and names.
  std::string Text() const;
  /// Tells what their first header says of the properties that matter for the kind.
  std::string Properties() const;
};

/// A property in which a frame differs from the frames that should serve it.
struct Mismatch {
  std::string key, wanted, found;
};

/// Tells by what flats belong together, beside the camera and the filter: those of a night, of a position of
/// the rotator, of a folder. And header keywords that frames of all kinds must agree in to serve one another.
struct Grouping {
  bool night = true, rotator = true, folder = true;
  std::vector<std::string> keys = {};
};

/// Reads a list such as "night,OBSERVER"; "auto" and "none" too. Throws UsageError.
KORIMG_SESSION_API Grouping ParseGrouping(const std::string& text);

/// The group that serves a frame best.
struct Match {
  const Group* group = nullptr;  ///< none when there are no groups
  bool sameSize = true;          ///< and planes that serve the frame's
  std::vector<Mismatch> mismatches;
  std::vector<std::string> unknown;  ///< keys that one of the two lacks: they count as matching

  explicit operator bool() const { return group && sameSize && mismatches.empty(); }
};

/// Reads the header of an image file.
KORIMG_SESSION_API Frame ReadFrame(const std::filesystem::path& path);

/// Answers files as they are, and folders as the image files in them, in the order of their names. A folder
/// is read as frames of one kind: pictures (PNG, TIFF) beside FITS or camera raw files, and folders of frames
/// in it, are left out, and told of.
/// @throws FileError for a folder without images, or with several kinds of frames.
KORIMG_SESSION_API std::vector<std::filesystem::path> ExpandFolders(
    Job& job, const std::vector<std::filesystem::path>& paths);

/// A frame that cannot be read, and a copy of another, is left out with a warning, unless no other is left.
/// Parts frames by size, camera, binning, gain, offset and readout mode; darks and biases by temperature;
/// darks by exposure; flats by filter, and as the grouping says. A finished master is a group of its own.
KORIMG_SESSION_API std::vector<Group> MakeGroups(Job& job, FrameKind kind,
                                                 const std::vector<std::filesystem::path>& paths,
                                                 const Grouping& grouping = {});

/// Finds the group with the fewest mismatches, and of these the one nearest: flats in folder, position of the
/// rotator and time, others in temperature; a finished master rather than frames.
KORIMG_SESSION_API Match FindMatch(const std::vector<Group>& groups, const Frame& frame,
                                   const Grouping& grouping = {});

/// True for a master that was made before, by the number of frames in it or by what it is called.
KORIMG_SESSION_API bool IsMaster(const files::Header& header);

/// Answers the filter that a frame was taken through, by FILTER or FILTER1; empty where neither says one.
KORIMG_SESSION_API std::string FilterOf(const files::Header& header);

/// Answers a name without blanks and in lower case, as names are compared.
KORIMG_SESSION_API std::string FoldedName(std::string name);

/// Refuses files whose results would have the same name.
KORIMG_SESSION_API void CheckStems(const std::vector<std::filesystem::path>& paths);

/// Answers a file's name without the extensions of images and packers.
KORIMG_SESSION_API std::string StemOf(const std::filesystem::path& path);

}  // namespace korimg::session
