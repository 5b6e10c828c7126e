// JPEG files: gray or colour, through libjpeg. They are written only: their losses are no input for
// measurements.
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <jpeglib.h>

#include "session/files/Formats.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// What takes the bytes of a JPEG file.
struct Target {
  virtual ~Target() = default;
  virtual void Put(const void* data, std::size_t size) = 0;
  virtual void Commit() {}
};

class FileTarget : public Target {
 public:
  explicit FileTarget(const fs::path& path)
      : path_(path), part_(PartialName(path)), file_(part_.Path(), O_RDWR | O_CREAT | O_TRUNC, path) {}
  void Put(const void* data, std::size_t size) override {
    file_.Write(data, size, offset_);
    offset_ += size;
  }
  void Commit() override { part_.RenameTo(path_); }

 private:
  fs::path path_;
  TransientFile part_;
  File file_;
  std::uint64_t offset_ = 0;
};

class StringTarget : public Target {
 public:
  explicit StringTarget(std::string& bytes) : bytes_(bytes) {}
  void Put(const void* data, std::size_t size) override {
    bytes_.append(static_cast<const char*>(data), size);
  }

 private:
  std::string& bytes_;
};

/// Where libjpeg's bytes and errors go.
struct Stream {
  explicit Stream(Target& target) : target(target) {}

  Target& target;
  std::exception_ptr exception;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX] = "";
  std::array<JOCTET, 1 << 16> buffer;
};

Stream& StreamOf(j_common_ptr jpeg) {
  return *static_cast<Stream*>(jpeg->client_data);
}

void OnError(j_common_ptr jpeg) {
  Stream& stream = StreamOf(jpeg);
  jpeg->err->format_message(jpeg, stream.message);
  std::longjmp(stream.jump, 1);
}

void OnMessage(j_common_ptr, int) {}

void OnStart(j_compress_ptr jpeg) {
  auto& buffer = StreamOf(reinterpret_cast<j_common_ptr>(jpeg)).buffer;
  jpeg->dest->next_output_byte = buffer.data();
  jpeg->dest->free_in_buffer = buffer.size();
}

void Flush(j_compress_ptr jpeg, std::size_t size) {
  Stream& stream = StreamOf(reinterpret_cast<j_common_ptr>(jpeg));
  try {
    stream.target.Put(stream.buffer.data(), size);
    return;
  } catch (const FileError&) {
    stream.exception = std::current_exception();
  }
  std::longjmp(stream.jump, 1);
}

boolean OnFull(j_compress_ptr jpeg) {
  Flush(jpeg, StreamOf(reinterpret_cast<j_common_ptr>(jpeg)).buffer.size());
  OnStart(jpeg);
  return TRUE;
}

void OnEnd(j_compress_ptr jpeg) {
  Flush(jpeg, StreamOf(reinterpret_cast<j_common_ptr>(jpeg)).buffer.size() - jpeg->dest->free_in_buffer);
}

/// libjpeg's state, which goes with this object however far its making came.
struct Compressor : jpeg_compress_struct {
  Compressor() : jpeg_compress_struct{} {}
  ~Compressor() { jpeg_destroy_compress(this); }
  Compressor(const Compressor&) = delete;
  Compressor& operator=(const Compressor&) = delete;
};

class JpegWriter : public ImageWriter {
 public:
  JpegWriter(const fs::path& path, const WriteOptions& options, std::unique_ptr<Target> target)
      : ImageWriter(path, options, false),
        target_(std::move(target)),
        stream_(*target_),
        row_(static_cast<std::size_t>(options.width) * static_cast<std::size_t>(options.planes)) {
    jpeg_.err = jpeg_std_error(&errors_);
    errors_.error_exit = OnError;
    errors_.emit_message = OnMessage;
    jpeg_.client_data = &stream_;
    Guard([&] {
      jpeg_create_compress(&jpeg_);
      destination_.init_destination = OnStart;
      destination_.empty_output_buffer = OnFull;
      destination_.term_destination = OnEnd;
      jpeg_.dest = &destination_;
      jpeg_.image_width = static_cast<JDIMENSION>(options_.width);
      jpeg_.image_height = static_cast<JDIMENSION>(options_.height);
      jpeg_.input_components = options_.planes;
      jpeg_.in_color_space = options_.planes == 3 ? JCS_RGB : JCS_GRAYSCALE;
      jpeg_set_defaults(&jpeg_);
      constexpr int kQuality = 92;  // chosen
      jpeg_set_quality(&jpeg_, kQuality, TRUE);
      // Stars are small and coloured: no colour is shared between pixels.
      jpeg_.comp_info[0].h_samp_factor = jpeg_.comp_info[0].v_samp_factor = 1;
      jpeg_start_compress(&jpeg_, TRUE);
    });
  }

 protected:
  void Write(const Band<const float>& from) override {
    const auto width = static_cast<std::size_t>(options_.width),
               step = static_cast<std::size_t>(options_.planes);
    for (int y = from.Top(); y < from.Bottom(); ++y) {
      for (std::size_t p = 0; p < step; ++p) {
        const float* in = from.Row(static_cast<int>(p), y).data();
        for (std::size_t x = 0; x < width; ++x)
          row_[x * step + p] = RoundTo<std::uint8_t>(in[x]);
      }
      Guard([&] {
        JSAMPROW row = row_.data();
        jpeg_write_scanlines(&jpeg_, &row, 1);
      });
    }
  }

  void Finish() override {
    Guard([&] { jpeg_finish_compress(&jpeg_); });
    target_->Commit();
  }

 private:
  /// Runs calls of libjpeg; its errors jump here and become a FileError. `calls` must own nothing.
  template <typename Calls>
  void Guard(Calls calls) {
    if (setjmp(stream_.jump) != 0) {
      if (stream_.exception) std::rethrow_exception(stream_.exception);
      throw FileError(path_, fmt::format("JPEG: {}", stream_.message));
    }
    calls();
  }

  std::unique_ptr<Target> target_;
  Stream stream_;
  jpeg_error_mgr errors_{};
  jpeg_destination_mgr destination_{};
  Compressor jpeg_;
  std::vector<JSAMPLE> row_;
};

}  // namespace

std::unique_ptr<ImageWriter> CreateJpeg(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<JpegWriter>(path, options, std::make_unique<FileTarget>(path));
}

std::unique_ptr<ImageWriter> CreateJpeg(std::string& bytes, const WriteOptions& options) {
  return std::make_unique<JpegWriter>("picture", options, std::make_unique<StringTarget>(bytes));
}

}  // namespace korimg::files
