// FITS files. CFITSIO reads headers and tile-compressed pixels; plain pixels are read and converted here,
// which is several times faster than its general conversion.
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <type_traits>

#include <fcntl.h>
#include <fitsio.h>
#include <fmt/format.h>
#include <unistd.h>
#include <zlib.h>

#include "app/files/Formats.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// CFITSIO keeps one stack of error messages for all threads: its calls take turns.
std::recursive_mutex g_cfitsio;

constexpr std::size_t kChunk = 32768;  // pixels that are read and converted at a time: they stay in the cache

/// The status of CFITSIO and the messages it left, as one text. The stack is empty afterwards.
std::string CfitsioText(int status) {
  char text[FLEN_ERRMSG];
  fits_get_errstatus(status, text);
  std::string all = text;
  while (fits_read_errmsg(text) != 0)
    all += std::string("; ") + text;
  return all;
}

struct CloseFits {
  void operator()(fitsfile* file) const {
    const std::lock_guard lock(g_cfitsio);
    int status = 0;
    fits_close_file(file, &status);
  }
};

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](unsigned char x, unsigned char y) { return std::toupper(x) == std::toupper(y); });
}

/// A new empty file for temporary data, named like korimg-XXXXXX.
fs::path NewTemporary(const fs::path& shown) {
  std::string name = (fs::temp_directory_path() / "korimg-XXXXXX").string();
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) ThrowSystemError(shown, "unpack it: no temporary file " + name, errno);
  close(descriptor);
  return name;
}

/// Unpacks a file made by gzip.
void Unpack(const fs::path& packed, const File& target) {
  const std::unique_ptr<gzFile_s, int (*)(gzFile)> in(gzopen(packed.c_str(), "rb"), gzclose);
  if (!in) ThrowSystemError(packed, "open the file", errno);
  std::vector<char> buffer(1 << 18);
  for (std::uint64_t offset = 0;;) {
    const int n = gzread(in.get(), buffer.data(), static_cast<unsigned>(buffer.size()));
    int error = Z_OK;
    const char* text = gzerror(in.get(), &error);
    if (n < 0 || error != Z_OK) throw FileError(packed, fmt::format("damaged gzip file: {}", text));
    if (offset == 0 && (n < 6 || std::memcmp(buffer.data(), "SIMPLE", 6) != 0)) {
      throw FileError(packed, "the gzip file holds no FITS file; only FITS files may be packed");
    }
    if (n == 0) return;
    target.Write(buffer.data(), static_cast<std::size_t>(n), offset);
    offset += static_cast<std::uint64_t>(n);
  }
}

template <typename T>
T FromFile(const unsigned char* raw) {
  using Bits = std::conditional_t<
      sizeof(T) == 1, std::uint8_t,
      std::conditional_t<sizeof(T) == 2, std::uint16_t,
                         std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;
  Bits bits;
  std::memcpy(&bits, raw, sizeof bits);
  return std::bit_cast<T>(BigEndian(bits));
}

/// How stored values become physical ones.
struct Scaling {
  double scale = 1, zero = 0;
  std::optional<std::int64_t> blank;
};

template <typename T>
void Convert(const unsigned char* raw, std::size_t n, const Scaling& by, float* out) {
  const bool smallShift = std::floor(by.zero) == by.zero && std::abs(by.zero) < 1 << 22;
  if (by.scale == 1 && (sizeof(T) <= 2 ? smallShift : std::is_same_v<T, float> && by.zero == 0)) {
    const auto zero = static_cast<float>(by.zero);  // every sum is exact
    for (std::size_t i = 0; i < n; ++i)
      out[i] = static_cast<float>(FromFile<T>(raw + i * sizeof(T))) + zero;
  } else {
    for (std::size_t i = 0; i < n; ++i) {
      out[i] = static_cast<float>(by.zero + by.scale * static_cast<double>(FromFile<T>(raw + i * sizeof(T))));
    }
  }
  if constexpr (std::is_integral_v<T>) {
    for (std::size_t i = 0; by.blank && i < n; ++i) {
      if (FromFile<T>(raw + i * sizeof(T)) == *by.blank) out[i] = std::numeric_limits<float>::quiet_NaN();
    }
  }
}

/// Floats without scaling are read to where they belong, and turned there.
void SwapInPlace(float* values, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i)
    values[i] = std::bit_cast<float>(BigEndian(std::bit_cast<std::uint32_t>(values[i])));
}

class FitsReader : public ImageReader {
 public:
  FitsReader(const fs::path& path, const ReadOptions& options) {
    info_.path = path;
    info_.format = "FITS";
    file_ = std::make_unique<File>(path, O_RDONLY, path);
    std::unique_ptr<TransientFile>
        unpacked;  // its name is gone at the end of this, its content when it is closed
    char start[2] = {};
    file_->Read(start, 2, 0);
    if (std::memcmp(start, "\x1f\x8b", 2) == 0) {
      unpacked = std::make_unique<TransientFile>(NewTemporary(path));
      file_ = std::make_unique<File>(unpacked->Path(), O_RDWR, path);
      Unpack(path, *file_);
    }
    // An absolute name, lest CFITSIO takes a leading '~' or '-' for something special.
    OpenHeader(unpacked ? unpacked->Path() : fs::absolute(path), options);
  }

 protected:
  void Read(int y0, int rows, float* const* planes) override {
    const std::size_t count = static_cast<std::size_t>(rows) * static_cast<std::size_t>(info_.width);
    for (int p = 0; p < info_.planes; ++p) {
      const std::uint64_t first = (static_cast<std::uint64_t>(p) * static_cast<std::uint64_t>(info_.height) +
                                   static_cast<std::uint64_t>(y0)) *
                                  static_cast<std::uint64_t>(info_.width);
      if (compressed_) {
        ReadCompressed(first, count, planes[p]);
      } else {
        ReadPlain(first, count, planes[p]);
      }
    }
  }

 private:
  [[noreturn]] void Fail(const std::string& text) const { throw FileError(info_.path, text); }

  void Check(int status, std::string_view doing) const {
    if (status != 0) Fail(fmt::format("cannot {}: {}", doing, CfitsioText(status)));
  }

  void OpenHeader(const fs::path& name, const ReadOptions& options) {
    const std::lock_guard lock(g_cfitsio);
    fits_clear_errmsg();
    int status = 0;
    fitsfile* opened = nullptr;
    fits_open_diskfile(&opened, name.c_str(), READONLY, &status);
    std::unique_ptr<fitsfile, CloseFits> fits(opened);
    Check(status, "read the FITS header");

    const bool compressed = SelectHdu(fits.get(), options);
    ReadCards(fits.get());
    ReadGeometry(fits.get(), compressed);
    if (compressed) compressed_ = std::move(fits);
  }

  /// Goes to the wanted HDU, and tells if its image is tile-compressed.
  bool SelectHdu(fitsfile* fits, const ReadOptions& options) {
    int wanted = -1;
    const char* end = options.hdu.data() + options.hdu.size();
    const auto [last, error] = std::from_chars(options.hdu.data(), end, wanted);
    if (error != std::errc() || last != end) wanted = -1;
    for (int hdu = 0;; ++hdu) {
      int status = 0, type = 0, naxis = 0;
      if (fits_movabs_hdu(fits, hdu + 1, &type, &status) == END_OF_FILE) {
        fits_clear_errmsg();
        if (options.hdu.empty()) Fail(fmt::format("no image in any of its {} header-data units", hdu));
        Fail(fmt::format("no header-data unit '{}' among its {} (numbered from 0)", options.hdu, hdu));
      }
      Check(status, fmt::format("read the header of HDU {}", hdu));
      const bool compressed = type != IMAGE_HDU && fits_is_compressed_image(fits, &status) != 0;
      const bool image = type == IMAGE_HDU || compressed;
      char name[FLEN_VALUE] = "";
      int absent = 0;
      fits_read_key(fits, TSTRING, "EXTNAME", name, nullptr, &absent);
      fits_clear_errmsg();
      std::array<LONGLONG, kMaxAxes> axes{};
      if (image) ReadAxes(fits, naxis, axes);
      const bool pixels = image && naxis > 0 &&
                          std::all_of(axes.begin(), axes.begin() + naxis, [](LONGLONG n) { return n != 0; });
      if (options.hdu.empty() ? pixels : hdu == wanted || (wanted < 0 && SameName(name, options.hdu))) {
        if (!pixels)
          Fail(fmt::format("HDU {} is {}; name one that holds an image", hdu, image ? "empty" : "a table"));
        info_.hdu = hdu;
        info_.hduName = absent == 0 ? name : "";
        return compressed;
      }
    }
  }

  static constexpr int kMaxAxes = 16;

  int ReadAxes(fitsfile* fits, int& naxis, std::array<LONGLONG, kMaxAxes>& axes) {
    int bitpix = 0, status = 0;
    fits_get_img_paramll(fits, kMaxAxes, &bitpix, &naxis, axes.data(), &status);
    Check(status, "read the size of the image");
    if (naxis > kMaxAxes) Fail(fmt::format("an image of {} axes is not supported; 2 or 3 are", naxis));
    return bitpix;
  }

  void ReadCards(fitsfile* fits) {
    int status = 0, count = 0;
    fits_get_hdrspace(fits, &count, nullptr, &status);
    for (int i = 1; i <= count && status == 0; ++i) {
      char card[FLEN_CARD];
      fits_read_record(fits, i, card, &status);
      std::string text = card;
      text.resize(80, ' ');
      info_.header.cards.push_back(std::move(text));
    }
    Check(status, "read the header cards");
  }

  void ReadGeometry(fitsfile* fits, bool compressed) {
    int naxis = 0;
    std::array<LONGLONG, kMaxAxes> axes{};
    const int bitpix = ReadAxes(fits, naxis, axes);
    if (naxis < 2)
      Fail(
          fmt::format("HDU {} has one axis of {} pixels; images of two axes are needed", info_.hdu, axes[0]));
    CheckSides(info_.path, axes[0], axes[1]);
    info_.width = static_cast<int>(axes[0]);
    info_.height = static_cast<int>(axes[1]);
    for (int i = 2; i < naxis; ++i) {
      if (axes[i] == 1 || (i == 2 && axes[i] == 3)) continue;
      Fail(fmt::format("HDU {} has NAXIS{} = {}; images of 1 or 3 planes are supported", info_.hdu, i + 1,
                       axes[i]));
    }
    info_.planes = naxis > 2 ? static_cast<int>(axes[2]) : 1;

    const Header& header = info_.header;
    info_.bscale = by_.scale = header.GetDouble("BSCALE").value_or(1);
    info_.bzero = by_.zero = header.GetDouble("BZERO").value_or(0);
    by_.blank = header.GetInt("BLANK");
    bitpix_ = bitpix;
    const auto unsignedAs = [&](const char* yes, const char* no, double zero) {
      return by_.scale == 1 && by_.zero == zero ? yes : no;
    };
    info_.type = bitpix == 8     ? "uint8"
                 : bitpix == 16  ? unsignedAs("uint16", "int16", 32768)
                 : bitpix == 32  ? unsignedAs("uint32", "int32", 2147483648.0)
                 : bitpix == 64  ? "int64"
                 : bitpix == -32 ? "float32"
                                 : "float64";

    LONGLONG start = 0;
    int status = 0;
    fits_get_hduaddrll(fits, nullptr, &start, nullptr, &status);
    Check(status, "find the pixels");
    start_ = static_cast<std::uint64_t>(start);
    const double bytes =
        compressed ? CompressedBytes()
                   : static_cast<double>(info_.width) * info_.height * info_.planes * (std::abs(bitpix) / 8);
    const double held = std::max(0.0, static_cast<double>(file_->Size()) - static_cast<double>(start));
    if (bytes > held) {
      Fail(fmt::format(
          "truncated: {} x {} x {} {} pixels take {:.0f} bytes, the file holds {:.0f}; get the file again",
          info_.width, info_.height, info_.planes, info_.type, bytes, held));
    }
    if (compressed) DropTableCards();
  }

  /// Bytes of the table that holds the tiles, after a check that the tiles cover the image and are of a sane
  /// size.
  double CompressedBytes() {
    constexpr double kLargestTile = 1 << 28;
    double tiles = 1, pixels = 1;
    const std::array<int, 3> sides = {info_.width, info_.height, info_.planes};
    for (int i = 0; i < 3; ++i) {
      const std::int64_t side = sides[static_cast<std::size_t>(i)];
      const std::int64_t tile =
          info_.header.GetInt(fmt::format("ZTILE{}", i + 1)).value_or(i == 0 ? side : 1);
      if (tile < 1) Fail(fmt::format("damaged: ZTILE{} = {}", i + 1, tile));
      tiles *= std::ceil(static_cast<double>(side) / static_cast<double>(tile));
      pixels *= static_cast<double>(std::min(side, tile));
    }
    const auto number = [&](const char* key) { return info_.header.GetDouble(key).value_or(0); };
    if (number("NAXIS2") != tiles) {
      Fail(fmt::format("damaged: {:.0f} compressed tiles where {:.0f} make the image", number("NAXIS2"),
                       tiles));
    }
    if (pixels > kLargestTile) {
      Fail(fmt::format("compressed in tiles of {:.0f} pixels; up to {:.0f} are supported", pixels,
                       kLargestTile));
    }
    return number("NAXIS1") * tiles + number("PCOUNT");
  }

  /// What describes the table around a compressed image says nothing of the image.
  void DropTableCards() {
    std::erase_if(info_.header.cards, [](const std::string& card) {
      constexpr std::array kColumn = {"TTYPE", "TFORM", "TUNIT", "TSCAL", "TZERO", "TNULL", "TDIM", "TDISP"};
      const std::string_view name(card.data(), std::min<std::size_t>(card.find(' '), 8));
      if (name == "TFIELDS" || name == "THEAP" || card.starts_with("EXTNAME = 'COMPRESSED_IMAGE'"))
        return true;
      return std::any_of(kColumn.begin(), kColumn.end(), [&](std::string_view stem) {
        return name.starts_with(stem) && name.size() > stem.size() &&
               name.find_first_not_of("0123456789", stem.size()) == name.npos;
      });
    });
  }

  void ReadPlain(std::uint64_t first, std::size_t count, float* out) {
    const auto size = static_cast<std::size_t>(std::abs(bitpix_) / 8);
    const bool direct = bitpix_ == -32 && by_.scale == 1 && by_.zero == 0;
    if (!direct) buffer_.resize(kChunk * size);
    for (std::size_t done = 0; done < count;) {
      const std::size_t n = std::min(kChunk, count - done);
      void* raw = direct ? static_cast<void*>(out + done) : buffer_.data();
      if (file_->Read(raw, n * size, start_ + (first + done) * size) != n * size) {
        Fail("truncated while it was read; get the file again");
      }
      switch (bitpix_) {
        case 8:
          Convert<std::uint8_t>(buffer_.data(), n, by_, out + done);
          break;
        case 16:
          Convert<std::int16_t>(buffer_.data(), n, by_, out + done);
          break;
        case 32:
          Convert<std::int32_t>(buffer_.data(), n, by_, out + done);
          break;
        case 64:
          Convert<std::int64_t>(buffer_.data(), n, by_, out + done);
          break;
        case -32:
          direct ? SwapInPlace(out + done, n) : Convert<float>(buffer_.data(), n, by_, out + done);
          break;
        default:
          Convert<double>(buffer_.data(), n, by_, out + done);
          break;
      }
      done += n;
    }
  }

  void ReadCompressed(std::uint64_t first, std::size_t count, float* out) {
    const std::lock_guard lock(g_cfitsio);
    fits_clear_errmsg();
    float blank = std::numeric_limits<float>::quiet_NaN();
    int status = 0;
    fits_read_img(compressed_.get(), TFLOAT, static_cast<LONGLONG>(first) + 1, static_cast<LONGLONG>(count),
                  &blank, out, nullptr, &status);
    Check(status, "unpack the pixels");
  }

  std::unique_ptr<File> file_;
  std::unique_ptr<fitsfile, CloseFits> compressed_;  // open only for tile-compressed images
  std::uint64_t start_ = 0;                          // of the pixels in the file
  int bitpix_ = 0;
  Scaling by_;
  std::vector<unsigned char> buffer_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenFits(const fs::path& path, const ReadOptions& options) {
  return std::make_unique<FitsReader>(path, options);
}

}  // namespace korimg::files
