// Where the rows of a picture come from.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "korimg/image/View.h"

#include "session/files/ImageFile.h"
#include "session/files/Mosaic.h"
#include "session/job/Job.h"
#include "session/picture/Images.h"

namespace korimg::viewer {

/// Rows of an image as a picture has them: upright by its header's sky.
struct Source {
  session::Shape shape;
  files::ImageInfo info;
  std::string mosaic;         ///< the name of the file's pattern; empty: none that can be developed
  bool isOverturned = false;  ///< the picture's first row is the image's last one
  std::function<void(const Band<float>&)> read;  ///< fills rows of the picture, for one thread at a time

  /// Answers the row of the image that a row of the picture is, or the other way round.
  int Turned(int y) const { return isOverturned ? shape.height - 1 - y : y; }
};

/// Rows of an image as a picture has them, by the sky of its header unless it is told whether it is
/// overturned.
std::shared_ptr<const Source> Upright(const files::ImageInfo& info, const files::Mosaic& mosaic,
                                      const session::Shape& shape,
                                      std::function<void(const Band<float>&)> read,
                                      std::optional<bool> isOverturned = {});

/// Opens the rows of a file as they are. Throws FileError.
std::shared_ptr<const Source> OpenSource(const std::filesystem::path& path);

/// Opens the colours of a mosaic, by the file's own pattern; by the camera's white balance where the file has
/// one.
/// @throws FileError where the file has no mosaic, or none that can be developed
std::shared_ptr<const Source> OpenDeveloped(session::Job& job, const std::filesystem::path& path);

}  // namespace korimg::viewer
