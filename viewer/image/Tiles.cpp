#include "viewer/image/Tiles.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <png.h>

#include "korimg/display/CMemoryDIB.h"

#include "session/picture/Image.h"

namespace korimg::viewer {

using namespace session;

namespace {

using Palette = std::array<std::array<unsigned char, 3>, 256>;

/// Blue over grey to yellow in even steps of lightness, which eyes of all kinds tell apart: colours of CIE
/// L*a*b* (D65) with a* = 0, L* from 4 to 96 and b* from -38 to 62, brought to sRGB (IEC 61966-2-1).
Palette MakePalette() {
  Palette palette;
  const auto cubed = [](double t) { return t > 6.0 / 29 ? t * t * t : 3 * 36.0 / 841 * (t - 4.0 / 29); };
  const auto encoded = [](double v) {
    const double s = v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
    return static_cast<unsigned char>(std::lround(255 * std::clamp(s, 0.0, 1.0)));
  };
  for (int i = 0; i < 256; ++i) {
    const double share = i / 255.0, lightness = 4 + 92 * share;
    // Black and white have no colour.
    const double b = (-38 + 100 * share) * std::min({1.0, 6 * share + 0.15, 4 * (1 - share) + 0.4});
    const double f = (lightness + 16) / 116;
    const double x = 0.95047 * cubed(f), y = cubed(f), z = 1.08883 * cubed(f - b / 200);
    palette[i] = {encoded(3.2406 * x - 1.5372 * y - 0.4986 * z),
                  encoded(-0.9689 * x + 1.8758 * y + 0.0415 * z),
                  encoded(0.0557 * x - 0.2040 * y + 1.0570 * z)};
  }
  return palette;
}

/// The pixels of an image by its levels.
Bytes BytesOf(CVelImage& image, bool inColours) {
  static const Palette palette = MakePalette();
  const bool isMono = image.GetPlanes() < 3;
  Bytes bytes{image.GetWidth(), image.GetHeight(), isMono && !inColours ? 1 : 3, {}};
  CMemoryDIB bitmap;
  if (!bitmap.Create(nullptr, bytes.width, bytes.height, 0)) throw std::bad_alloc();
  CRect all(0, 0, bytes.width, bytes.height);
  image.ToDIB(&bitmap, &all);
  bytes.pixels.reserve(static_cast<std::size_t>(bytes.width) * bytes.height * bytes.planes);
  for (int y = 0; y < bytes.height; ++y) {
    const unsigned char* pixel = bitmap.GetImageAdr32(0, y);  // blue, green, red
    for (int x = 0; x < bytes.width; ++x, pixel += 4) {
      if (bytes.planes == 1) {
        bytes.pixels.push_back(pixel[2]);
      } else if (isMono) {
        bytes.pixels.insert(bytes.pixels.end(), palette[pixel[2]].begin(), palette[pixel[2]].end());
      } else {
        bytes.pixels.insert(bytes.pixels.end(), {pixel[2], pixel[1], pixel[0]});
      }
    }
  }
  return bytes;
}

}  // namespace

Bytes Draw(Image& image, const Stretch& stretch) {
  for (int p = 0; p < image.Planes(); ++p) {
    const int known = std::min(p, 2);
    image.Pixels().SetLevel(p, stretch.levels.min[known], stretch.levels.max[known]);
  }
  Job job;
  for (const Step& step : stretch.steps) {
    step.Run(job, image);
  }
  ShowByLevels(image.Pixels(), stretch.levels);
  return BytesOf(image.Pixels(), stretch.inColours);
}

CRect RectOf(const Pyramid& pyramid, const TilePlace& place) {
  const auto [level, column, row, overlap] = place;
  constexpr int kTile = Pyramid::kTile;
  const bool isThere = level >= 0 && level < pyramid.Levels() && row >= 0 && row < pyramid.Strips(level) &&
                       column >= 0 && column <= (pyramid.At(level).width - 1) / kTile;
  if (!isThere) throw UsageError("the picture has no such tile");
  const Shape shape = pyramid.At(level);
  return CRect(std::max(column * kTile - overlap, 0), std::max(row * kTile - overlap, 0),
               std::min((column + 1) * kTile + overlap, shape.width),
               std::min((row + 1) * kTile + overlap, shape.height));
}

Bytes DrawTile(Pyramid& pyramid, const TilePlace& place, const Stretch& stretch,
               const std::function<bool()>& isGone) {
  const CRect rect = RectOf(pyramid, place);
  Image tile(NewImage(CreateContiguousManager({}), rect.Width(), rect.Height(), pyramid.Of().shape.planes));
  pyramid.Fill(place.level, rect, tile.Rows(), isGone);
  return Draw(tile, stretch);
}

std::string PngOf(const Bytes& bytes) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = bytes.width;
  png.height = bytes.height;
  png.format = bytes.planes == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
  png.flags = PNG_IMAGE_FLAG_FAST;
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
  std::string file(size, '\0');
  if (!png_image_write_to_memory(&png, file.data(), &size, 0, bytes.pixels.data(), 0, nullptr)) {
    throw Error(ErrorKind::Internal, png.message);
  }
  file.resize(size);
  return file;
}

std::string JpegOf(const Bytes& bytes) {
  session::Levels levels;
  std::fill(levels.max, levels.max + 3, 255);
  std::string jpeg;
  PictureSaver saver(jpeg, {bytes.width, bytes.height, bytes.planes}, levels, 1);
  BandBuffer line;
  for (int y = 0; y < bytes.height; ++y) {
    const Band<float> row = line.Get(bytes.planes, bytes.width, y, 1);
    for (int p = 0; p < bytes.planes; ++p) {
      const unsigned char* from =
          bytes.pixels.data() + static_cast<std::size_t>(y) * bytes.width * bytes.planes + p;
      for (int x = 0; x < bytes.width; ++x) {
        row.Plane(p)[0][x] = from[x * bytes.planes];
      }
    }
    saver.Write(row);
  }
  saver.Commit();
  return jpeg;
}

}  // namespace korimg::viewer
