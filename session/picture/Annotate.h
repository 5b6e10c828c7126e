// Titles, scale bars and circles about stars, drawn into a picture before it is written.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "korimg/calibration/CImgGradient.h"
#include "korimg/image/CVelImage.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::session {

struct Annotations {
  std::string title;                     ///< in the upper left corner; empty for none
  bool scaleBar = false;                 ///< in the lower left corner, of a round length in the sky
  std::filesystem::path stars;           ///< list of "x y [radius]" in pixels of the image; empty for none
  std::vector<CImgGradient::Box> boxes;  ///< of sky, and other ones, crossed out; in its pixels
  int overturnedHeight =
      0;  ///< rows of an image that is drawn the other way round than stars and boxes lie, else 0
};

/// Answers what is drawn unless it is told: the name of the object, and a scale bar where the scale is known.
KORIMG_SESSION_API Annotations DefaultAnnotations(const files::Header& header);

/// Draws into a picture of which each pixel stands for binX x binY pixels of the image that the header tells
/// of. Colour pictures are drawn into in yellow, mono ones in white. Throws FileError that names the list of
/// stars, or `input` when a scale bar is wanted and its header does not say the scale.
KORIMG_SESSION_API void Annotate(CVelImage& picture, const Annotations& annotations,
                                 const std::filesystem::path& input, const files::Header& header, int binX,
                                 int binY);

}  // namespace korimg::session
