// Camera raw files, by LibRaw: the undeveloped pixels of the sensor's active area.
#include <array>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <libraw/libraw.h>

#include "app/files/CameraName.h"
#include "app/files/Formats.h"

namespace korimg::files {
namespace {

constexpr unsigned kXTrans = 9;           // LibRaw's code for Fujifilm's arrangement
constexpr unsigned kLastOddFilter = 999;  // codes up to here are no 2 x 2 arrangement

// Cameras' compression takes a bit for a pixel at least. Not all decoders notice that a file ends too early.
constexpr std::uint64_t kMostPixelsInByte = 64;

class RawReader : public ImageReader {
 public:
  RawReader(const std::filesystem::path& path, const ReadOptions& options)
      : options_(options), raw_(std::make_unique<LibRaw>(LIBRAW_OPIONS_NO_DATAERR_CALLBACK)) {
    info_.path = path;
    raw_->set_dataerror_handler([](void* damaged, const char*, auto) { *static_cast<bool*>(damaged) = true; },
                                &damaged_);
    const int error = raw_->open_file(path.c_str());
    if (error != LIBRAW_SUCCESS && !HasRawExtension(path)) {
      throw FileError(path,
                      "neither FITS, TIFF, PNG nor camera raw by its first bytes; convert it to one of them");
    }
    Check(error);
    const libraw_iparams_t& camera = raw_->imgdata.idata;
    if (camera.is_foveon) throw FileError(path, "a sensor of three layers, which is not supported");
    info_.format = "camera raw";
    info_.width = raw_->imgdata.sizes.width;
    info_.height = raw_->imgdata.sizes.height;
    info_.planes = camera.filters == 0 && camera.colors == 3 ? 3 : 1;
    info_.type = "uint16";
    CheckSides(path, info_.width, info_.height);
    if (std::filesystem::file_size(path) * kMostPixelsInByte <
        static_cast<std::uint64_t>(info_.width) * info_.height) {
      throw FileError(path, fmt::format("{} bytes cannot hold {} x {} raw pixels; get the file again",
                                        std::filesystem::file_size(path), info_.width, info_.height));
    }
    info_.camera = Camera();
    info_.header = Cards();
  }

 protected:
  void Read(int y0, int rows, float* const* planes) override {
    if (raw_ && !unpacked_) Unpack();
    std::vector<ushort> kept(kept_ ? info_.width : 0);
    for (int y = y0; y < y0 + rows; ++y) {
      for (int p = 0; p < info_.planes; ++p) {
        float* to = planes[p] + static_cast<size_t>(y - y0) * info_.width;
        if (kept_) {
          const size_t bytes = kept.size() * sizeof(ushort);
          if (kept_->Read(kept.data(), bytes, (static_cast<size_t>(p) * info_.height + y) * bytes) < bytes) {
            throw FileError(info_.path, "its temporary copy is gone");
          }
          Convert<1>(kept.data(), y, p, to);
        } else {
          const auto [from, step] = Row(y, p);
          if (step == 1) Convert<1>(from, y, p, to);
          if (step == 3) Convert<3>(from, y, p, to);
          if (step == 4) Convert<4>(from, y, p, to);
        }
      }
    }
  }

 private:
  void Check(int error) const {
    if (damaged_) throw FileError(info_.path, "the raw pixels are damaged or incomplete; get the file again");
    if (error == LIBRAW_SUCCESS) return;
    if (error == LIBRAW_FILE_UNSUPPORTED) {
      throw FileError(info_.path, "not a camera raw file that is supported; convert it to DNG");
    }
    throw FileError(info_.path, fmt::format("cannot read it as camera raw: {}",
                                            error > 0 ? std::strerror(error) : libraw_strerror(error)));
  }

  void Unpack() {
    Check(raw_->unpack());
    const libraw_rawdata_t& data = raw_->imgdata.rawdata;
    const bool complete =
        info_.planes == 1 ? data.raw_image != nullptr : data.color3_image || data.color4_image;
    if (!complete) throw FileError(info_.path, "its pixels are of a kind that is not supported");
    info_.camera = Camera();  // some cameras' black is measured on covered pixels
    unpacked_ = true;
    if (options_.manyOpen) Keep();
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

  /// Moves the pixels to a temporary file without a name.
  void Keep() {
    const TransientFile named(NewTemporary(info_.path));
    kept_ = std::make_unique<File>(named.Path(), O_RDWR, info_.path);
    std::vector<ushort> row(info_.width);
    std::uint64_t at = 0;
    for (int p = 0; p < info_.planes; ++p) {
      for (int y = 0; y < info_.height; ++y, at += row.size() * sizeof(ushort)) {
        const auto [from, step] = Row(y, p);
        for (int x = 0; x < info_.width; ++x) {
          row[x] = from[static_cast<size_t>(x) * step];
        }
        kept_->Write(row.data(), row.size() * sizeof(ushort), at);
      }
    }
    raw_.reset();
  }

  /// Letter of the filter over a pixel of the active area.
  char Filter(int x, int y) const { return raw_->imgdata.idata.cdesc[raw_->COLOR(y, x)]; }

  bool IsMosaic() const { return info_.planes == 1 && raw_->imgdata.idata.filters != 0; }

  CameraRaw Camera() const {
    const libraw_colordata_t& colour = raw_->imgdata.color;
    CameraRaw camera;
    std::tie(camera.maker, camera.model) = ListedName(raw_->imgdata.idata.make, raw_->imgdata.idata.model);
    camera.white = colour.maximum;
    camera.hasGains = colour.cam_mul[0] > 0 && colour.cam_mul[1] > 0 && colour.cam_mul[2] > 0;
    for (int i = 0; i < 4; ++i) {
      // The cells of a mosaic; the planes of a colour image.
      const int x = i % 2, y = i / 2, filter = IsMosaic() ? raw_->COLOR(y, x) : i;
      const unsigned *table = colour.cblack + 6, lines = colour.cblack[4], columns = colour.cblack[5];
      camera.black[i] = colour.black + colour.cblack[filter];
      if (lines > 0 && columns > 0) camera.black[i] += table[y % lines * columns + x % columns];
      const float gain = filter == 3 && !(colour.cam_mul[3] > 0) ? colour.cam_mul[1] : colour.cam_mul[filter];
      camera.gains[i] = camera.hasGains ? gain / colour.cam_mul[1] : 1;
    }
    return camera;
  }

  Header Cards() const {
    const libraw_imgother_t& shot = raw_->imgdata.other;
    const CameraRaw& camera = *info_.camera;
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

  /// A row of every `Step`th number as pixels.
  template <int Step>
  void Convert(const ushort* from, int y, int plane, float* to) const {
    const std::array<double, 4>& black = info_.camera->black;
    const int cell = info_.planes == 1 ? y % 2 * 2 : plane, next = info_.planes == 1 ? cell + 1 : plane;
    const auto even = static_cast<float>(options_.lessBlack ? black[cell] : 0);
    const auto odd = static_cast<float>(options_.lessBlack ? black[next] : 0);
    const int width = info_.width;
    for (int x = 0; x + 1 < width; x += 2) {
      to[x] = static_cast<float>(from[x * Step]) - even;
      to[x + 1] = static_cast<float>(from[(x + 1) * Step]) - odd;
    }
    if (width % 2) to[width - 1] = static_cast<float>(from[(width - 1) * Step]) - even;
  }

  ReadOptions options_;
  bool damaged_ = false, unpacked_ = false;
  std::unique_ptr<LibRaw> raw_;
  std::unique_ptr<File> kept_;
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
