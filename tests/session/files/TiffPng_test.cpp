// TIFF and PNG files in the shapes that other programs write, and broken ones.
#include <cstring>

#include <png.h>
#include <tiffio.h>

#include "tests/support/Folder.h"

namespace korimg::files {
namespace {

constexpr int kWidth = 53, kHeight = 41;

float Value(int x, int y, int channel) {
  return static_cast<float>((x * 7 + y * 13 + channel * 50) % 256);
}

Planes Wanted(int planes, bool negative = false, float top = 255) {
  Planes result(planes);
  for (int p = 0; p < planes; ++p) {
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const float value = Value(i % kWidth, i / kWidth, p);
      result[p].push_back(negative ? top - value : value);
    }
  }
  return result;
}

class TiffPng : public FolderTest {
 protected:
  static void ExpectBothWays(const std::filesystem::path& path, const Planes& wanted,
                             const std::string& what) {
    const auto reader = ImageReader::Open(path);
    EXPECT_EQ(ReadAll(*reader, 9), wanted) << what;
    EXPECT_EQ(ReadAll(*reader, 6, true), wanted) << what << ", backwards";
  }
};

struct Shape {
  int bits, samples, photometric, config, tile, rowsPerStrip, compression;
};

void MakeTiff(const std::filesystem::path& path, const char* mode, const Shape& shape) {
  TIFF* tiff = TIFFOpen(path.c_str(), mode);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kWidth);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kHeight);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, shape.bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, shape.bits == 32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, shape.samples);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, shape.photometric);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, shape.config);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, shape.compression);
  const int tile = shape.tile, bytes = shape.bits / 8;
  const bool apart = shape.config == PLANARCONFIG_SEPARATE;
  const int channels = apart ? shape.samples : 1, step = apart ? 1 : shape.samples;
  const auto fill = [&](std::vector<unsigned char>& row, int x0, int y, int width, int channel) {
    for (int x = 0; x < width * step; ++x) {
      const float value = Value(x0 + x / step, y, channel + x % step);
      const auto wide = static_cast<std::uint16_t>(value);
      const auto narrow = static_cast<unsigned char>(value);
      std::memcpy(row.data() + x * bytes,
                  bytes == 1   ? static_cast<const void*>(&narrow)
                  : bytes == 2 ? static_cast<const void*>(&wide)
                               : static_cast<const void*>(&value),
                  bytes);
    }
  };
  std::vector<unsigned char> row(static_cast<std::size_t>(std::max(kWidth, tile)) * step * bytes);
  if (tile != 0) {
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, tile);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, tile);
    for (int channel = 0; channel < channels; ++channel) {
      for (int y0 = 0; y0 < kHeight; y0 += tile) {
        for (int x0 = 0; x0 < kWidth; x0 += tile) {
          std::vector<unsigned char> block;
          for (int y = 0; y < tile; ++y) {
            fill(row, x0, y0 + y, tile, channel);
            block.insert(block.end(), row.begin(),
                         row.begin() + static_cast<std::ptrdiff_t>(tile) * step * bytes);
          }
          TIFFWriteTile(tiff, block.data(), x0, y0, 0, channel);
        }
      }
    }
  } else {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, shape.rowsPerStrip);
    for (int channel = 0; channel < channels; ++channel) {
      for (int y = 0; y < kHeight; ++y) {
        fill(row, 0, y, kWidth, channel);
        TIFFWriteScanline(tiff, row.data(), y, channel);
      }
    }
  }
  TIFFClose(tiff);
}

TEST_F(TiffPng, ReadsTiffInEveryShape) {
  for (const char* mode : {"wl", "wb", "wb8"}) {
    for (const int bits : {8, 16, 32}) {
      for (const int samples : {1, 2, 3, 4}) {
        for (const int config : {PLANARCONFIG_CONTIG, PLANARCONFIG_SEPARATE}) {
          for (const int tile : {0, 16}) {
            for (const int rowsPerStrip : {5, kHeight}) {
              for (const int compression : {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE}) {
                const bool colour = samples >= 3;
                MakeTiff(In("a"), mode,
                         {bits, samples, colour ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK, config, tile,
                          rowsPerStrip, compression});
                ExpectBothWays(In("a"), Wanted(colour ? 3 : 1),
                               std::string(mode) + " bits " + std::to_string(bits) + " samples " +
                                   std::to_string(samples) + " config " + std::to_string(config) + " tile " +
                                   std::to_string(tile) + " strip " + std::to_string(rowsPerStrip) +
                                   " compression " + std::to_string(compression));
              }
            }
          }
        }
      }
    }
  }
  MakeTiff(In("a"), "w", {8, 1, PHOTOMETRIC_MINISWHITE, PLANARCONFIG_CONTIG, 0, 8, COMPRESSION_NONE});
  ExpectBothWays(In("a"), Wanted(1, true), "8 bit, white is zero");
  MakeTiff(In("a"), "w", {16, 1, PHOTOMETRIC_MINISWHITE, PLANARCONFIG_CONTIG, 0, 8, COMPRESSION_NONE});
  ExpectBothWays(In("a"), Wanted(1, true, 65535), "16 bit, white is zero");
}

/// Gray and colour with and without alpha, palette, few bits; values are those of Value() where they fit.
void MakePng(const std::filesystem::path& path, int type, int bits, bool interlaced) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, kWidth, kHeight, bits, type, interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  std::vector<png_color> palette(256);
  for (int i = 0; i < 256; ++i) {
    palette[i] = {static_cast<png_byte>(i), static_cast<png_byte>((i + 50) % 256),
                  static_cast<png_byte>((i + 100) % 256)};
  }
  std::vector<png_byte> opacity(256, 100);
  if (type == PNG_COLOR_TYPE_PALETTE) {
    png_set_PLTE(png, info, palette.data(), 256);
    png_set_tRNS(png, info, opacity.data(), 256, nullptr);
  }
  png_write_info(png, info);
  const int channels = png_get_channels(png, info), bytes = bits == 16 ? 2 : 1;
  std::vector<std::vector<png_byte>> rows(kHeight);
  std::vector<png_bytep> pointers;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      for (int channel = 0; channel < channels; ++channel) {
        const auto value = static_cast<png_byte>(Value(x, y, channel));
        if (bits == 1) {
          if (x % 8 == 0) rows[y].push_back(0);
          rows[y].back() |= static_cast<png_byte>((value & 1) << (7 - x % 8));
        } else {
          rows[y].push_back(bytes == 2 ? 1 : value);  // 16 bit: 256 + value
          if (bytes == 2) rows[y].push_back(value);
        }
      }
    }
    pointers.push_back(rows[y].data());
  }
  png_write_image(png, pointers.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  std::fclose(file);
}

TEST_F(TiffPng, ReadsPngInEveryShape) {
  const struct {
    int type, bits, planes;
  } shapes[] = {
      {PNG_COLOR_TYPE_GRAY, 8, 1},    {PNG_COLOR_TYPE_GRAY, 16, 1}, {PNG_COLOR_TYPE_GRAY_ALPHA, 8, 1},
      {PNG_COLOR_TYPE_RGB, 8, 3},     {PNG_COLOR_TYPE_RGB, 16, 3},  {PNG_COLOR_TYPE_RGBA, 16, 3},
      {PNG_COLOR_TYPE_PALETTE, 8, 3}, {PNG_COLOR_TYPE_GRAY, 1, 1},  {PNG_COLOR_TYPE_GRAY_ALPHA, 16, 1}};
  for (const auto& [type, bits, planes] : shapes) {
    for (const bool interlaced : {false, true}) {
      MakePng(In("a"), type, bits, interlaced);
      Planes wanted = Wanted(planes);
      for (auto& plane : wanted) {
        for (float& value : plane)
          value = bits == 16 ? value + 256 : bits == 1 ? 255.0f * (int(value) & 1) : value;
      }
      ExpectBothWays(In("a"), wanted, "type " + std::to_string(type) + " bits " + std::to_string(bits));
      EXPECT_EQ(ImageReader::Open(In("a"))->Info().type, bits == 16 ? "uint16" : "uint8");
    }
  }
}

TEST_F(TiffPng, BrokenFilesGiveOneCleanLine) {
  MakePng(In("good.png"), PNG_COLOR_TYPE_RGB, 16, false);
  MakeTiff(In("good.tif"), "w", {16, 1, PHOTOMETRIC_MINISBLACK, PLANARCONFIG_CONTIG, 0, 5, COMPRESSION_LZW});
  MakeTiff(In("ycbcr.tif"), "w", {8, 3, PHOTOMETRIC_YCBCR, PLANARCONFIG_CONTIG, 0, 5, COMPRESSION_NONE});
  const std::string png = ReadBytes(In("good.png")), tiff = ReadBytes(In("good.tif"));
  std::string giant = png;
  giant.replace(16, 8,
                std::string("\0\xf\0\0\0\xf\0\0", 8));  // sides of 983040; the checksum is then wrong as well
  const struct {
    const char* name;
    std::string bytes;
    const char* says;
  } cases[] = {
      {"half a PNG", png.substr(0, png.size() / 2), "PNG"},
      {"start of a PNG", png.substr(0, 20), "PNG"},
      {"giant PNG", giant, "PNG"},
      {"PNG with damage", png.substr(0, 200) + "damage" + png.substr(206), "PNG"},
      {"half a TIFF", tiff.substr(0, tiff.size() / 2), ""},
      {"start of a TIFF", tiff.substr(0, 8), "TIFF"},
      {"no directory", tiff.substr(0, 4) + std::string("\xff\xff\xff\x7f", 4) + tiff.substr(8), "TIFF"},
      {"YCbCr", ReadBytes(In("ycbcr.tif")), "photometric interpretation 6"},
  };
  for (const auto& broken : cases) {
    WriteBytes(In(broken.name), broken.bytes);
    const std::string error = ErrorOf([&] { ReadAll(*ImageReader::Open(In(broken.name)), 16); });
    EXPECT_TRUE(error.starts_with(In(broken.name).string() + ": ")) << broken.name << ": " << error;
    EXPECT_NE(error.find(broken.says), std::string::npos) << broken.name << ": " << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
  // Any flipped bit is an error or changes pixels, no more.
  for (const std::string* good : {&png, &tiff}) {
    for (std::size_t at = 0; at < good->size(); at += 3) {
      std::string bytes = *good;
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
      WriteBytes(In("flipped"), bytes);
      ErrorOf([&] { ReadAll(*ImageReader::Open(In("flipped")), 16); });
    }
  }
}

}  // namespace
}  // namespace korimg::files
