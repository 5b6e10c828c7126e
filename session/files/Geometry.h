// What moving an image's pixels does to its header: world coordinates, pixel sizes, the mosaic's phase.
#pragma once

#include <optional>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

/// Tells where source pixel (x, y) goes: (xx x + xy y + tx, yx x + yy y + ty). Positions are 0-based, whole
/// at the pixels' centres, y downward as the rows are stored.
struct KORIMG_SESSION_API AffineMap {
  double xx = 1, xy = 0, yx = 0, yy = 1;
  double tx = 0, ty = 0;

  static AffineMap Shift(double x, double y) { return {.tx = x, .ty = y}; }

  double Determinant() const { return xx * yy - xy * yx; }
  AffineMap Inverse() const;
  /// Joins this map and then another.
  AffineMap Then(const AffineMap& next) const;
};

/// Size of an image.
struct ImageSize {
  int width = 0, height = 0, planes = 1;
};

/// Brings the header of an image of one size along with its pixels, which the map sends to an image of
/// another:
/// - world coordinates of every description (CRPIX, and CD, or CDELT with PC or CROTA), LTV and LTM;
/// - SIP polynomials survive shifts, mirroring and scaling, and are dropped with a line of HISTORY otherwise,
/// as are
///   look-up tables of distortions. Distortions of the world's side (PVi_m) do not see pixels and stay;
/// - XPIXSZ, YPIXSZ, PIXSIZE1, PIXSIZE2, SCALE and PIXSCALE follow the size of pixels, XORGSUBF and YORGSUBF
/// a
///   shift;
/// - the phase of a mosaic follows shifts and mirroring by whole pixels.
/// False, and nothing done, where the image is an undeveloped mosaic that the map would mix up.
[[nodiscard]] bool MoveHeader(Header& header, const ImageSize& before, const ImageSize& after,
                              const AffineMap& map);

/// True where the rows of a FITS file are stored from the lowest up: by ROWORDER; where it says nothing and
/// bySky is set, by world coordinates of a sky that would be mirrored from the highest down.
KORIMG_SESSION_API bool RowsRunUp(const Header& header, bool bySky);

/// True when an image with this header makes a picture that is upside down: its rows lie as they are stored,
/// from the lowest up by its sky.
KORIMG_SESSION_API bool IsPictureOverturned(const Header& header);

/// True when an image must be turned over to lie as the one that it serves does: frames that do not both
/// state their order are taken as stored in one.
KORIMG_SESSION_API bool LiesOverturned(const Header& served, const Header& other);

/// Brings a header along with rows whose order is turned over. A stated ROWORDER stays, and with it the
/// pattern of a mosaic, which is that of the upright picture. False, and nothing done, for a mosaic that
/// cannot be turned.
[[nodiscard]] bool TurnRows(Header& header, const ImageSize& size);

/// Serves pixels that go where no affine map says: world coordinates are dropped with a line of HISTORY that
/// names the reason. False for an undeveloped mosaic.
[[nodiscard]] bool DropWorldCoordinates(Header& header, const ImageSize& before, const std::string& reason);

/// Serves pixels that are straightened: SIP polynomials are dropped, with a line of HISTORY that names the
/// reason where there were any. The linear part stays.
void DropSip(Header& header, const std::string& reason);

/// Answers the seconds of arc for a pixel: by the world coordinates, by SCALE or PIXSCALE, or by FOCALLEN and
/// XPIXSZ.
KORIMG_SESSION_API std::optional<double> PixelScale(const Header& header);

}  // namespace korimg::files
