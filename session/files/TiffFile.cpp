// TIFF files: gray or colour, 8 or 16 bit or float 32, through libtiff.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>
#include <tiffio.h>

#include "session/files/Formats.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// An open TIFF, and the messages of libtiff about it, which would go to stderr otherwise.
class Tiff {
 public:
  /// Errors speak of `shown` where `path` is the partial file.
  Tiff(const fs::path& path, const fs::path& shown, const char* mode) : shown_(shown) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    constexpr tmsize_t kLargestBlock = tmsize_t{1} << 30;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, kLargestBlock);
    TIFFOpenOptionsSetErrorHandlerExtR(options, KeepMessage, this);
    TIFFOpenOptionsSetWarningHandlerExtR(
        options, [](TIFF*, void*, const char*, const char*, va_list) { return 1; }, nullptr);
    tiff_ = TIFFOpenExt(path.c_str(), mode, options);
    TIFFOpenOptionsFree(options);
    if (tiff_ != nullptr) return;
    // Its directory may lie at its end.
    if (*mode == 'r') ThrowIncomplete(shown_, "cannot open the TIFF file: " + message_);
    Fail("cannot open the TIFF file");
  }
  ~Tiff() { TIFFClose(tiff_); }
  Tiff(const Tiff&) = delete;
  Tiff& operator=(const Tiff&) = delete;

  TIFF* operator*() const { return tiff_; }

  [[noreturn]] void Fail(const std::string& what) const {
    throw FileError(shown_, message_.empty() ? what : what + ": " + message_);
  }

 private:
  static int KeepMessage(TIFF*, void* self, const char*, const char* format, va_list arguments) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    auto& message = static_cast<Tiff*>(self)->message_;
    if (message.empty()) message = text;  // the first one names the cause
    return 1;
  }

  fs::path shown_;
  std::string message_;
  TIFF* tiff_ = nullptr;
};

constexpr const char* kRead = "rm";  // not mapped: a file that shrinks must not kill the process

/// Camera raw under another name.
bool IsMosaic(const fs::path& path) {
  Tiff file(path, path, kRead);
  std::uint16_t photometric = 0;
  const std::uint8_t* version = nullptr;
  return TIFFGetField(*file, TIFFTAG_DNGVERSION, &version) != 0 ||
         (TIFFGetField(*file, TIFFTAG_PHOTOMETRIC, &photometric) != 0 && photometric == PHOTOMETRIC_CFA);
}

class TiffReader : public ImageReader {
 public:
  explicit TiffReader(const fs::path& path) {
    info_.path = path;
    info_.format = "TIFF";
    handles_.push_back(std::make_unique<Tiff>(path, path, kRead));
    TIFF* tiff = **handles_[0];
    std::uint32_t width = 0, height = 0;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    CheckSides(path, width, height);
    info_.width = static_cast<int>(width);
    info_.height = static_cast<int>(height);
    ReadLayout();
    CheckStored();
    // Planes apart: one handle each, as going to and fro would unpack each strip from its start again.
    const int handles = separate_ ? info_.planes : 1;
    while (static_cast<int>(handles_.size()) < handles) {
      handles_.push_back(std::make_unique<Tiff>(path, path, kRead));
    }
    states_.resize(handles_.size());
  }

 protected:
  void Read(const Band<float>& to) override {
    for (std::size_t h = 0; h < handles_.size(); ++h) {
      for (int y = to.Top(); y < to.Bottom(); ++y) {
        if (tiled_) {
          TakeRowOfTiles(h, y, to);
        } else {
          ReadScanline(h, y);
          Take(states_[h].data.data(), h, to, y, 0, info_.width);
        }
      }
    }
    ApplyScale(to);
  }

 private:
  [[noreturn]] void Fail(const std::string& text) const { throw FileError(info_.path, text); }

  TIFF* Handle(std::size_t h) const { return **handles_[h]; }

  void ReadLayout() {
    TIFF* tiff = Handle(0);
    std::uint16_t bits = 1, format = SAMPLEFORMAT_UINT, config = PLANARCONFIG_CONTIG, photometric = 0,
                  compression = 0;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples_);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &config);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
    if (TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric) == 0) photometric = PHOTOMETRIC_MINISBLACK;
    if (photometric != PHOTOMETRIC_MINISBLACK && photometric != PHOTOMETRIC_MINISWHITE &&
        photometric != PHOTOMETRIC_RGB) {
      Fail(fmt::format("photometric interpretation {} is not supported; gray (0, 1) and RGB (2) are",
                       photometric));
    }
    info_.planes = photometric == PHOTOMETRIC_RGB ? 3 : 1;
    if (samples_ < info_.planes || samples_ > 16) {
      Fail(fmt::format("{} samples per pixel do not fit {} planes", samples_, info_.planes));
    }
    const bool real = format == SAMPLEFORMAT_IEEEFP && bits == 32;
    if (!real && (format != SAMPLEFORMAT_UINT || (bits != 8 && bits != 16))) {
      Fail(
          fmt::format("{} bits of sample format {} are not supported; unsigned 8 and 16 bit and float 32 are",
                      bits, format));
    }
    if (TIFFIsCODECConfigured(compression) == 0)
      Fail(fmt::format("compression {} is not supported", compression));
    info_.type = real ? "float32" : bits == 8 ? "uint8" : "uint16";
    const char* description = nullptr;
    if (bits == 16 && TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description) != 0) {
      const Scale scale = Scale::Parse(description).value_or(Scale());
      info_.bscale = scale.step;
      info_.bzero = scale.zero;
      info_.hasBlank = scale.hasBlank;
    }
    bytes_ = bits / 8;
    negative_ = photometric == PHOTOMETRIC_MINISWHITE && !real;
    tiled_ = TIFFIsTiled(tiff) != 0;
    separate_ = config == PLANARCONFIG_SEPARATE && samples_ > 1;
    plain_ = compression == COMPRESSION_NONE;
  }

  /// Compares what the strips or tiles claim with the size of the file, before anything is allocated for
  /// them.
  void CheckStored() {
    TIFF* tiff = Handle(0);
    const std::uint64_t fileSize = fs::file_size(info_.path);
    const std::uint32_t count = tiled_ ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
    std::uint64_t stored = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
      int error = 0;
      const std::uint64_t offset = TIFFGetStrileOffsetWithErr(tiff, i, &error);
      const std::uint64_t size = error != 0 ? 0 : TIFFGetStrileByteCountWithErr(tiff, i, &error);
      if (error != 0) handles_[0]->Fail(fmt::format("damaged table of strips at number {}", i));
      if (offset > fileSize || size > fileSize - offset) {
        ThrowIncomplete(info_.path, fmt::format("truncated: strip {} ends at byte {}, the file has {}", i,
                                                offset + size, fileSize));
      }
      stored += size;
    }
    const std::uint64_t needed = static_cast<std::uint64_t>(info_.width) *
                                 static_cast<std::uint64_t>(info_.height) * samples_ *
                                 static_cast<std::uint64_t>(bytes_);
    if (plain_ && stored < needed) {
      Fail(fmt::format("damaged: {} x {} pixels take {} bytes, the file holds {}", info_.width, info_.height,
                       needed, stored));
    }
    if (!tiled_) return;
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth_);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight_);
    constexpr double kLargestRow = 1 << 30;
    const double across = std::ceil(static_cast<double>(info_.width) / tileWidth_);
    if (across * tileWidth_ * tileHeight_ * samples_ * bytes_ > kLargestRow) {
      Fail(fmt::format("tiles of {} x {} are too large", tileWidth_, tileHeight_));
    }
  }

  /// Brings row y into the buffer of a handle. Packed strips are read forwards only.
  void ReadScanline(std::size_t h, int y) {
    State& state = states_[h];
    TIFF* tiff = Handle(h);
    if (state.row == y) return;
    state.data.resize(static_cast<std::size_t>(TIFFScanlineSize64(tiff)));
    std::uint32_t perStrip = 0;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &perStrip);
    const int stripStart = perStrip == 0 || perStrip > static_cast<std::uint32_t>(info_.height)
                               ? 0
                               : y - y % static_cast<int>(perStrip);
    int from = y;
    if (!plain_) from = state.row >= stripStart && state.row < y ? state.row + 1 : stripStart;
    for (; from <= y; ++from) {
      state.row = -1;
      if (TIFFReadScanline(tiff, state.data.data(), static_cast<std::uint32_t>(from),
                           static_cast<std::uint16_t>(h)) != 1) {
        handles_[h]->Fail(fmt::format("cannot read row {}", from));
      }
    }
    state.row = y;
  }

  void TakeRowOfTiles(std::size_t h, int y, const Band<float>& to) {
    State& state = states_[h];
    TIFF* tiff = Handle(h);
    const auto size = static_cast<std::size_t>(TIFFTileSize64(tiff));
    const auto rowSize = static_cast<std::size_t>(TIFFTileRowSize64(tiff));
    const int tileWidth = static_cast<int>(tileWidth_), tileHeight = static_cast<int>(tileHeight_);
    const int across = (info_.width + tileWidth - 1) / tileWidth;
    if (state.row != y / tileHeight) {
      state.row = -1;
      state.data.resize(size * static_cast<std::size_t>(across));
      for (int i = 0; i < across; ++i) {
        if (TIFFReadTile(tiff, state.data.data() + static_cast<std::size_t>(i) * size,
                         static_cast<std::uint32_t>(i * tileWidth), static_cast<std::uint32_t>(y), 0,
                         static_cast<std::uint16_t>(h)) < 0) {
          handles_[h]->Fail(fmt::format("cannot read the tile at column {} of row {}", i * tileWidth, y));
        }
      }
      state.row = y / tileHeight;
    }
    for (int i = 0; i < across; ++i) {
      const unsigned char* row = state.data.data() + static_cast<std::size_t>(i) * size +
                                 static_cast<std::size_t>(y % tileHeight) * rowSize;
      Take(row, h, to, y, i * tileWidth, std::min(tileWidth, info_.width - i * tileWidth));
    }
  }

  /// Converts n pixels of row y from column x on, of one or of all planes.
  void Take(const unsigned char* row, std::size_t h, const Band<float>& to, int y, int x, int n) const {
    if (separate_) {
      TakePlane(row, 1, to.Row(static_cast<int>(h), y).data() + x, n);
    } else {
      for (int p = 0; p < info_.planes; ++p)
        TakePlane(row + p * bytes_, samples_, to.Row(p, y).data() + x, n);
    }
  }

  void TakePlane(const unsigned char* in, int step, float* out, int n) const {
    const int stride = step * bytes_;
    for (int x = 0; x < n; ++x, in += stride) {
      if (bytes_ == 1) {
        out[x] = *in;
      } else if (bytes_ == 2) {
        std::uint16_t value;
        std::memcpy(&value, in, 2);
        out[x] = value;
      } else {
        std::memcpy(&out[x], in, 4);
      }
    }
    if (negative_) {
      for (int x = 0; x < n; ++x)
        out[x] = (bytes_ == 1 ? 255.0f : 65535.0f) - out[x];
    }
  }

  /// What a handle has unpacked: a row, or a row of tiles.
  struct State {
    int row = -1;
    std::vector<unsigned char> data;
  };

  std::vector<std::unique_ptr<Tiff>> handles_;
  std::vector<State> states_;
  std::uint16_t samples_ = 1;
  std::uint32_t tileWidth_ = 1, tileHeight_ = 1;
  int bytes_ = 1;
  bool negative_ = false, tiled_ = false, separate_ = false, plain_ = true;
};

class TiffWriter : public ImageWriter {
 public:
  TiffWriter(const fs::path& path, const WriteOptions& options)
      : ImageWriter(path, options, false),
        part_(PartialName(path)),
        bytes_(options.type == "uint8"    ? 1
               : options.type == "uint16" ? 2
                                          : 4) {
    const std::uint64_t rowBytes = static_cast<std::uint64_t>(options.width) *
                                   static_cast<std::uint64_t>(options.planes) *
                                   static_cast<std::uint64_t>(bytes_);
    const std::uint64_t total = rowBytes * static_cast<std::uint64_t>(options.height);
    constexpr std::uint64_t kClassicLimit = 4'000'000'000;
    const fs::path folder = part_.Path().parent_path();
    if (FreeSpace(folder) < total) ThrowDiskFull(path, folder, total);
    tiff_ = std::make_unique<Tiff>(part_.Path(), path, total > kClassicLimit ? "w8" : "w");
    row_.resize(rowBytes);

    TIFF* tiff = **tiff_;
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(options.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(options.height));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bytes_ * 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, bytes_ == 4 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, options.planes);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, options.planes == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(tiff, TIFFTAG_SOFTWARE, "korimg " KORIMG_VERSION);
    if (!options.scale.IsPlain()) TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, options.scale.Text().c_str());
    constexpr std::uint64_t kStrip = 1 << 18;
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP,
                 static_cast<std::uint32_t>(std::max<std::uint64_t>(1, kStrip / rowBytes)));
  }

 protected:
  void Write(const Band<const float>& from) override {
    const auto width = static_cast<std::size_t>(options_.width),
               step = static_cast<std::size_t>(options_.planes);
    for (int y = from.Top(); y < from.Bottom(); ++y) {
      for (std::size_t p = 0; p < step; ++p) {
        const float* in = from.Row(static_cast<int>(p), y).data();
        if (bytes_ == 1) {
          for (std::size_t x = 0; x < width; ++x)
            row_[x * step + p] = RoundTo<std::uint8_t>(in[x]);
        } else if (bytes_ == 2) {
          auto* out = reinterpret_cast<std::uint16_t*>(row_.data()) + p;
          for (std::size_t x = 0; x < width; ++x)
            out[x * step] = RoundTo<std::uint16_t>(in[x]);
        } else {
          auto* out = reinterpret_cast<float*>(row_.data()) + p;
          for (std::size_t x = 0; x < width; ++x)
            out[x * step] = in[x];
        }
      }
      errno = 0;
      if (TIFFWriteScanline(**tiff_, row_.data(), static_cast<std::uint32_t>(y), 0) != 1) FailToWrite(y);
    }
  }

  void Finish() override {
    errno = 0;
    if (TIFFFlush(**tiff_) != 1) FailToWrite(options_.height);
    tiff_.reset();
    part_.RenameTo(path_);
  }

 private:
  [[noreturn]] void FailToWrite(int y) {
    if (errno == ENOSPC || errno == EDQUOT || errno == EFBIG) {
      ThrowDiskFull(path_, part_.Path().parent_path(),
                    row_.size() * static_cast<std::uint64_t>(options_.height - y + 1));
    }
    tiff_->Fail(fmt::format("cannot write row {} of {}", y, options_.height));
  }

  TransientFile part_;
  std::unique_ptr<Tiff> tiff_;
  int bytes_;
  std::vector<unsigned char> row_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenTiff(const fs::path& path, const ReadOptions& options) {
  if (IsMosaic(path)) return OpenRaw(path, options);
  return std::make_unique<TiffReader>(path);
}

std::unique_ptr<ImageWriter> CreateTiff(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<TiffWriter>(path, options);
}

}  // namespace korimg::files
