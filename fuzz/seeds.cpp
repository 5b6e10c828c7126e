// Writes small files for every fuzz target to begin with, and the dictionary of recipes: fuzz_seeds FOLDER.
#include <array>
#include <cstring>
#include <functional>

#include <fitsio.h>
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include "fuzz/Support.h"
#include "session/operations/Operations.h"
#include "session/stack/internal/Journal.h"
#include "tests/support/Dng.h"

using namespace korimg;
namespace fs = std::filesystem;

namespace {

constexpr int kWidth = 9, kHeight = 7;

double Value(int i) {
  return (i * 37) % 251;
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// An image, packed in tiles if `packing` is not 0, with sums or without.
void WriteFits(const fs::path& path, int bitpix, int planes, int packing, bool sums) {
  int status = 0;
  fitsfile *plain = nullptr, *packed = nullptr;
  fits_create_file(&plain, packing ? "mem://" : ("!" + path.string()).c_str(), &status);
  long axes[3] = {kWidth, kHeight, planes}, tile[3] = {5, 4, 1};
  fits_create_img(plain, bitpix, planes == 1 ? 2 : 3, axes, &status);
  std::vector<double> values;
  for (int i = 0; i < kWidth * kHeight * planes; ++i) {
    values.push_back(Value(i));
  }
  fits_write_img(plain, TDOUBLE, 1, static_cast<LONGLONG>(values.size()), values.data(), &status);
  if (packing) {
    fits_create_file(&packed, ("!" + path.string()).c_str(), &status);
    fits_set_compression_type(packed, packing, &status);
    fits_set_tile_dim(packed, 3, tile, &status);
    if (bitpix < 0) fits_set_quantize_level(packed, packing == GZIP_1 ? 0 : 16, &status);
    fits_img_compress(plain, packed, &status);
    if (sums) fits_write_chksum(packed, &status);
    fits_close_file(packed, &status);
  }
  fits_close_file(plain, &status);
  fuzz::Expect(status == 0, "a FITS file: " + path.string());
}

void WriteAllFits(const fs::path& folder) {
  for (const int bitpix : {BYTE_IMG, SHORT_IMG, USHORT_IMG, LONG_IMG, LONGLONG_IMG, FLOAT_IMG, DOUBLE_IMG}) {
    for (const int packing : {0, RICE_1, GZIP_1, GZIP_2, PLIO_1, HCOMPRESS_1}) {
      if (packing && (bitpix == LONGLONG_IMG || (packing == PLIO_1 && bitpix != SHORT_IMG))) continue;
      for (const bool sums : {false, true}) {
        if (sums && packing != RICE_1) continue;
        WriteFits(folder / fmt::format("{}-{}-{:d}", bitpix, packing, sums), bitpix,
                  bitpix == SHORT_IMG ? 3 : 1, packing, sums);
      }
    }
  }
  for (const char* name : {"20-0-0", "-32-11-0"}) {
    const std::string bytes = ReadText(folder / name);
    gzFile file = gzopen((folder / name).concat(".gz").c_str(), "wb9");
    gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
    gzclose(file);
  }
}

void WriteTiff(const fs::path& path, int bits, int samples, int compression, bool tiled, bool apart) {
  TIFF* tiff = TIFFOpen(path.c_str(), apart ? "w8b" : "w");
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kWidth);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kHeight);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, bits == 32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISWHITE);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, apart ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
  std::vector<unsigned char> data(16 * 16 * 4 * 4);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<unsigned char>(Value(static_cast<int>(i)));
  }
  const int channels = apart ? samples : 1;
  if (tiled) {
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
    for (int c = 0; c < channels; ++c) {
      TIFFWriteTile(tiff, data.data(), 0, 0, 0, static_cast<std::uint16_t>(c));
    }
  } else {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 4);
    for (int c = 0; c < channels; ++c) {
      for (std::uint32_t y = 0; y < kHeight; ++y) {
        TIFFWriteScanline(tiff, data.data() + y, y, static_cast<std::uint16_t>(c));
      }
    }
  }
  TIFFClose(tiff);
}

void WriteAllTiff(const fs::path& folder) {
  int number = 0;
  for (const int compression :
       {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE, COMPRESSION_PACKBITS}) {
    for (const int bits : {8, 16, 32}) {
      for (const int kind : {0, 1, 2, 3}) {
        WriteTiff(folder / std::to_string(number++), bits, kind > 1 ? 3 : 1, compression,
                  kind == 1 || kind == 3, kind == 2);
      }
    }
  }
}

void WriteAllPng(const fs::path& folder) {
  int number = 0;
  for (const int colour :
       {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_PALETTE, PNG_COLOR_TYPE_RGB_ALPHA}) {
    for (const int bits : {1, 8, 16}) {
      for (const int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
        const bool wide = bits == 16, palette = colour == PNG_COLOR_TYPE_PALETTE,
                   many = colour & PNG_COLOR_MASK_COLOR;
        if ((bits == 1 && many && !palette) || (wide && palette)) continue;
        std::FILE* file = std::fopen((folder / std::to_string(number++)).c_str(), "wb");
        png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        png_init_io(png, file);
        png_set_IHDR(png, info, kWidth, kHeight, bits, colour, interlace, PNG_COMPRESSION_TYPE_DEFAULT,
                     PNG_FILTER_TYPE_DEFAULT);
        const png_color colours[2] = {{1, 2, 3}, {200, 100, 50}};
        if (palette) png_set_PLTE(png, info, colours, 2);
        png_write_info(png, info);
        std::array<png_byte, kWidth * 8> row{};
        for (std::size_t x = 0; x < row.size() && !palette; ++x) {
          row[x] = static_cast<png_byte>(Value(static_cast<int>(x)));
        }
        std::array<png_bytep, kHeight> rows;
        rows.fill(row.data());
        png_write_image(png, rows.data());
        png_write_end(png, info);
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
      }
    }
  }
}

void WriteAllRaw(const fs::path& folder) {
  test::Dng dng{.width = 10, .height = 8, .black = {60, 61, 62, 63}, .neutral = {0.5, 1, 0.6}};
  for (int i = 0; i < dng.width * dng.height; ++i) {
    dng.pixels.push_back(static_cast<std::uint16_t>(64 + 60 * Value(i)));
  }
  for (const char* maker : {"Canon", "NIKON CORPORATION"}) {
    dng.maker = maker;
    for (const bool compressed : {false, true}) {
      dng.compressed = compressed;
      test::WriteDng(folder / fmt::format("{:.5}-{:d}", dng.maker, compressed), dng);
    }
  }
}

/// A recipe for each operation, with a value for each of its parameters.
void WriteRecipes(const fs::path& folder, const fs::path& dictionary) {
  std::string words = "\"then\"\n";
  const char* options[] = {"",
                           "c",
                           "b",
                           "c2,3,20,15",
                           "1,0,24,17",
                           "cm",
                           "cmM\n",
                           "s\n2 2\n20 3\n11.5 14\n",
                           "csSi\n-1 -1\n30 0\n24 17 # edge\n",
                           "p",
                           "t"};
  std::size_t number = 0;
  for (const session::Operation& operation : session::Operations()) {
    words += fmt::format("\"{}\"\n", operation.name);
    std::string recipe = operation.name;
    for (const session::Parameter& p : operation.parameters) {
      words += fmt::format("\"{}=\"\n", p.name);
      std::string value = p.defaultValue ? session::TextOf(*p.defaultValue) : "";
      if (p.kind == session::ParameterKind::Image) value = "gray.fits";
      if (p.kind == session::ParameterKind::Rect) value = "3,2,20,14";
      if (p.kind == session::ParameterKind::Points) value = "0:0,0.3:0.5,1:1";
      if (p.kind == session::ParameterKind::PerPlane && value.empty()) value = "150,100,200";
      if (value.empty()) value = "7";
      for (const std::string& choice : p.choices) {
        words += fmt::format("\"{}\"\n", choice);
      }
      recipe += fmt::format(" {}={}", p.name, value);
    }
    WriteText(folder / operation.name, fmt::format("{}\n{}", recipe, options[number++ % std::size(options)]));
  }
  WriteText(dictionary, words);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fmt::print(stderr, "fuzz_seeds FOLDER\n");
    return 2;
  }
  const fs::path root = argv[1];
  const auto at = [&](const char* target) {
    fs::create_directories(root / target);
    return root / target;
  };
  WriteAllFits(at("fits"));
  WriteAllTiff(at("tiff"));
  WriteAllPng(at("png"));
  WriteAllRaw(at("raw"));
  WriteRecipes(at("apply"), root / "apply.dict");
  const std::string wcs =
      "CRPIX1  =                 20.5\nCRPIX2  =                 15.5\nCD1_1   =             -2.8E-04\n"
      "CD1_2   =              1.0D-05\nCD2_1   =              1.0E-05\nCD2_2   =              2.8E-04\n"
      "CTYPE1  = 'RA---TAN-SIP'\nCTYPE2  = 'DEC--TAN-SIP'\nA_ORDER =                    2\n"
      "A_2_0   =               1.0E-6\nB_ORDER =                    2\nB_0_2   =               1.0E-6\n"
      "XPIXSZ  =                 3.76\nXORGSUBF=                    4\n";
  WriteText(at("header") / "world", wcs);
  WriteText(at("header") / "mosaic",
            "BAYERPAT= 'RGGB    '\nXBAYROFF=                    1\nROWORDER= 'BOTTOM-UP'\nEXPTIME =          "
            "       30.\n"
            "OBJECT  = 'M 42, the nebula in Ori&'\nCONTINUE  'on''s sword' / and more\nHIERARCH ESO DET DIT "
            "= 30.5\n"
            "INSTRUME= 'Canon EOS 6D'\nCDELT1  = -0.001\nCROTA2  = 12.5\nPC1_1   = 0.9\nHISTORY "
            "made\nCOMMENT by hand\n");
  WriteText(at("transforms") / "two",
            "{\"file\":\"a.fits\",\"status\":\"ok\",\"dx\":1.5,\"dy\":-2,\"degrees\":0.25,\"fwhm\":3.1}\n"
            "{\"file\":\"b.fits\",\"status\":\"no match\",\"dx\":null}\n\n{\"stars\":12}\n");
  WriteText(at("settings") / "some",
            "; settings\n[Psf]\nMax = 64\n# more\n[Dialog\\AutoStretch]\nCount=12\nWidth = 1.5e3\n[Open\n");
  WriteText(at("journal") / "bands", std::string("\0\x1b\0", 3));
  WriteText(at("journal") / "damaged", std::string("\1\x00\x05\0\x90\x07", 6));
  WriteText(at("journal") / "made-up",
            std::string("\2\0\0", 3) + "korimg stack: finished bands, for --resume\ndigest\n");
  const float pixels[] = {0, 1, 5, 1e19f, 3, 1e38f, -1e30f, 0.25f, 100, 2};
  const std::string bytes(reinterpret_cast<const char*>(pixels), sizeof pixels);
  WriteText(at("stars") / "flat", std::string("\x09\x09\0\2", 4) + bytes);
  WriteText(at("stars") / "repeated", std::string("\x40\x30\1\1", 4) + bytes);
  WriteText(at("stars") / "mosaic", std::string("\x20\x21\0\xc", 4) + bytes);
  return 0;
}
