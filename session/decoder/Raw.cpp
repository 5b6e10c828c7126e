// Camera raw files, by LibRaw: the undeveloped pixels of the sensor's active area.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <libraw/libraw.h>

#include "session/decoder/Sessions.h"
#include "session/files/internal/CameraName.h"

namespace korimg::decoder {
namespace {

using files::CameraRaw;
using files::Header;

constexpr unsigned kXTrans = 9;           // LibRaw's code for Fujifilm's arrangement
constexpr unsigned kLastOddFilter = 999;  // codes up to here are no 2 x 2 arrangement

class Raw : public Session {
 public:
  Raw(const std::string& path, const nlohmann::json& open)
      : path_(path), raw_(std::make_unique<LibRaw>(LIBRAW_OPIONS_NO_DATAERR_CALLBACK)) {
    SetLimits(path);
    raw_->set_dataerror_handler([](void* damaged, const char*, auto) { *static_cast<bool*>(damaged) = true; },
                                &damaged_);
    const int error = raw_->open_file(path.c_str());
    if (error != LIBRAW_SUCCESS && !open.at("named")) {
      throw std::runtime_error(
          "neither FITS, TIFF, PNG nor camera raw by its first bytes; convert it to one of them");
    }
    Check(error);
    const libraw_image_sizes_t& sizes = raw_->imgdata.sizes;
    if (sizes.top_margin + sizes.height > sizes.raw_height ||
        sizes.left_margin + sizes.width > sizes.raw_width) {
      throw std::runtime_error("damaged: its active area is not on its sensor; get the file again");
    }
    if (raw_->imgdata.idata.is_foveon)
      throw std::runtime_error("a sensor of three layers, which is not supported");
    planes_ = raw_->imgdata.idata.filters == 0 && raw_->imgdata.idata.colors == 3 ? 3 : 1;
  }

  nlohmann::json Opened() const override {
    return {{"width", raw_->imgdata.sizes.width},
            {"height", raw_->imgdata.sizes.height},
            {"planes", planes_},
            {"camera", Camera()},
            {"cards", Cards().cards}};
  }

  nlohmann::json Answer(const nlohmann::json&, int target) override {
    SetLimits(path_);
    Check(raw_->unpack());
    const libraw_rawdata_t& data = raw_->imgdata.rawdata;
    const bool complete = planes_ == 1 ? data.raw_image != nullptr : data.color3_image || data.color4_image;
    if (!complete) throw std::runtime_error("its pixels are of a kind that is not supported");
    const size_t width = raw_->imgdata.sizes.width;
    std::vector<ushort> row(width);
    std::uint64_t at = 0;
    for (int p = 0; p < planes_; ++p) {
      for (int y = 0; y < raw_->imgdata.sizes.height; ++y, at += width * sizeof(ushort)) {
        const auto [from, step] = Row(y, p);
        for (size_t x = 0; x < width; ++x) {
          row[x] = from[x * static_cast<size_t>(step)];
        }
        WriteAll(target, row.data(), width * sizeof(ushort), at);
      }
    }
    // Some cameras' black is measured on covered pixels.
    return {{"camera", Camera()}};
  }

 private:
  static void SetLimits(const std::string& path) {
    // Chosen, far above what whole files take: 24 megapixels take half a second (docs/performance.md).
    constexpr double kMemory = 4e9, kSeconds = 5, kBytesInSecond = 1e6;
    Limit(kMemory, kSeconds + static_cast<double>(std::filesystem::file_size(path)) / kBytesInSecond);
  }

  void Check(int error) const {
    if (damaged_) throw std::runtime_error("the raw pixels are damaged or incomplete; get the file again");
    if (error == LIBRAW_SUCCESS) return;
    if (error == LIBRAW_FILE_UNSUPPORTED) {
      throw std::runtime_error("not a camera raw file that is supported; convert it to DNG");
    }
    throw std::runtime_error(fmt::format("cannot read it as camera raw: {}",
                                         error > 0 ? std::strerror(error) : libraw_strerror(error)));
  }

  /// A row of the active area, and how many numbers apart its pixels are.
  std::pair<const ushort*, int> Row(int y, int plane) const {
    const libraw_image_sizes_t& sizes = raw_->imgdata.sizes;
    const libraw_rawdata_t& data = raw_->imgdata.rawdata;
    const size_t row = y + sizes.top_margin, column = sizes.left_margin;
    const size_t at = row * sizes.raw_width + column;
    if (data.raw_image) return {data.raw_image + row * (sizes.raw_pitch / sizeof(ushort)) + column, 1};
    if (data.color3_image) return {data.color3_image[at] + plane, 3};
    return {data.color4_image[at] + plane, 4};
  }

  /// Letter of the filter over a pixel of the active area.
  char Filter(int x, int y) const { return raw_->imgdata.idata.cdesc[raw_->COLOR(y, x)]; }

  bool IsMosaic() const { return planes_ == 1 && raw_->imgdata.idata.filters != 0; }

  CameraRaw Camera() const {
    const libraw_colordata_t& colour = raw_->imgdata.color;
    CameraRaw camera;
    std::tie(camera.maker, camera.model) =
        files::ListedName(raw_->imgdata.idata.make, raw_->imgdata.idata.model);
    camera.white = colour.maximum;
    camera.hasGains = colour.cam_mul[0] > 0 && colour.cam_mul[1] > 0 && colour.cam_mul[2] > 0;
    for (int i = 0; i < 4; ++i) {
      // The cells of a mosaic; the planes of a colour image.
      const int x = i % 2, y = i / 2, filter = IsMosaic() ? raw_->COLOR(y, x) : i;
      const unsigned *table = colour.cblack + 6, lines = colour.cblack[4], columns = colour.cblack[5];
      camera.black[i] = colour.black + colour.cblack[filter];
      if (lines > 0 && columns > 0 && y % lines * columns + x % columns < std::size(colour.cblack) - 6) {
        camera.black[i] += table[y % lines * columns + x % columns];
      }
      const float gain = filter == 3 && !(colour.cam_mul[3] > 0) ? colour.cam_mul[1] : colour.cam_mul[filter];
      camera.gains[i] = camera.hasGains ? gain / colour.cam_mul[1] : 1;
    }
    camera.hasGains = camera.hasGains && std::all_of(camera.gains.begin(), camera.gains.end(),
                                                     [](double gain) { return std::isfinite(gain); });
    if (!camera.hasGains) camera.gains = {1, 1, 1, 1};
    return camera;
  }

  Header Cards() const {
    const libraw_imgother_t& shot = raw_->imgdata.other;
    const CameraRaw camera = Camera();
    const unsigned filters = raw_->imgdata.idata.filters;
    Header header;
    header.Set("INSTRUME",
               camera.model.find(camera.maker) == 0 ? camera.model : camera.maker + ' ' + camera.model,
               "camera");
    if (shot.shutter > 0) header.Set("EXPTIME", static_cast<double>(shot.shutter), "[s] exposure");
    if (shot.iso_speed > 0) header.Set("ISOSPEED", static_cast<double>(shot.iso_speed), "sensitivity");
    if (shot.focal_len > 0) header.Set("FOCALLEN", static_cast<double>(shot.focal_len), "[mm] focal length");
    if (shot.aperture > 0) header.Set("FNUMBER", static_cast<double>(shot.aperture), "relative aperture");
    if (shot.timestamp > 0) {
      header.Set("DATE-LOC", fmt::format("{:%Y-%m-%dT%H:%M:%S}", fmt::localtime(shot.timestamp)),
                 "by the clock of the camera");
    }
    header.Set("ROWORDER", "TOP-DOWN", "order of the rows");
    if (!IsMosaic()) return header;
    std::string pattern{Filter(0, 0), Filter(1, 0), Filter(0, 1), Filter(1, 1)};
    if (filters <= kLastOddFilter) pattern = filters == kXTrans ? "X-Trans" : "unknown";
    header.Set("BAYERPAT", pattern, "colours of the first two rows");
    return header;
  }

  std::string path_;
  bool damaged_ = false;
  int planes_ = 1;
  std::unique_ptr<LibRaw> raw_;
};

}  // namespace

std::unique_ptr<Session> OpenRaw(const std::string& path, const nlohmann::json& open) {
  return std::make_unique<Raw>(path, open);
}

}  // namespace korimg::decoder
