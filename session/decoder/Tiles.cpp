// Tile-compressed FITS images, by CFITSIO.
#include <limits>

#include <fitsio.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "session/decoder/Sessions.h"

namespace korimg::decoder {
namespace {

/// The status of CFITSIO and the messages it left, as one text.
std::string CfitsioText(int status) {
  char text[FLEN_ERRMSG];
  fits_get_errstatus(status, text);
  std::string all = text;
  while (fits_read_errmsg(text) != 0)
    all += std::string("; ") + text;
  return all;
}

void Check(int status, std::string_view doing) {
  if (status != 0) throw std::runtime_error(fmt::format("cannot {}: {}", doing, CfitsioText(status)));
}

class Tiles : public Session {
 public:
  Tiles(const std::string& path, const nlohmann::json& open) : pixels_(open.at("pixels")) {
    Limit(Memory(), kSeconds);
    int status = 0;
    fits_open_diskfile(&file_, path.c_str(), READONLY, &status);
    fits_movabs_hdu(file_, static_cast<int>(open.at("hdu")) + 1, nullptr, &status);
    Check(status, "read the header of the compressed image");
    CheckTiles(open.at("tiles"), open.at("heap"));
  }

  nlohmann::json Answer(const nlohmann::json& request, int target) override {
    const LONGLONG first = request.at("first"), count = request.at("count");
    constexpr double kPixelsInSecond = 2e6;  // chosen: 24 megapixels of Rice take half a second in all
    Limit(Memory(), kSeconds + (static_cast<double>(count) + pixels_) / kPixelsInSecond);
    if (values_ == nullptr) Map(target);
    if (static_cast<std::size_t>(count) > room_) throw std::runtime_error("no room for so many pixels");
    float blank = std::numeric_limits<float>::quiet_NaN();
    int status = 0;
    fits_read_img(file_, TFLOAT, first + 1, count, &blank, values_, nullptr, &status);
    Check(status, "unpack the pixels");
    return nlohmann::json::object();
  }

 private:
  static constexpr double kSeconds = 5;  ///< chosen, for the start of the process and small tiles

  /// CFITSIO holds a tile and a few copies of it, of up to 8 bytes a pixel. Chosen: five of them.
  double Memory() const {
    constexpr double kBytesOfPixel = 40, kOther = 256 << 20;
    return kOther + kBytesOfPixel * pixels_;
  }

  /// Compares what the tiles claim with the size of the heap they are in: CFITSIO would allocate it.
  void CheckTiles(LONGLONG tiles, LONGLONG heap) {
    for (const char* name : {"COMPRESSED_DATA", "GZIP_COMPRESSED_DATA", "UNCOMPRESSED_DATA"}) {
      std::string column = name;
      int absent = 0, number = 0, status = 0;
      if (fits_get_colnum(file_, CASEINSEN, column.data(), &number, &absent) != 0) continue;
      for (LONGLONG i = 1; i <= tiles; ++i) {
        LONGLONG length = 0, offset = 0;
        fits_read_descriptll(file_, number, i, &length, &offset, &status);
        Check(status, fmt::format("find tile {}", i));
        if (length < 0 || offset < 0 || length > heap || offset > heap - length) {
          throw std::runtime_error(fmt::format(
              "damaged: tile {} of {} bytes at {} is outside its heap of {} bytes", i, length, offset, heap));
        }
      }
    }
    fits_clear_errmsg();
  }

  /// Unpacks straight into what the parent reads.
  void Map(int target) {
    struct stat state;
    if (fstat(target, &state) != 0) throw std::runtime_error("has nowhere to put its pixels");
    const auto bytes = static_cast<std::size_t>(state.st_size);
    void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, target, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    values_ = static_cast<float*>(mapped);
    room_ = bytes / sizeof(float);
  }

  double pixels_;  ///< of the largest tile
  float* values_ = nullptr;
  std::size_t room_ = 0;
  fitsfile* file_ = nullptr;
};

}  // namespace

std::unique_ptr<Session> OpenTiles(const std::string& path, const nlohmann::json& open) {
  return std::make_unique<Tiles>(path, open);
}

}  // namespace korimg::decoder
