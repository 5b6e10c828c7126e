// Camera raw files: the undeveloped pixels of the sensor's active area, as a decoder unpacks them.
#include <array>

#include <fcntl.h>
#include <fmt/format.h>

#include "session/files/internal/Decoder.h"

namespace korimg::files {
namespace {

// Cameras' compression takes a bit for a pixel at least. Not all decoders notice that a file ends too early.
constexpr std::uint64_t kMostPixelsInByte = 64;

class RawReader : public ImageReader {
 public:
  RawReader(const std::filesystem::path& path, const ReadOptions& options)
      : options_(options), file_(path, O_RDONLY, path) {
    info_.path = path;
    const nlohmann::json opened = Decoder(path, file_, Request()).Open();
    info_.format = "camera raw";
    info_.width = Take<int>(opened, "width");
    info_.height = Take<int>(opened, "height");
    info_.planes = Take<int>(opened, "planes");
    info_.type = "uint16";
    CheckSides(path, info_.width, info_.height);
    if (file_.Size() * kMostPixelsInByte < static_cast<std::uint64_t>(info_.width) * info_.height) {
      ThrowIncomplete(path, fmt::format("{} bytes cannot hold {} x {} raw pixels", file_.Size(), info_.width,
                                        info_.height));
    }
    info_.camera = Take<CameraRaw>(opened, "camera");
    info_.header.cards = Take<std::vector<std::string>>(opened, "cards");
  }

 protected:
  void Read(const Band<float>& to) override {
    if (!pixels_) Unpack();
    const size_t width = info_.width, bytes = width * sizeof(std::uint16_t);
    std::vector<std::uint16_t> row(width);
    for (int y = to.Top(); y < to.Bottom(); ++y) {
      for (int p = 0; p < info_.planes; ++p) {
        if (pixels_->Read(row.data(), bytes, (static_cast<size_t>(p) * info_.height + y) * bytes) < bytes)
          throw FileError(info_.path, "its unpacked pixels are gone");
        Convert(row.data(), y, p, to.Row(p, y).data());
      }
    }
  }

 private:
  nlohmann::json Request() const { return {{"kind", "raw"}, {"named", HasRawExtension(info_.path)}}; }

  template <class T>
  T Take(const nlohmann::json& answer, const char* key) const {
    try {
      return answer.at(key).get<T>();
    } catch (const nlohmann::json::exception&) {
      throw FileError(info_.path, fmt::format("damaged: its {} makes no sense; get the file again", key));
    }
  }

  /// Has all pixels put into a file without a name, in memory or among the temporary ones.
  void Unpack() {
    File pixels = options_.manyOpen ? TemporaryFile(info_.path) : MemoryFile(info_.path, 0);
    Decoder decoder(info_.path, file_, Request());
    info_.camera = Take<CameraRaw>(decoder.Ask(nlohmann::json::object(), pixels), "camera");
    pixels_.emplace(std::move(pixels));
  }

  /// A row of numbers as pixels.
  void Convert(const std::uint16_t* from, int y, int plane, float* to) const {
    const std::array<double, 4>& black = info_.camera->black;
    const int cell = info_.planes == 1 ? y % 2 * 2 : plane, next = info_.planes == 1 ? cell + 1 : plane;
    const auto even = static_cast<float>(options_.lessBlack ? black[cell] : 0);
    const auto odd = static_cast<float>(options_.lessBlack ? black[next] : 0);
    const int width = info_.width;
    for (int x = 0; x + 1 < width; x += 2) {
      to[x] = static_cast<float>(from[x]) - even;
      to[x + 1] = static_cast<float>(from[x + 1]) - odd;
    }
    if (width % 2) to[width - 1] = static_cast<float>(from[width - 1]) - even;
  }

  ReadOptions options_;
  File file_;
  std::optional<File> pixels_;  ///< unpacked, plane by plane
};

}  // namespace

bool HasRawExtension(const std::filesystem::path& path) {
  constexpr const char* kExtensions[] = {
      ".3fr", ".arw", ".cr2", ".cr3", ".crw", ".dcr", ".dng", ".erf", ".iiq", ".k25", ".kdc", ".mef", ".mos",
      ".mrw", ".nef", ".nrw", ".orf", ".pef", ".raf", ".raw", ".rw2", ".rwl", ".sr2", ".srf", ".srw", ".x3f"};
  return std::find(std::begin(kExtensions), std::end(kExtensions), LowerExtension(path)) !=
         std::end(kExtensions);
}

std::unique_ptr<ImageReader> OpenRaw(const std::filesystem::path& path, const ReadOptions& options) {
  return std::make_unique<RawReader>(path, options);
}

}  // namespace korimg::files
