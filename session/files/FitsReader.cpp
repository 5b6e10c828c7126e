// FITS files. Headers and plain pixels are read here: CFITSIO divides by zero and allocates absurd sizes on
// damaged headers, and its general conversion of pixels is several times slower. It unpacks tile-compressed
// pixels, in a process of its own: what damaged ones do to it cannot be told without unpacking them.
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <zlib.h>

#include "session/files/Geometry.h"
#include "session/files/internal/Decoder.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 32768;  // pixels that are read and converted at a time: they stay in the cache

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](unsigned char x, unsigned char y) { return std::toupper(x) == std::toupper(y); });
}

/// Unpacks a file made by gzip, of one or more members. The reading functions of zlib are of no use here:
/// they take some files that end too early for whole ones.
void Unpack(const fs::path& path, const File& source, const File& target) {
  z_stream stream = {};
  constexpr int kGzip = 15 + 16;
  if (inflateInit2(&stream, kGzip) != Z_OK) throw std::bad_alloc();
  const std::unique_ptr<z_stream, int (*)(z_stream*)> end(&stream, inflateEnd);
  std::vector<unsigned char> in(1 << 18), out(1 << 18);
  std::uint64_t taken = 0, given = 0;
  bool complete = false;
  for (;;) {
    if (stream.avail_in == 0) {
      stream.next_in = in.data();
      stream.avail_in = static_cast<uInt>(source.Read(in.data(), in.size(), taken));
      taken += stream.avail_in;
    }
    // Another member may follow; what else follows is padding.
    if (stream.avail_in == 0 || (complete && *stream.next_in != 0x1f)) break;
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = inflate(&stream, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END) {
      throw FileError(
          path, fmt::format("damaged gzip file: {}", stream.msg != nullptr ? stream.msg : "not readable"));
    }
    const std::size_t n = out.size() - stream.avail_out;
    if (given == 0 && (n < 6 || std::memcmp(out.data(), "SIMPLE", 6) != 0)) {
      throw FileError(path, "the gzip file holds no FITS file; only FITS files may be packed");
    }
    target.Write(out.data(), n, given);
    given += n;
    complete = result == Z_STREAM_END;
    if (complete) inflateReset(&stream);
  }
  if (!complete) ThrowIncomplete(path, "damaged gzip file: it ends too early");
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

constexpr double kUnsigned64 = 0x1p63;  // the BZERO of unsigned 64-bit integers

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
  } else if (std::is_same_v<T, std::int64_t> && by.scale == 1 && by.zero == kUnsigned64) {
    // Unsigned numbers, which a sum of doubles would round by a thousand.
    for (std::size_t i = 0; i < n; ++i)
      out[i] = static_cast<float>(FromFile<std::uint64_t>(raw + i * sizeof(T)) ^ (std::uint64_t{1} << 63));
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

/// What a tile-compressed image is unpacked by.
struct Tiles {
  double bytes = 0, pixels = 0;    // of the table; of the largest tile
  std::optional<Decoder> decoder;  // once pixels were asked for
  std::optional<File> unpacked;
};

class FitsReader : public ImageReader {
 public:
  FitsReader(const fs::path& path, const ReadOptions& options) : file_(path, O_RDONLY, path) {
    info_.path = path;
    info_.format = "FITS";
    char start[2] = {};
    file_.Read(start, 2, 0);
    if (std::memcmp(start, "\x1f\x8b", 2) == 0) {
      File unpacked = TemporaryFile(path);
      Unpack(path, file_, unpacked);
      file_ = std::move(unpacked);
    }
    const Hdu hdu = Select(options);
    Describe(hdu);
    if (hdu.compressed) {
      CheckSum();
      DropTableCards();
    }
    info_.header.turned =
        RowsRunUp(info_.header, false) && TurnRows(info_.header, {info_.width, info_.height, info_.planes});
  }

  std::unique_ptr<ImageReader> OpenExtension(const std::string& name) const override {
    if (info_.header.GetString("EXTEND") != "T") return nullptr;
    std::uint64_t offset = 0;
    for (int number = 0; offset < file_.Size(); ++number) {
      const std::optional<Hdu> hdu = ReadHdu(offset);
      if (!hdu) return nullptr;
      if (number > info_.hdu && SameName(hdu->header.GetString("EXTNAME").value_or(""), name)) {
        auto extension = std::make_unique<FitsReader>(info_.path, ReadOptions{.hdu = std::to_string(number)});
        const ImageInfo& own = extension->Info();
        if (own.width == info_.width && own.height == info_.height && own.planes == info_.planes)
          return extension;
        Fail(fmt::format("its extension {} is {} x {} x {}, but the image {} x {} x {}; write them anew",
                         name, own.width, own.height, own.planes, info_.width, info_.height, info_.planes));
      }
      offset = After(*hdu);
    }
    return nullptr;
  }

 protected:
  void Read(const Band<float>& to) override {
    for (int p = 0; p < info_.planes; ++p) {
      std::uint64_t first = (static_cast<std::uint64_t>(p) * static_cast<std::uint64_t>(info_.height) +
                             static_cast<std::uint64_t>(to.Top())) *
                            static_cast<std::uint64_t>(info_.width);
      if (tiles_) {
        ReadCompressed(first, to.Plane(p));
        continue;
      }
      to.Plane(p).ForRuns([&](Row<float> run) {
        ReadPlain(first, run);
        first += run.size();
      });
    }
  }

 private:
  [[noreturn]] void Fail(const std::string& text) const { throw FileError(info_.path, text); }

  /// A header-data unit: what its header says about its data.
  struct Hdu {
    Header header;
    bool image = false, compressed = false;
    std::int64_t bitpix = 8;         // of the pixels, also of compressed ones
    std::vector<std::int64_t> axes;  // likewise
    std::uint64_t start = 0;         // of the data in the file
    double bytes = 0;                // of the data; exact wherever a file can have them
  };

  /// The unit that begins at `offset`; none at the end of the file.
  std::optional<Hdu> ReadHdu(std::uint64_t offset) const {
    constexpr std::uint64_t kMostBlocks = 10000;
    Hdu hdu;
    for (std::uint64_t i = 0;; ++i) {
      std::array<char, kFitsBlock> block;
      const std::size_t got = file_.Read(block.data(), kFitsBlock, offset + i * kFitsBlock);
      if (i == 0 && offset > 0 && (got < kFitsBlock || std::memcmp(block.data(), "XTENSION", 8) != 0))
        return std::nullopt;
      const std::string noEnd = "not a FITS file, or damaged: no END in the header";
      if (got < kFitsBlock) ThrowIncomplete(info_.path, noEnd);
      if (i == kMostBlocks) Fail(noEnd);
      for (std::size_t at = 0; at < kFitsBlock; at += 80) {
        std::string card(block.data() + at, 80);
        for (char& c : card)
          c = static_cast<unsigned char>(c) < ' ' ? ' ' : c;
        if (card.starts_with("END     ")) {
          hdu.start = offset + (i + 1) * kFitsBlock;
          Interpret(hdu, offset == 0);
          return hdu;
        }
        hdu.header.cards.push_back(std::move(card));
      }
    }
  }

  std::int64_t Number(const Header& header, const std::string& key, std::int64_t least,
                      std::int64_t most) const {
    const std::optional<std::int64_t> value = header.GetInt(key);
    if (value && *value >= least && *value <= most) return *value;
    Fail(fmt::format("damaged header: {} = {}", key, header.GetString(key).value_or("(missing)")));
  }

  static std::int64_t Bytes(std::int64_t bitpix) { return std::abs(bitpix) / 8; }

  void ReadAxes(const Header& header, const std::string& prefix, std::int64_t& bitpix,
                std::vector<std::int64_t>& axes) const {
    constexpr std::int64_t kMost = std::int64_t{1} << 53;
    bitpix = Number(header, prefix + "BITPIX", -64, 64);
    if (bitpix != 8 && bitpix != 16 && std::abs(bitpix) != 32 && std::abs(bitpix) != 64) {
      Fail(fmt::format("damaged header: {}BITPIX = {}", prefix, bitpix));
    }
    axes.resize(static_cast<std::size_t>(Number(header, prefix + "NAXIS", 0, 999)));
    for (std::size_t i = 0; i < axes.size(); ++i) {
      axes[i] = Number(header, fmt::format("{}NAXIS{}", prefix, i + 1), 0, kMost);
    }
  }

  void Interpret(Hdu& hdu, bool primary) const {
    const Header& header = hdu.header;
    if (primary && !header.GetString("SIMPLE")) Fail("not a FITS file, or damaged: no SIMPLE in the header");
    ReadAxes(header, "", hdu.bitpix, hdu.axes);
    const bool groups = !hdu.axes.empty() && hdu.axes[0] == 0 && header.GetString("GROUPS") == "T";
    hdu.bytes = hdu.axes.empty() ? 0 : 1;
    for (std::size_t i = groups ? 1 : 0; i < hdu.axes.size(); ++i)
      hdu.bytes *= static_cast<double>(hdu.axes[i]);
    hdu.bytes += static_cast<double>(header.GetInt("PCOUNT").value_or(0));
    hdu.bytes *= static_cast<double>(header.GetInt("GCOUNT").value_or(1) * Bytes(hdu.bitpix));
    if (!(hdu.bytes >= 0)) Fail(fmt::format("damaged header: {:.0f} bytes of data", hdu.bytes));
    const std::string kind = header.GetString("XTENSION").value_or("IMAGE");
    hdu.compressed = kind == "BINTABLE" && header.GetString("ZIMAGE") == "T";
    hdu.image = primary || kind == "IMAGE" || hdu.compressed;
    if (hdu.compressed) {
      ReadAxes(header, "Z", hdu.bitpix, hdu.axes);
      CheckPacking(header);
    }
  }

  /// Parameters of the packing that CFITSIO divides by without looking.
  void CheckPacking(const Header& header) const {
    constexpr std::int64_t kMost = 1 << 28;
    for (int i = 1; i <= 999; ++i) {
      const std::string tile = fmt::format("ZTILE{}", i), value = fmt::format("ZVAL{}", i);
      const std::optional<std::string> name = header.GetString(fmt::format("ZNAME{}", i));
      if (header.GetString(tile)) Number(header, tile, 1, kMost);
      if (name == "BLOCKSIZE") Number(header, value, 16, 32);
      if (name == "BYTEPIX") Number(header, value, 1, 8);
      if (!name && !header.GetString(tile)) return;
    }
  }

  /// The wanted unit, or the first one that holds pixels.
  Hdu Select(const ReadOptions& options) {
    int wanted = -1;
    const char* end = options.hdu.data() + options.hdu.size();
    const auto [last, error] = std::from_chars(options.hdu.data(), end, wanted);
    if (error != std::errc() || last != end) wanted = -1;
    std::uint64_t offset = 0;
    for (int number = 0;; ++number) {
      std::optional<Hdu> hdu = offset < file_.Size() ? ReadHdu(offset) : std::nullopt;
      if (!hdu) {
        if (options.hdu.empty()) {
          ThrowIncomplete(info_.path, fmt::format("no image in any of its {} header-data units", number));
        }
        Fail(fmt::format("no header-data unit '{}' among its {} (numbered from 0)", options.hdu, number));
      }
      std::string name = hdu->header.GetString("EXTNAME").value_or("");
      const bool pixels =
          hdu->image && !hdu->axes.empty() && std::count(hdu->axes.begin(), hdu->axes.end(), 0) == 0;
      if (options.hdu.empty() ? pixels : number == wanted || (wanted < 0 && SameName(name, options.hdu))) {
        if (!pixels) {
          Fail(fmt::format("HDU {} is {}; name one that holds an image", number,
                           hdu->image ? "empty" : "a table"));
        }
        info_.hdu = number;
        info_.hduName = name != "COMPRESSED_IMAGE" ? name : "";
        return std::move(*hdu);
      }
      offset = After(*hdu);
    }
  }

  /// Where the next unit begins.
  std::uint64_t After(const Hdu& hdu) const {
    const double next = static_cast<double>(hdu.start) + hdu.bytes;
    return next >= static_cast<double>(file_.Size())
               ? file_.Size()
               : (static_cast<std::uint64_t>(next) + kFitsBlock - 1) / kFitsBlock * kFitsBlock;
  }

  /// Fills the public description, and checks that the file has all the pixels.
  void Describe(const Hdu& hdu) {
    const std::vector<std::int64_t>& axes = hdu.axes;
    if (axes.size() < 2) {
      Fail(
          fmt::format("HDU {} has one axis of {} pixels; images of two axes are needed", info_.hdu, axes[0]));
    }
    CheckSides(info_.path, axes[0], axes[1]);
    info_.width = static_cast<int>(axes[0]);
    info_.height = static_cast<int>(axes[1]);
    for (std::size_t i = 2; i < axes.size(); ++i) {
      if (axes[i] == 1 || (i == 2 && (axes[i] == 2 || axes[i] == 3))) continue;
      Fail(fmt::format("HDU {} has NAXIS{} = {}; images of 1 to 3 planes are supported", info_.hdu, i + 1,
                       axes[i]));
    }
    info_.planes = axes.size() > 2 ? static_cast<int>(axes[2]) : 1;

    info_.header = hdu.header;
    info_.bscale = by_.scale = hdu.header.GetDouble("BSCALE").value_or(1);
    info_.bzero = by_.zero = hdu.header.GetDouble("BZERO").value_or(0);
    by_.blank = hdu.header.GetInt("BLANK");
    bitpix_ = static_cast<int>(hdu.bitpix);
    start_ = hdu.start;
    const auto unsignedIf = [&](double zero) { return by_.scale == 1 && by_.zero == zero ? "u" : ""; };
    info_.type = bitpix_ == 8     ? by_.scale == 1 && by_.zero == -128 ? "int8" : "uint8"
                 : bitpix_ == 16  ? fmt::format("{}int16", unsignedIf(32768))
                 : bitpix_ == 32  ? fmt::format("{}int32", unsignedIf(2147483648.0))
                 : bitpix_ == 64  ? fmt::format("{}int64", unsignedIf(kUnsigned64))
                 : bitpix_ == -32 ? "float32"
                                  : "float64";

    if (hdu.compressed) DescribeTiles();
    const double bytes = tiles_ ? tiles_->bytes
                                : static_cast<double>(info_.width) * info_.height * info_.planes *
                                      static_cast<double>(Bytes(bitpix_));
    const double held = std::max(0.0, static_cast<double>(file_.Size()) - static_cast<double>(start_));
    if (bytes > held) {
      ThrowIncomplete(
          info_.path,
          fmt::format("truncated: {} x {} x {} {} pixels take {:.0f} bytes, the file holds {:.0f}",
                      info_.width, info_.height, info_.planes, info_.type, bytes, held));
    }
  }

  /// Damaged tiles are told by the sum that most packers leave: of 32-bit words, with carries added on.
  void CheckSum() const {
    const auto stored = info_.header.GetInt("DATASUM");
    if (!stored) return;
    std::vector<unsigned char> block(kFitsBlock * 32);
    std::uint64_t sum = 0;
    const std::uint64_t bytes =
        (static_cast<std::uint64_t>(tiles_->bytes) + kFitsBlock - 1) / kFitsBlock * kFitsBlock;
    for (std::uint64_t done = 0; done < bytes; done += block.size()) {
      const std::size_t got =
          file_.Read(block.data(), std::min<std::uint64_t>(block.size(), bytes - done), start_ + done);
      std::fill(block.begin() + static_cast<std::ptrdiff_t>(got), block.end(), 0);
      for (std::size_t i = 0; i < block.size(); i += 4)
        sum += FromFile<std::uint32_t>(block.data() + i);
      while (sum >> 32 != 0)
        sum = (sum & 0xffffffff) + (sum >> 32);
    }
    if (static_cast<std::int64_t>(sum) != *stored)
      Fail("damaged: the compressed pixels do not match their DATASUM; get the file again");
  }

  /// Checks that the tiles cover the image and are of a sane size.
  void DescribeTiles() {
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
    const auto number = [&](const char* key) {
      return static_cast<double>(info_.header.GetInt(key).value_or(0));
    };
    if (number("NAXIS2") != tiles) {
      Fail(fmt::format("damaged: {:.0f} compressed tiles where {:.0f} make the image", number("NAXIS2"),
                       tiles));
    }
    if (pixels > kLargestTile) {
      Fail(fmt::format("compressed in tiles of {:.0f} pixels; up to {:.0f} are supported", pixels,
                       kLargestTile));
    }
    tiles_.emplace();
    tiles_->bytes = std::max(number("NAXIS1") * tiles + number("PCOUNT"), 0.0);
    tiles_->pixels = pixels;
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

  void ReadPlain(std::uint64_t first, Row<float> run) {
    float* const out = run.data();
    const std::size_t count = run.size();
    const auto size = static_cast<std::size_t>(std::abs(bitpix_) / 8);
    const bool direct = bitpix_ == -32 && by_.scale == 1 && by_.zero == 0;
    if (!direct) buffer_.resize(kChunk * size);
    for (std::size_t done = 0; done < count;) {
      const std::size_t n = std::min(kChunk, count - done);
      void* raw = direct ? static_cast<void*>(out + done) : buffer_.data();
      if (file_.Read(raw, n * size, start_ + (first + done) * size) != n * size) {
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

  void ReadCompressed(std::uint64_t first, const Plane<float>& to) {
    constexpr std::size_t kAtOnce = 1 << 20;  // pixels: as wide as an image can be
    static_assert(kAtOnce > kMaxSide);
    if (!tiles_->decoder) {
      tiles_->unpacked.emplace(MemoryFile(info_.path, kAtOnce * sizeof(float)));
      tiles_->decoder.emplace(info_.path, file_,
                              nlohmann::json{{"kind", "tiles"},
                                             {"hdu", info_.hdu},
                                             {"pixels", tiles_->pixels},
                                             {"tiles", info_.header.GetInt("NAXIS2").value_or(0)},
                                             {"heap", info_.header.GetInt("PCOUNT").value_or(0)}});
    }
    const int wholeRows = static_cast<int>(kAtOnce) / info_.width;
    for (int done = 0; done < to.Rows(); done += wholeRows) {
      const Plane<float> part(to[done].data(), to.Width(), std::min(wholeRows, to.Rows() - done), to.Pitch());
      const std::size_t count = static_cast<std::size_t>(part.Rows()) * static_cast<std::size_t>(info_.width);
      tiles_->decoder->Ask({{"first", first}, {"count", count}}, *tiles_->unpacked);
      first += count;
      std::uint64_t at = 0;
      part.ForRuns([&](Row<float> run) {
        if (tiles_->unpacked->Read(run.data(), run.size_bytes(), at) != run.size_bytes())
          Fail("its unpacked pixels are gone");
        at += run.size_bytes();
      });
    }
  }

  File file_;
  std::optional<Tiles> tiles_;
  std::uint64_t start_ = 0;  // of the pixels in the file
  int bitpix_ = 0;
  Scaling by_;
  std::vector<unsigned char> buffer_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenFits(const fs::path& path, const ReadOptions& options) {
  return std::make_unique<FitsReader>(path, options);
}

}  // namespace korimg::files
