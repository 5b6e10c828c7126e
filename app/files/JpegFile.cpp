// JPEG files: gray or colour, through libjpeg. They are written only: their losses are no input for
// measurements.
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <jpeglib.h>

#include "app/files/Formats.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// Where libjpeg's bytes and errors go.
struct Stream {
  explicit Stream(const File& file) : file(file) {}

  const File& file;
  std::uint64_t offset = 0;
  std::exception_ptr exception;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX] = "";
  std::array<JOCTET, 1 << 16> buffer;

  void Flush(std::size_t size) {
    file.Write(buffer.data(), size, offset);
    offset += size;
  }
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
    stream.Flush(size);
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
  JpegWriter(const fs::path& path, const WriteOptions& options)
      : ImageWriter(path, options, false),
        part_(PartialName(path)),
        file_(part_.Path(), O_RDWR | O_CREAT | O_TRUNC, path),
        stream_(file_),
        row_(static_cast<std::size_t>(options.width) * static_cast<std::size_t>(options.planes)) {
    jpeg_.err = jpeg_std_error(&errors_);
    errors_.error_exit = OnError;
    errors_.emit_message = OnMessage;
    jpeg_.client_data = &stream_;
    Guard([&] {
      jpeg_create_compress(&jpeg_);
      target_.init_destination = OnStart;
      target_.empty_output_buffer = OnFull;
      target_.term_destination = OnEnd;
      jpeg_.dest = &target_;
      jpeg_.image_width = static_cast<JDIMENSION>(options_.width);
      jpeg_.image_height = static_cast<JDIMENSION>(options_.height);
      jpeg_.input_components = options_.planes;
      jpeg_.in_color_space = options_.planes == 3 ? JCS_RGB : JCS_GRAYSCALE;
      jpeg_set_defaults(&jpeg_);
      constexpr int kQuality = 92;
      jpeg_set_quality(&jpeg_, kQuality, TRUE);
      // Stars are small and coloured: no colour is shared between pixels.
      jpeg_.comp_info[0].h_samp_factor = jpeg_.comp_info[0].v_samp_factor = 1;
      jpeg_start_compress(&jpeg_, TRUE);
    });
  }

 protected:
  void Write(int, int rows, const float* const* planes) override {
    const auto width = static_cast<std::size_t>(options_.width),
               step = static_cast<std::size_t>(options_.planes);
    for (int y = 0; y < rows; ++y) {
      for (std::size_t p = 0; p < step; ++p) {
        const float* in = planes[p] + static_cast<std::size_t>(y) * width;
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
    part_.RenameTo(path_);
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

  TransientFile part_;
  File file_;
  Stream stream_;
  jpeg_error_mgr errors_{};
  jpeg_destination_mgr target_{};
  Compressor jpeg_;
  std::vector<JSAMPLE> row_;
};

}  // namespace

std::unique_ptr<ImageWriter> CreateJpeg(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<JpegWriter>(path, options);
}

}  // namespace korimg::files
