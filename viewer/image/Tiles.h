// Tiles of a picture, drawn by the library.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session/operations/Operation.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "viewer/image/Pyramid.h"

namespace korimg::viewer {

/// Tells how an image is shown.
struct Stretch {
  session::Levels levels;
  std::vector<session::Step> steps;  ///< done before, on shares of the levels; of single pixels only
  bool inColours = false;            ///< one plane, from blue over grey to yellow
};

/// Names a piece of a level of a picture, column by column and row by row of tiles.
struct TilePlace {
  int level = 0, column = 0, row = 0;
  int overlap = 0;  ///< pixels that it has of each tile beside it
};

/// Answers its pixels of the level. Throws UsageError for a tile that is not there.
CRect RectOf(const Pyramid& pyramid, const TilePlace& place);

/// Holds pixels of 8 bits, red, green and blue, or grey.
struct Bytes {
  int width = 0, height = 0, planes = 1;
  std::vector<unsigned char> pixels;  ///< pixel by pixel
};

/// Draws a tile as `korimg render` draws the picture.
/// @throws UsageError for a tile that is not there, and as Pyramid::Get
Bytes DrawTile(
    Pyramid& pyramid, const TilePlace& place, const Stretch& stretch,
    const std::function<bool()>& isGone = [] { return false; });

/// Draws the pixels of an image as the library's bitmaps show them. Its own pixels become those that are
/// shown.
Bytes Draw(session::Image& image, const Stretch& stretch);

/// Makes a file of these pixels.
std::string PngOf(const Bytes& bytes);
std::string JpegOf(const Bytes& bytes);

}  // namespace korimg::viewer
