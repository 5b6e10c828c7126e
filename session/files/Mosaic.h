// The mosaic of colour filters that an image was taken through: which, where it begins, and how we know.
#pragma once

#include <string>
#include <vector>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

enum class RowOrder { TopDown, BottomUp };

/// Tells where a pattern has one of its red sites: columns and rows from a frame's first pixel, to any side.
struct RedSite {
  int x = 0, y = 0;
};

/// Tells how a pattern lies on a frame.
struct MosaicLayout {
  int pattern = 1;               ///< its CFA number at the upright picture's top left corner
  int xOffset = 0, yOffset = 0;  ///< columns and rows that the corner lies inside the pattern
  RowOrder rowOrder = RowOrder::TopDown;
  int height = 0;            ///< rows of the frame
  int cropX = 0, cropY = 0;  ///< stored columns and rows cut off before the first
};

/// Answers the CFA number of the stored rows: 1 RGGB, 2 GRBG, 3 BGGR, 4 GBRG, 11 to 14 a honeycomb; 0 for one
/// whose first stored pixel lies between the sites, which has none.
KORIMG_SESSION_API int CfaNumber(const MosaicLayout& layout);

/// Answers 1 to 4 for "RGGB", "GRBG", "BGGR" and "GBRG", 11 to 14 for "HONEYCOMB1" to "HONEYCOMB4", which
/// have red at (0, 0), (2, 0), (1, 1) and (3, 1), in any case; else 0.
KORIMG_SESSION_API int CfaNumber(std::string_view pattern);

/// Answers the name of a CFA number.
KORIMG_SESSION_API const char* CfaName(int number);

/// Answers all names.
KORIMG_SESSION_API std::vector<std::string> CfaNames();

KORIMG_SESSION_API bool IsHoneycomb(int cfa);

RedSite FindRed(int cfa);

/// Answers the number of the same kind of mosaic with red elsewhere; 0 where it has none.
int CfaWithRed(int cfa, RedSite red);

/// Answers the colour of a site of a mosaic: 0 red, 1 green, 2 blue; less than 0 between the sites of a
/// honeycomb. It repeats after four columns and rows.
KORIMG_SESSION_API int ColourOfSite(int cfa, int x, int y);

/// Holds what is known of an image's mosaic.
struct Mosaic {
  int cfa = 0;         ///< of the rows as they are stored; 0: no mosaic, or one that is not supported
  std::string name;    ///< of the pattern as stored, or of one that is not supported; empty: no mosaic
  std::string reason;  ///< where this comes from, for people
};

/// Holds what the user says instead of the file. Empty: as the file says.
struct MosaicOptions {
  std::string cfa;                 ///< pattern of the upright picture's top left corner
  std::string rowOrder;            ///< "top-down" or "bottom-up"
  std::string source = "as told";  ///< who says the pattern
};

/// Finds the mosaic by BAYERPAT or COLORTYP, which may name a honeycomb too, XBAYROFF, YBAYROFF and ROWORDER;
/// by a FILTER that names a pattern. Without ROWORDER, rows are top-down where BAYERPAT is given, as capture
/// programs write both so, and bottom-up, as the standard has it, otherwise.
KORIMG_SESSION_API Mosaic FindMosaic(const ImageInfo& info, const MosaicOptions& options = {});

/// Takes the keywords of a mosaic out of the header of an image that was developed.
KORIMG_SESSION_API void RemoveMosaic(Header& header);

}  // namespace korimg::files
