// PNG files: gray or colour, 8 or 16 bit, through libpng.
#include <bit>
#include <csetjmp>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <png.h>
#include <zlib.h>

#include "session/files/Formats.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// Sequential access of libpng to a file, and the message of its last error.
struct Stream {
  const File& file;
  std::uint64_t offset = 0;
  std::exception_ptr exception;
  char message[128] = "";
  bool endsEarly = false;
};

void OnError(png_structp png, png_const_charp message) {
  std::snprintf(static_cast<Stream*>(png_get_error_ptr(png))->message, sizeof Stream::message, "%s", message);
  png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

void OnRead(png_structp png, png_bytep data, std::size_t size) {
  auto* stream = static_cast<Stream*>(png_get_io_ptr(png));
  std::size_t got = 0;
  try {
    got = stream->file.Read(data, size, stream->offset);
  } catch (const FileError&) {
    stream->exception = std::current_exception();
  }
  stream->offset += got;
  stream->endsEarly = got != size;
  if (stream->endsEarly) png_error(png, "the file ends too early");
}

void OnWrite(png_structp png, png_bytep data, std::size_t size) {
  auto* stream = static_cast<Stream*>(png_get_io_ptr(png));
  try {
    stream->file.Write(data, size, stream->offset);
  } catch (const FileError&) {
    stream->exception = std::current_exception();
  }
  stream->offset += size;
  if (stream->exception) png_error(png, "cannot write");
}

/// Runs calls of libpng; its errors jump here and become a FileError. `calls` must own nothing.
template <typename Calls>
void Guard(png_structp png, const fs::path& path, Calls calls) {
  if (setjmp(png_jmpbuf(png)) != 0) {
    auto* stream = static_cast<Stream*>(png_get_error_ptr(png));
    if (stream->exception) std::rethrow_exception(stream->exception);
    const std::string text = fmt::format("PNG: {}", stream->message);
    if (stream->endsEarly) ThrowIncomplete(path, text);
    throw FileError(path, text);
  }
  calls();
}

/// libpng's state for one pass of reading or writing.
struct Pass {
  Pass(const File& file, bool writing) : stream{.file = file, .exception = nullptr}, writes(writing) {
    const auto create = writing ? png_create_write_struct : png_create_read_struct;
    png = create(PNG_LIBPNG_VER_STRING, &stream, OnError, OnWarning);
    if (png == nullptr) throw std::bad_alloc();
    info = png_create_info_struct(png);
  }
  ~Pass() {
    if (writes) {
      png_destroy_write_struct(&png, &info);
    } else {
      png_destroy_read_struct(&png, &info, nullptr);
    }
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  Stream stream;
  bool writes;
  png_structp png = nullptr;
  png_infop info = nullptr;
};

constexpr const char* kScaleKey = "Comment";

class PngReader : public ImageReader {
 public:
  explicit PngReader(const fs::path& path) : file_(path, O_RDONLY, path) {
    info_.path = path;
    info_.format = "PNG";
    Restart();
    png_structp png = pass_->png;
    CheckSides(path, png_get_image_width(png, pass_->info), png_get_image_height(png, pass_->info));
    info_.width = static_cast<int>(png_get_image_width(png, pass_->info));
    info_.height = static_cast<int>(png_get_image_height(png, pass_->info));
    info_.planes = png_get_channels(png, pass_->info) == 3 ? 3 : 1;
    wide_ = png_get_bit_depth(png, pass_->info) == 16;
    info_.type = wide_ ? "uint16" : "uint8";
    png_textp texts = nullptr;
    const int count = png_get_text(png, pass_->info, &texts, nullptr);
    for (int i = 0; wide_ && i < count; ++i) {
      if (texts[i].key != std::string_view(kScaleKey) || texts[i].text == nullptr) continue;
      const Scale scale = Scale::Parse(texts[i].text).value_or(Scale());
      info_.bscale = scale.step;
      info_.bzero = scale.zero;
      info_.hasBlank = scale.hasBlank;
    }

    // No byte of a PNG holds more than 1032 bytes of pixels; packed depths take at least 1/8 of what they
    // unpack to.
    constexpr double kDensest = 1032 * 8;
    const double bytes = static_cast<double>(RowBytes()) * info_.height;
    if (bytes > kDensest * static_cast<double>(file_.Size())) {
      ThrowIncomplete(path, fmt::format("truncated: {} x {} pixels cannot come from {} bytes", info_.width,
                                        info_.height, file_.Size()));
    }
  }

 protected:
  void Read(const Band<float>& to) override {
    row_.resize(RowBytes());
    if (interlaced_) {
      UnpackInterlaced();
    } else if (to.Top() < next_) {
      Restart();
    }
    for (int y = interlaced_ ? to.Top() : next_; y < to.Bottom(); ++y) {
      const png_byte* row = row_.data();
      if (interlaced_) {
        row = whole_.data() + static_cast<std::size_t>(y) * RowBytes();
      } else {
        next_ = info_.height + 1;  // damaged rows leave the pass unusable
        Guard(pass_->png, info_.path, [&] { png_read_row(pass_->png, row_.data(), nullptr); });
        next_ = y + 1;
      }
      if (y < to.Top()) continue;
      const auto width = static_cast<std::size_t>(info_.width), step = static_cast<std::size_t>(info_.planes);
      for (std::size_t p = 0; p < step; ++p) {
        float* out = to.Row(static_cast<int>(p), y).data();
        if (wide_) {
          const auto* in = reinterpret_cast<const std::uint16_t*>(row) + p;
          for (std::size_t x = 0; x < width; ++x)
            out[x] = in[x * step];
        } else {
          for (std::size_t x = 0; x < width; ++x)
            out[x] = row[x * step + p];
        }
      }
    }
    ApplyScale(to);
  }

 private:
  std::size_t RowBytes() const {
    return static_cast<std::size_t>(info_.width) * static_cast<std::size_t>(info_.planes) * (wide_ ? 2 : 1);
  }

  /// Begins again before the first row, with libpng told to expand palettes and to drop alpha.
  void Restart() {
    pass_ = std::make_unique<Pass>(file_, false);
    next_ = 0;
    png_structp png = pass_->png;
    Guard(png, info_.path, [&] {
      png_set_read_fn(png, &pass_->stream, OnRead);
      png_read_info(png, pass_->info);
      png_set_palette_to_rgb(png);
      png_set_expand_gray_1_2_4_to_8(png);
      png_set_strip_alpha(png);
      if (std::endian::native == std::endian::little) png_set_swap(png);
      interlaced_ = png_get_interlace_type(png, pass_->info) != PNG_INTERLACE_NONE;
      if (interlaced_) png_set_interlace_handling(png);
      png_read_update_info(png, pass_->info);
    });
  }

  void UnpackInterlaced() {
    if (!whole_.empty()) return;
    std::vector<png_byte> whole(RowBytes() * static_cast<std::size_t>(info_.height));
    std::vector<png_bytep> rows;
    rows.reserve(static_cast<std::size_t>(info_.height));
    for (int y = 0; y < info_.height; ++y)
      rows.push_back(whole.data() + static_cast<std::size_t>(y) * RowBytes());
    Guard(pass_->png, info_.path, [&] { png_read_image(pass_->png, rows.data()); });
    whole_ = std::move(whole);
  }

  File file_;
  std::unique_ptr<Pass> pass_;
  int next_ = 0;  // row that the pass gives next
  bool interlaced_ = false, wide_ = false;
  std::vector<png_byte> row_, whole_;
};

class PngWriter : public ImageWriter {
 public:
  PngWriter(const fs::path& path, const WriteOptions& options)
      : ImageWriter(path, options, false),
        part_(PartialName(path)),
        file_(part_.Path(), O_RDWR | O_CREAT | O_TRUNC, path),
        pass_(file_, true),
        wide_(options.type == "uint16") {
    png_structp png = pass_.png;
    Guard(png, path_, [&] {
      png_set_write_fn(png, &pass_.stream, OnWrite, nullptr);
      png_set_IHDR(png, pass_.info, static_cast<png_uint_32>(options_.width),
                   static_cast<png_uint_32>(options_.height), wide_ ? 16 : 8,
                   options_.planes == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                   PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
      // Noise has no repetitions to look for: runs and the statistics of differences make pictures of the sky
      // smaller than a search does, in a third of the time.
      png_set_compression_strategy(png, Z_RLE);
      png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_AVG);
      if (!options_.scale.IsPlain()) {
        std::string text = options_.scale.Text();
        png_text entry = {};
        entry.compression = PNG_TEXT_COMPRESSION_NONE;
        entry.key = const_cast<char*>(kScaleKey);
        entry.text = text.data();
        png_set_text(png, pass_.info, &entry, 1);
      }
      png_write_info(png, pass_.info);
      if (std::endian::native == std::endian::little) png_set_swap(png);
    });
    row_.resize(static_cast<std::size_t>(options.width) * static_cast<std::size_t>(options.planes) *
                (wide_ ? 2 : 1));
  }

 protected:
  void Write(const Band<const float>& from) override {
    const auto width = static_cast<std::size_t>(options_.width),
               step = static_cast<std::size_t>(options_.planes);
    for (int y = from.Top(); y < from.Bottom(); ++y) {
      for (std::size_t p = 0; p < step; ++p) {
        const float* in = from.Row(static_cast<int>(p), y).data();
        if (wide_) {
          auto* out = reinterpret_cast<std::uint16_t*>(row_.data()) + p;
          for (std::size_t x = 0; x < width; ++x)
            out[x * step] = RoundTo<std::uint16_t>(in[x]);
        } else {
          for (std::size_t x = 0; x < width; ++x)
            row_[x * step + p] = RoundTo<std::uint8_t>(in[x]);
        }
      }
      Guard(pass_.png, path_, [&] { png_write_row(pass_.png, row_.data()); });
    }
  }

  void Finish() override {
    Guard(pass_.png, path_, [&] { png_write_end(pass_.png, pass_.info); });
    part_.RenameTo(path_);
  }

 private:
  TransientFile part_;
  File file_;
  Pass pass_;
  bool wide_;
  std::vector<png_byte> row_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenPng(const fs::path& path) {
  return std::make_unique<PngReader>(path);
}

std::unique_ptr<ImageWriter> CreatePng(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<PngWriter>(path, options);
}

}  // namespace korimg::files
