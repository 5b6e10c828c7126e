#include "viewer/run/Rejections.h"

#include <algorithm>
#include <cmath>

#include <png.h>

namespace korimg::viewer {

using namespace session;

namespace {

/// The largest of the planes.
float LargestOf(const Band<const float>& rows, int x, int y) {
  float largest = 0;
  for (int p = 0; p < rows.Planes(); ++p) {
    largest = std::max(largest, rows.Plane(p)[y][x]);
  }
  return largest;
}

}  // namespace

std::string DrawRejections(Pyramid& low, Pyramid& high, const TilePlace& place, int frames,
                           const std::function<bool()>& isGone) {
  constexpr double kBlue[] = {86, 180, 233}, kOrange[] = {255, 150, 20}, kFull = 0.2;  // share of frames
  if (low.At(0).width != high.At(0).width || low.At(0).height != high.At(0).height) {
    throw UsageError("the maps of what is too low and too high are of two sizes");
  }
  const CRect rect = RectOf(low, place);
  const int width = rect.Width(), height = rect.Height();
  const auto fill = [&](Pyramid& pyramid, BandBuffer& buffer) {
    const Band<float> rows = buffer.Get(pyramid.Of().shape.planes, width, 0, height);
    pyramid.Fill(place.level, rect, rows, isGone);
    return rows;
  };
  BandBuffer lowRows, highRows;
  const Band<const float> below = fill(low, lowRows), above = fill(high, highRows);
  std::vector<unsigned char> pixels;
  pixels.reserve(4UL * width * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double few = LargestOf(below, x, y), many = LargestOf(above, x, y), all = few + many;
      // The root keeps what is thin in view on coarse levels.
      const double opacity = std::sqrt(std::min(all / std::max(kFull * frames, 1.0), 1.0));
      for (int c = 0; c < 3; ++c) {
        const double colour = all > 0 ? (few * kBlue[c] + many * kOrange[c]) / all : 0;
        pixels.push_back(static_cast<unsigned char>(std::lround(colour)));
      }
      pixels.push_back(static_cast<unsigned char>(std::lround(255 * opacity)));
    }
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = width;
  png.height = height;
  png.format = PNG_FORMAT_RGBA;
  png.flags = PNG_IMAGE_FLAG_FAST;
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
  std::string file(size, '\0');
  if (!png_image_write_to_memory(&png, file.data(), &size, 0, pixels.data(), 0, nullptr)) {
    throw Error(ErrorKind::Internal, png.message);
  }
  file.resize(size);
  return file;
}

}  // namespace korimg::viewer
