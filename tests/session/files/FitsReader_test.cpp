// FITS files of other makers: encodings that the writer never makes, and broken ones.
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstring>
#include <thread>

#include <fitsio.h>
#include <sys/resource.h>
#include <zlib.h>

#include "tests/support/Folder.h"

namespace korimg::files {
namespace {

namespace fs = std::filesystem;

constexpr int kWidth = 45, kHeight = 34;

/// A header made of cards, END included, in whole blocks.
std::string Block(const std::vector<std::string>& cards) {
  std::string text;
  for (std::string card : cards) {
    card.resize(80, ' ');
    text += card;
  }
  text.resize((text.size() + 2879) / 2880 * 2880, ' ');
  return text;
}

std::string Image(const std::string& bitpix, const std::string& naxis, const std::vector<std::string>& more) {
  std::vector<std::string> cards = {"SIMPLE  =                    T",
                                    "BITPIX  = " + std::string(20 - bitpix.size(), ' ') + bitpix,
                                    "NAXIS   = " + std::string(20 - naxis.size(), ' ') + naxis};
  for (std::size_t i = 0; i < more.size(); ++i) {
    cards.push_back("NAXIS" + std::to_string(i + 1) + "  = " +
                    std::string(20 - std::min<std::size_t>(20, more[i].size()), ' ') + more[i]);
  }
  cards.push_back("END");
  return Block(cards);
}

std::string Gzip(const std::string& text) {
  std::string packed(text.size() + 1000, '\0');
  z_stream stream = {};
  deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

class FitsReader : public FolderTest {
 protected:
  /// Opens and reads all; the text of the FileError, which must be one line that begins with the path.
  static std::string ErrorOfReading(const fs::path& path, const std::string& hdu = "") {
    const std::string error = ErrorOf([&] { ReadAll(*ImageReader::Open(path, {.hdu = hdu}), 16); });
    if (!error.empty()) {
      EXPECT_EQ(error.find('\n'), std::string::npos) << error;
      EXPECT_TRUE(error.starts_with(path.string() + ": ")) << error;
    }
    return error;
  }

  /// Writes an image with CFITSIO, packed in tiles if `packing` is not 0; `finish` may add to the header.
  template <typename Finish>
  fs::path Make(int bitpix, int planes, int packing, Finish finish) {
    int status = 0;
    fitsfile *plain = nullptr, *packed = nullptr;
    fs::remove(In("plain"));
    fs::remove(In("packed"));
    fits_create_diskfile(&plain, In("plain").c_str(), &status);
    long axes[3] = {kWidth, kHeight, planes};
    fits_create_img(plain, bitpix, planes == 1 ? 2 : 3, axes, &status);
    finish(plain, &status);
    std::vector<double> values(static_cast<std::size_t>(kWidth) * kHeight * planes);
    for (std::size_t i = 0; i < values.size(); ++i)
      values[i] = Value(i);
    fits_write_img(plain, TDOUBLE, 1, static_cast<LONGLONG>(values.size()), values.data(), &status);
    if (packing != 0) {
      fits_create_diskfile(&packed, In("packed").c_str(), &status);
      long tile[3] = {20, 16, 1};
      fits_set_compression_type(packed, packing, &status);
      fits_set_tile_dim(packed, 3, tile, &status);
      if (bitpix < 0) fits_set_quantize_level(packed, packing == GZIP_1 ? 0 : 16, &status);
      fits_img_compress(plain, packed, &status);
      fits_write_chksum(packed, &status);
      fits_close_file(packed, &status);
    }
    fits_close_file(plain, &status);
    EXPECT_EQ(status, 0) << bitpix << ' ' << packing;
    return In(packing != 0 ? "packed" : "plain");
  }

  static double Value(std::size_t i) { return static_cast<double>((i * 37) % 127); }  // fits signed bytes
};

void Nothing(fitsfile*, int*) {}

TEST_F(FitsReader, ReadsEveryEncoding) {
  const struct {
    int bitpix;
    const char* type;
  } types[] = {{BYTE_IMG, "uint8"},     {SBYTE_IMG, "int8"},       {SHORT_IMG, "int16"},
               {USHORT_IMG, "uint16"},  {LONG_IMG, "int32"},       {ULONG_IMG, "uint32"},
               {LONGLONG_IMG, "int64"}, {ULONGLONG_IMG, "uint64"}, {FLOAT_IMG, "float32"},
               {DOUBLE_IMG, "float64"}};
  const int packings[] = {0, RICE_1, GZIP_1, GZIP_2, PLIO_1, HCOMPRESS_1};
  int tried = 0;
  for (const auto& [bitpix, type] : types) {
    for (const int packing : packings) {
      const bool wide = bitpix == LONGLONG_IMG || bitpix == ULONGLONG_IMG;
      if (packing != 0 && (wide || (packing == PLIO_1 && bitpix != SHORT_IMG))) continue;
      for (const int planes : {1, 3}) {
        for (const bool gzip : {false, true}) {
          const std::string what =
              std::string(type) + " packing " + std::to_string(packing) + " planes " + std::to_string(planes);
          fs::path path = Make(bitpix, planes, packing, Nothing);
          if (gzip) {
            WriteBytes(In("image.gz"), Gzip(ReadBytes(path)));
            path = In("image.gz");
          }
          const auto reader = ImageReader::Open(path);
          EXPECT_EQ(reader->Info().type, type) << what;
          EXPECT_EQ(reader->Info().planes, planes) << what;
          EXPECT_EQ(reader->Info().hdu, packing == 0 ? 0 : 1) << what;
          // Packed floats are quantised to a fraction of the noise; everything else is exact.
          const double tolerance = packing != 0 && packing != GZIP_1 && bitpix < 0 ? 40 : 0;
          const Planes got = ReadAll(*reader, 7, gzip);
          for (std::size_t p = 0; p < got.size(); ++p) {
            for (std::size_t i = 0; i < got[p].size(); ++i) {
              ASSERT_NEAR(got[p][i], Value(p * got[p].size() + i), tolerance) << what << " pixel " << i;
            }
          }
          EXPECT_FALSE(Header{reader->Info().header.CardsForOutput()}.GetString("ZCMPTYPE")) << what;
          EXPECT_FALSE(Header{reader->Info().header.CardsForOutput()}.GetString("TFORM1")) << what;
          ++tried;
        }
      }
    }
  }
  EXPECT_EQ(tried, 172);
}

TEST_F(FitsReader, ScalesAndBlanks) {
  for (const bool packed : {false, true}) {
    for (const int bitpix : {BYTE_IMG, SHORT_IMG, LONG_IMG}) {
      const fs::path path = Make(bitpix, 1, packed ? RICE_1 : 0, [](fitsfile* file, int* status) {
        double scale = 0.25, zero = -10;
        int blank = 7;
        fits_update_key(file, TDOUBLE, "BSCALE", &scale, nullptr, status);
        fits_update_key(file, TDOUBLE, "BZERO", &zero, nullptr, status);
        fits_update_key(file, TINT, "BLANK", &blank, nullptr, status);
        fits_set_bscale(file, 1, 0, status);  // what follows are stored values
      });
      const auto reader = ImageReader::Open(path);
      EXPECT_EQ(reader->Info().bscale, 0.25);
      EXPECT_EQ(reader->Info().bzero, -10);
      const Planes got = ReadAll(*reader, 10);
      int blanks = 0;
      for (std::size_t i = 0; i < got[0].size(); ++i) {
        if (Value(i) == 7) {
          ++blanks;
          ASSERT_TRUE(std::isnan(got[0][i])) << i;
        } else {
          ASSERT_EQ(got[0][i], Value(i) * 0.25 - 10) << i;
        }
      }
      EXPECT_GT(blanks, 0);
    }
  }
}

TEST_F(FitsReader, ChoosesTheImage) {
  int status = 0;
  fitsfile* file = nullptr;
  fits_create_diskfile(&file, In("many.fits").c_str(), &status);
  long axes[2] = {0, 0};
  fits_create_img(file, SHORT_IMG, 0, axes, &status);
  char column[] = "A", form[] = "J";
  char *columns[] = {column}, *forms[] = {form};
  fits_create_tbl(file, BINARY_TBL, 3, 1, columns, forms, nullptr, "LIST", &status);
  for (const char* name : {"SCI", "ERR"}) {
    axes[0] = axes[1] = name[0] == 'S' ? 5 : 6;
    fits_create_img(file, FLOAT_IMG, 2, axes, &status);
    fits_write_key(file, TSTRING, "EXTNAME", const_cast<char*>(name), nullptr, &status);
  }
  fits_close_file(file, &status);
  ASSERT_EQ(status, 0);
  const struct {
    const char* hdu;
    int width;  // 0: an error that says
    const char* says;
  } cases[] = {{"", 5, "SCI"},        {"2", 5, "SCI"},        {"3", 6, "ERR"},        {"err", 6, "ERR"},
               {"0", 0, "is empty"},  {"1", 0, "is a table"}, {"LIST", 0, "a table"}, {"4", 0, "among its 4"},
               {"NONE", 0, "'NONE'"}, {"-1", 0, "'-1'"}};
  for (const auto& [hdu, width, says] : cases) {
    if (width == 0) {
      const std::string error = ErrorOfReading(In("many.fits"), hdu);
      EXPECT_NE(error.find(says), std::string::npos) << hdu << ": " << error;
    } else {
      const auto reader = ImageReader::Open(In("many.fits"), {.hdu = hdu});
      EXPECT_EQ(reader->Info().width, width) << hdu;
      EXPECT_EQ(reader->Info().hduName, says) << hdu;
    }
  }
}

TEST_F(FitsReader, BrokenFilesGiveOneCleanLine) {
  const std::string good = Image("16", "2", {"100", "100"}) + std::string(20160, '\1');
  std::string noEnd = good.substr(0, 2880);
  noEnd.replace(noEnd.find("END  "), 3, "ENX");
  std::string table = Image("8", "0", {});
  table += Block({"XTENSION= 'BINTABLE'", "BITPIX  =                    8", "NAXIS   =                    2",
                  "NAXIS1  =                    4", "NAXIS2  =                    0",
                  "PCOUNT  =                    0", "GCOUNT  =                    1",
                  "TFIELDS =                    1", "TFORM1  = 'J'", "END"});
  const std::string packed = Gzip(good);
  const struct {
    const char* name;
    std::string bytes;
    const char* says;
  } cases[] = {
      {"empty", "", "empty"},
      {"one byte", "S", "neither"},
      {"text", "This is no image.\n", "neither"},
      {"only the magic word", "SIMPLE", "END"},
      {"other start", "SIMPLEX = 5" + std::string(4000, ' '), "END"},
      {"no END", noEnd, "END"},
      {"no END, zeros after", noEnd + std::string(28800, '\0'), "END"},
      {"half a header", good.substr(0, 200), "END"},
      {"header only", Image("16", "0", {}), "no image"},
      {"table only", table, "no image"},
      {"no pixels", good.substr(0, 2880), "truncated"},
      {"one byte short", good.substr(0, 2880 + 19999), "truncated"},
      {"giant", Image("16", "2", {"40000", "40000"}), "truncated"},
      {"giant of 64 bit", Image("-64", "3", {"1000000", "1000000", "3"}), "24000000000000 bytes"},
      {"beyond the limit", Image("8", "2", {"1000001", "1"}), "1000001 x 1"},
      {"overflow", Image("-64", "2", {"4294967296", "4294967296"}), "4294967296 x 4294967296"},
      {"overflow of 64 bit", Image("-64", "2", {"9223372036854775807", "9223372036854775807"}), "NAXIS1"},
      {"beyond 64 bit", Image("8", "2", {"99999999999999999999", "2"}), "NAXIS1"},
      {"negative NAXIS", Image("8", "-2", {"10", "10"}), "NAXIS"},
      {"negative side", Image("8", "2", {"-10", "10"}), "NAXIS1"},
      {"many axes", Image("8", "999", {"10", "10"}), "NAXIS3"},
      {"absurd NAXIS", Image("8", "999999999", {"10", "10"}), "NAXIS"},
      {"no NAXIS2", Image("8", "2", {"10"}), "NAXIS2"},
      {"side of words", Image("8", "2", {"'ten'", "10"}), "NAXIS1"},
      {"no SIMPLE", Block({"SIMPLEX = T", "END"}), "no SIMPLE"},
      {"odd BITPIX", Image("12", "2", {"10", "10"}), "BITPIX"},
      {"zero-sized", Image("8", "2", {"0", "10"}), "no image"},
      {"one axis", Image("8", "1", {"10"}) + std::string(2880, '\0'), "one axis of 10"},
      {"four planes", Image("8", "3", {"10", "10", "4"}) + std::string(2880, '\0'), "NAXIS3 = 4"},
      {"four axes", Image("8", "4", {"4", "4", "3", "2"}) + std::string(2880, '\0'), "NAXIS4 = 2"},
      {"gzip of text", Gzip("This is no image.\n"), "holds no FITS"},
      {"gzip of nothing", Gzip(""), "holds no FITS"},
      {"gzip of gzip", Gzip(packed), "holds no FITS"},
      {"start of a gzip", packed.substr(0, 12), "gzip"},
      {"half a gzip", packed.substr(0, packed.size() / 2), "gzip"},
      {"gzip without its end", packed.substr(0, packed.size() - 3), "gzip"},
      {"gzip and half another", packed + packed.substr(0, 40), "gzip"},
      {"gzip with damage", packed.substr(0, 60) + "damage" + packed.substr(66), "gzip"},
      {"gzip of a giant header", Gzip(Image("16", "2", {"40000", "40000"})), "truncated"},
      {"zip", "PK\3\4 and so on", "unpack"},
  };
  for (const auto& [name, bytes, says] : cases) {
    WriteBytes(In(name), bytes);
    const std::string error = ErrorOfReading(In(name));
    EXPECT_FALSE(error.empty()) << name;
    EXPECT_NE(error.find(says), std::string::npos) << name << ": " << error;
  }
  EXPECT_NE(ErrorOfReading(In("absent.fits")).find("No such file"), std::string::npos);
  EXPECT_NE(ErrorOfReading(folder_), "");
}

TEST_F(FitsReader, TrailingAxesAndMissingPaddingAreFine) {
  WriteBytes(In("a"), Image("8", "5", {"4", "2", "1", "1", "1"}) + "abcdefgh");
  EXPECT_EQ(ReadAll(*ImageReader::Open(In("a")), 2), (Planes{{97, 98, 99, 100, 101, 102, 103, 104}}));
  WriteBytes(In("b"), Image("8", "4", {"2", "1", "3", "1"}) + "abcdef");
  const Planes colour = {{97, 98}, {99, 100}, {101, 102}};
  EXPECT_EQ(ReadAll(*ImageReader::Open(In("b")), 1), colour);
  const std::string bytes = ReadBytes(In("b"));
  WriteBytes(In("c"), Gzip(bytes.substr(0, 2881)) + Gzip(bytes.substr(2881)) + std::string(100, '\0'));
  EXPECT_EQ(ReadAll(*ImageReader::Open(In("c")), 1), colour);
}

TEST_F(FitsReader, DamagedTilesAreErrorsOrPixels) {
  const fs::path path = Make(SHORT_IMG, 1, RICE_1, Nothing);
  const std::string good = ReadBytes(path);
  const auto replaced = [&](const char* from, const char* to) {
    std::string bytes = good;
    const std::size_t at = bytes.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return bytes.replace(at, std::strlen(from), to);
  };
  const struct {
    std::string bytes;
    const char* says;
  } cases[] = {
      {good.substr(0, 5760 + 100), "truncated"},
      {replaced("ZNAXIS1 =                   45", "ZNAXIS1 =              4500000"), "4500000 x 34"},
      {replaced("ZNAXIS2 =                   34", "ZNAXIS2 =                 3400"), "tiles"},
      {replaced("ZTILE2  =                   16", "ZTILE2  =                  -16"), ""},
      {replaced("RICE_1", "NICE_1"), ""},
      {replaced("ZVAL1   =                   32", "ZVAL1   =                    0"), "ZVAL1 = 0"},
      {replaced("ZBITPIX =                   16", "ZBITPIX =                   17"), "ZBITPIX = 17"},
  };
  for (const auto& [bytes, says] : cases) {
    WriteBytes(In("damaged.fits"), bytes);
    const std::string error = ErrorOfReading(In("damaged.fits"));
    EXPECT_FALSE(error.empty()) << says;
    EXPECT_NE(error.find(says), std::string::npos) << error;
  }
  // A flipped bit in the header may go unnoticed, but must not do more; in the pixels it is found.
  const std::size_t data = (good.find("END     ", 2880) / 2880 + 1) * 2880;
  for (std::size_t at = 2880; at < good.size(); at += 61) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
    WriteBytes(In("damaged.fits"), bytes);
    const std::string error = ErrorOfReading(In("damaged.fits"));
    if (at >= data) {
      EXPECT_NE(error.find("damaged"), std::string::npos) << "byte " << at << ": " << error;
    }
  }
}

TEST_F(FitsReader, UnpackingLeavesNoTemporaryFile) {
  const std::string packed = Gzip(Image("16", "2", {"300", "200"}) + std::string(120000, 1));
  WriteBytes(In("whole.gz"), packed);
  WriteBytes(In("half.gz"), packed.substr(0, packed.size() / 2));
  fs::create_directory(In("temporary"));
  const auto open = [&](const char* name, rlim_t largest) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{largest, largest};
    setrlimit(RLIMIT_FSIZE, &limit);
    setenv("TMPDIR", In("temporary").c_str(), 1);
    std::unique_ptr<ImageReader> reader;
    const std::string error = ErrorOf([&] { reader = ImageReader::Open(In(name)); });
    const bool right = reader && ReadAll(*reader, 64)[0][59999] == 257;
    std::fprintf(stderr, "%d, %d left, %s\n", right, !fs::is_empty(In("temporary")), error.c_str());
    setenv("TMPDIR", In("absent").c_str(), 1);
    std::fprintf(stderr, "%s\n", ErrorOf([&] { ImageReader::Open(In(name)); }).c_str());
    std::_Exit(0);
  };
  const auto done = testing::ExitedWithCode(0);
  EXPECT_EXIT(open("whole.gz", RLIM_INFINITY), done, "1, 0 left, \n.*TMPDIR names no folder");
  EXPECT_EXIT(open("half.gz", RLIM_INFINITY), done, "0, 0 left, .*damaged gzip");
  EXPECT_EXIT(open("whole.gz", 50000), done, "0, 0 left, .*no room in folder .*temporary: ");
}

TEST_F(FitsReader, ReadersWorkInParallel) {
  const std::string plain = ReadBytes(Make(SHORT_IMG, 3, 0, Nothing));
  WriteBytes(In("gzip"), Gzip(plain));
  Make(SHORT_IMG, 3, RICE_1, Nothing);
  const Planes wanted = ReadAll(*ImageReader::Open(In("plain")), kHeight);
  std::vector<std::thread> threads;
  std::atomic<int> good = 0;
  for (const char* name : {"plain", "gzip", "packed", "packed"}) {
    threads.emplace_back([&, name] {
      for (int i = 0; i < 20; ++i)
        good += ReadAll(*ImageReader::Open(In(name)), 5) == wanted;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(good, 80);
}

// A tile that says of itself to be much larger than it is: CFITSIO writes where nothing is.
TEST_F(FitsReader, TilesThatBreakTheirDecoderAreErrorsOfTheirFileOnly) {
  std::string bytes = ReadBytes(Make(SHORT_IMG, 1, HCOMPRESS_1, Nothing));
  const auto replace = [&](std::string_view from, std::string_view to) {
    const std::size_t at = bytes.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    bytes.replace(at, to.size(), to);
  };
  replace("DATASUM ", "DATASUX ");
  WriteBytes(In("unsummed"), bytes);
  replace("\xdd\x99", std::string_view("\xdd\x99\0\0\x20\0\0\0\x20\0", 10));
  WriteBytes(In("broken"), bytes);
  const Planes wanted = ReadAll(*ImageReader::Open(In("unsummed")), 5);
  const auto kept = ImageReader::Open(In("unsummed"));
  EXPECT_EQ(ReadAll(*kept, kHeight), wanted);
  std::vector<std::thread> threads;
  std::atomic<int> good = 0, broken = 0;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        good += ReadAll(*ImageReader::Open(In("unsummed")), 7) == wanted;
        broken += ErrorOfReading(In("broken")).find("broke down") != std::string::npos;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(good, 20);
  EXPECT_EQ(broken, 20);
  EXPECT_EQ(ReadAll(*kept, 3), wanted);
}

TEST_F(FitsReader, MoreFilesMayBeOpenThanHaveAProcess) {
  const fs::path path = Make(LONG_IMG, 1, RICE_1, Nothing);
  const Planes wanted = ReadAll(*ImageReader::Open(path), kHeight);
  std::vector<std::unique_ptr<ImageReader>> readers;
  for (int i = 0; i < 150; ++i) {
    readers.push_back(ImageReader::Open(path));
  }
  const auto readAll = [&](std::size_t first) {
    int good = 0;
    for (std::size_t i = first; i < readers.size(); i += 3)
      good += ReadAll(*readers[i], 17) == wanted;
    return good;
  };
  std::vector<std::thread> threads;
  std::atomic<int> good = 0;
  for (std::size_t t = 0; t < 3; ++t)
    threads.emplace_back([&, t] { good += readAll(t) + readAll(t); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(good, 300);
}

TEST_F(FitsReader, DecodersThatAreGoneAreStartedAnew) {
  const fs::path path = Make(SHORT_IMG, 1, RICE_1, Nothing);
  const Planes wanted = ReadAll(*ImageReader::Open(path), 5);
  for (int i = 0; i < 3; ++i) {
    int killed = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string status = ReadBytes(entry.path() / "status");
      if (status.starts_with("Name:\tkorimg-decoder") &&
          status.find("\nPPid:\t" + std::to_string(getpid()) + "\n") != std::string::npos) {
        killed += kill(std::stoi(entry.path().filename()), SIGKILL) == 0;
        // Its ends of connections are closed by then.
        while (ReadBytes(entry.path() / "status").find("State:\tZ") == std::string::npos)
          std::this_thread::yield();
      }
    }
    EXPECT_EQ(killed, 1);
    EXPECT_EQ(ReadAll(*ImageReader::Open(path), 5), wanted);
  }
}

TEST_F(FitsReader, RealFiles) {
  const fs::path frames = RealFrames();
  if (frames.empty()) GTEST_SKIP() << "KORIMG_TEST_DATA names no folder of real frames";
  int read = 0, refused = 0;
  for (const auto& entry : fs::recursive_directory_iterator(frames / "fits-encodings")) {
    if (!entry.is_regular_file()) continue;
    (ErrorOfReading(entry.path()).empty() ? read : refused)++;
  }
  EXPECT_GT(read, 40);
  EXPECT_GT(refused, 20);
  const struct {
    const char* name;
    const char* says;
  } broken[] = {{"bad-naxis.fits", "NAXIS"},         {"bomb-40000.fits", "1600000000 bytes"},
                {"broken_no_END.fits", "END"},       {"headeronly_FITS.fits", "END"},
                {"headeronly_XISF.xisf", "neither"}, {"seed.fits", "NAXIS3 = 32"}};
  for (const auto& [name, says] : broken) {
    const std::string error = ErrorOfReading(frames / "fits-encodings/broken" / name);
    EXPECT_NE(error.find(says), std::string::npos) << name << ": " << error;
  }
  // The same picture, packed and plain.
  for (const auto& [packed, plain] :
       {std::pair{"compressed/fpack.fits.fz", "compressed/funpack.fits"},
        std::pair{"compressed/pdl_m51.fits.fz", "compressed/pdl_m51.fits"},
        std::pair{"../dslr-bayer-pair/frame2_0814_wcs.fits.fz", "../dslr-bayer-pair/frame2_0814_wcs.fits"}}) {
    const auto a = ImageReader::Open(frames / "fits-encodings" / packed);
    const auto b = ImageReader::Open(frames / "fits-encodings" / plain);
    EXPECT_EQ(ReadAll(*a, 50, true), ReadAll(*b, 64)) << packed;
  }
}

}  // namespace
}  // namespace korimg::files
