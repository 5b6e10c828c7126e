// From a mosaic of colour filters to a colour image.
#pragma once

#include <array>
#include <string>

#include "app/files/Mosaic.h"
#include "app/tool/Images.h"

namespace korimg::tool {

struct DevelopOptions {
  files::MosaicOptions mosaic;
  std::string whiteBalance = "auto";  ///< "auto", "camera", "none" or four gains "1.9,1,1,1.5"
  bool mono = false;                  ///< brightness in place of colour
  bool half = false;                  ///< half the size: each pixel from one cell of the mosaic
  bool levelCut = false;              ///< results are limited to black and white
  double gamma = 1;
};

/// Gains by position in the 2 x 2 cell, by rows, or by plane of a colour image; and where they come from.
struct WhiteBalance {
  std::array<double, 4> gains{1, 1, 1, 1};
  std::string text;
};

/// @throws UsageError for a white balance that is neither a known word nor four positive numbers.
void CheckWhiteBalance(const std::string& wanted);

/// The mosaic of an image, also by its camera's name when the file says nothing else.
/// @throws FileError when there is none, or one that cannot be developed.
files::Mosaic RequireMosaic(CVelImage& image, const files::ImageInfo& info,
                            const files::MosaicOptions& options);

/// White balance as wanted: "auto" takes the camera's gains where the file has them, else the medians of the
/// image, which must be free of its offset.
/// @throws FileError when the camera's gains are wanted and not known.
WhiteBalance ChooseWhiteBalance(CVelImage& image, const files::ImageInfo& info, const files::Mosaic& mosaic,
                                const std::string& wanted);

/// Develops a mosaic in place, and takes note of it in the header, which loses the keywords of the mosaic.
/// Black is level 0. An image that has colours already only gets its white balance.
/// @throws FileError, with the image as it was, when it is too small or there is no room.
void Develop(CVelImage& image, files::ImageInfo& info, const files::Mosaic& mosaic,
             const WhiteBalance& balance, const DevelopOptions& options);

}  // namespace korimg::tool
