// The mosaic of colour filters that an image was taken through: which, where it begins, and how we know.
#pragma once

#include <string>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

enum class RowOrder { TopDown, BottomUp };

/// How a Bayer pattern lies on a frame.
struct BayerLayout {
  int pattern = 1;               ///< of the upright picture's top left corner: 1 RGGB, 2 GRBG, 3 BGGR, 4 GBRG
  int xOffset = 0, yOffset = 0;  ///< columns and rows that the corner lies inside the pattern
  RowOrder rowOrder = RowOrder::TopDown;
  int height = 0;            ///< rows of the frame
  int cropX = 0, cropY = 0;  ///< stored columns and rows cut off before the first
};

/// The CFA number of the first two stored rows: 1 RGGB, 2 GRBG, 3 BGGR, 4 GBRG.
KORIMG_SESSION_API int CfaNumber(const BayerLayout& layout);

/// 1 to 4 for "RGGB", "GRBG", "BGGR" and "GBRG" in any case; else 0.
KORIMG_SESSION_API int CfaNumber(std::string_view pattern);

/// "RGGB" and so on for 1 to 4.
const char* CfaName(int number);

/// What is known of an image's mosaic.
struct Mosaic {
  int cfa = 0;         ///< of the rows as they are stored; 0: no mosaic, or one that is not supported
  std::string name;    ///< of the pattern as stored, or of one that is not supported; empty: no mosaic
  std::string reason;  ///< where this comes from, for people
};

/// What the user says instead of the file. Empty: as the file says.
struct MosaicOptions {
  std::string cfa;                 ///< pattern of the upright picture's top left corner
  std::string rowOrder;            ///< "top-down" or "bottom-up"
  std::string source = "as told";  ///< who says the pattern
};

/// Finds the mosaic by BAYERPAT or COLORTYP, XBAYROFF, YBAYROFF and ROWORDER; by a FILTER that names a
/// pattern. Without ROWORDER, rows are top-down where BAYERPAT is given, as capture programs write both so,
/// and bottom-up, as the standard has it, otherwise.
KORIMG_SESSION_API Mosaic FindMosaic(const ImageInfo& info, const MosaicOptions& options = {});

/// Takes the keywords of a mosaic out of the header of an image that was developed.
KORIMG_SESSION_API void RemoveMosaic(Header& header);

}  // namespace korimg::files
