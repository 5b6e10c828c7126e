#include "app/tool/Images.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>

#include <fmt/format.h>

#include "korimg/image/CImgCalculation.h"
#include "korimg/platform/Debug.h"

#include "app/files/CameraName.h"
#include "app/files/Mosaic.h"

namespace korimg::tool {
namespace {

constexpr long long kBandBytes = 4 << 20;

/// Calls visit(y0, rows, planes) for the bands of an image, where planes[p] is the address of the band's rows
/// of plane p: in the store itself when its planes are contiguous, else in a buffer that is filled before the
/// visit (readOnly) or emptied after it.
template <class Visit>
void ForBands(Tool& tool, CVelImage& image, bool readOnly, const std::string& title, Visit&& visit) {
  const int width = image.GetWidth(), height = image.GetHeight(), planes = image.GetPlanes();
  const bool contiguous = image.GetAllocationPolicy() != CVmManager::Paged;
  const int band = BandRows(width, planes, height);
  std::vector<float> buffer(contiguous ? 0 : static_cast<size_t>(band) * width * planes);
  std::vector<float*> rows(planes);
  for (int y0 = 0; y0 < height; y0 += band) {
    tool.console.CheckCancelled();
    tool.console.Progress(title, y0, height);
    const int count = std::min(band, height - y0);
    for (int p = 0; p < planes; ++p) {
      rows[p] = contiguous
                    ? image.GetImageAdr(0, y0, p, readOnly ? CImage::ReadOnly : CImage::ReadWrite, nullptr)
                    : buffer.data() + static_cast<size_t>(p) * band * width;
    }
    const auto copy = [&](bool fromStore) {
      for (int p = 0; p < planes && !contiguous; ++p) {
        for (int y = 0; y < count; ++y) {
          float* row = rows[p] + static_cast<size_t>(y) * width;
          const size_t bytes = sizeof(float) * width;
          if (fromStore) {
            std::memcpy(row, image.GetLine(0, y0 + y, p), bytes);
          } else {
            std::memcpy(image.GetWritableLine(0, y0 + y, p), row, bytes);
          }
        }
      }
    };
    if (readOnly) copy(true);
    visit(y0, count, rows.data());
    if (!readOnly) copy(false);
  }
  tool.console.EndProgress();
}

CImage::SourceType SourceTypeOf(const files::ImageInfo& info) {
  const bool colour = info.planes > 1;
  if (info.type == "uint8") return colour ? CImage::Rgb24 : CImage::Gray8;
  if (info.type == "int16" || info.type == "uint16") return colour ? CImage::Rgb48 : CImage::Gray16;
  if (info.type == "float32") return CImage::Real32;
  if (info.type == "float64") return CImage::Real64;
  return CImage::Gray32;
}

std::string LevelKey(const char* end, int plane) {
  return fmt::format("KORL{}{}", end, plane + 1);
}

/// What a file says of camera and exposure.
void ReadHeader(const files::ImageInfo& info, CHeader& camera) {
  const files::Header& header = info.header;
  auto exposure = header.GetDouble("EXPTIME");
  if (!exposure) exposure = header.GetDouble("EXPOSURE");
  if (exposure) camera.SetExposureTime(*exposure);
  if (const auto temperature = header.GetDouble("CCD-TEMP")) camera.SetCoolingTemperature(*temperature);
  const auto detector = header.GetString("INSTRUME");
  if (detector) camera.SetDetector(Widen(*detector));
  if (const auto iso = header.GetDouble("ISOSPEED"); iso && *iso > 0 && *iso < 65536) {
    camera.SetISO(static_cast<unsigned short>(*iso));
  }
  const auto [maker, model] = info.camera ? std::pair(info.camera->maker, info.camera->model)
                                          : files::ListedName(detector.value_or(""));
  camera.SetCameraMaker(Widen(maker));
  camera.SetCameraModel(Widen(model));
  if (info.camera && info.camera->hasGains) {
    camera.SetWBShootingGainBayer(info.camera->gains.data());
    camera.SetWBShootingGain(1);
  }
}

void SetLevels(CVelImage& image, const files::ImageInfo& info, bool lessBlack) {
  const auto black =
      info.camera ? *std::min_element(info.camera->black.begin(), info.camera->black.end()) : 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto low = info.header.GetDouble(LevelKey("MIN", p)),
               high = info.header.GetDouble(LevelKey("MAX", p));
    if (low && high && *high > *low) {
      image.SetLevel(p, *low, *high);
      image.SetOwnLevel(true);
    } else if (info.camera && info.camera->white > black) {
      image.SetLevel(p, lessBlack ? 0 : black, info.camera->white - (lessBlack ? black : 0));
    } else if (info.type == "uint8") {
      image.SetLevel(p, 0, 255);
    } else if (info.type == "uint16" && info.bscale == 1) {
      image.SetLevel(p, 0, 65535);
    } else {
      const auto [min, max] = image.GetMinMax(p);
      const bool usable = std::isfinite(min) && std::isfinite(max) && max > min;
      image.SetLevel(p, usable ? min : 0, usable ? max : 1);
    }
  }
}

}  // namespace

int BandRows(int width, int planes, int height) {
  return static_cast<int>(std::clamp<long long>(kBandBytes / (4LL * width * planes), 1, height));
}

LoadedImage LoadImage(Tool& tool, const std::shared_ptr<CVmManager>& store, const std::filesystem::path& path,
                      const files::ReadOptions& options) {
  const auto reader = files::ImageReader::Open(path, options);
  const files::ImageInfo& info = reader->Info();
  auto image = std::make_unique<CVelImage>(store, CImage::Float, info.width, info.height, info.planes, 1.0,
                                           0.0, 1, nullptr);
  ForBands(tool, *image, false, "reading " + path.filename().string(),
           [&](int y0, int rows, float* const* planes) { reader->ReadRows(y0, rows, planes); });
  image->SetOrgFileName(Widen(path.string()));
  image->SetOrgFileFormat(Widen(info.format));
  image->SetOrgBitsPixel(SourceTypeOf(info));
  image->SetOrgPlanes(info.planes);
  image->SetOrgWidth(info.width);
  image->SetOrgHeight(info.height);
  const int cfa = files::FindMosaic(info).cfa;
  image->SetBayerImage(cfa > 0);
  image->SetOrgBayerImage(cfa > 0);
  image->GetHeader()->SetCFAPattern(cfa);
  ReadHeader(info, *image->GetHeader());
  SetLevels(*image, info, options.lessBlack);
  return {std::move(image), info};
}

void Calculate(CVelImage& image, Calculation operation, double value) {
  CImgCalculation result;
  result.Swap(&image);
  result.Do(value, static_cast<int>(operation), 0, &result, nullptr, 0);
  result.Swap(&image);
}

void SaveImage(Tool& tool, CVelImage& image, const files::Header& header, const std::filesystem::path& path,
               const SaveOptions& options) {
  files::WriteOptions write;
  write.width = image.GetWidth();
  write.height = image.GetHeight();
  write.planes = image.GetPlanes();
  write.header = header;
  write.overwrite = tool.options.overwrite;
  const bool byLevels = files::LowerExtension(path) == ".png";
  write.type = byLevels || options.integers ? "uint16" : "float32";
  for (int p = 0; p < image.GetPlanes(); ++p) {
    write.header.Set(LevelKey("MIN", p), image.GetLevelMin(p), "raw value shown as black");
    write.header.Set(LevelKey("MAX", p), image.GetLevelMax(p), "raw value shown as white");
  }
  const auto writer = files::ImageWriter::Create(path, write);
  std::vector<float> scaled;
  ForBands(tool, image, true, "writing " + path.filename().string(),
           [&](int y0, int rows, float* const* planes) {
             if (!byLevels) return writer->WriteRows(y0, rows, planes);
             const size_t size = static_cast<size_t>(rows) * write.width;
             scaled.resize(size * write.planes);
             std::vector<const float*> out;
             for (int p = 0; p < write.planes; ++p) {
               const auto min = static_cast<float>(image.GetLevelMin(p));
               const auto scale = static_cast<float>(65535.0 / image.GetLevelRange(p));
               float* to = scaled.data() + p * size;
               for (size_t i = 0; i < size; ++i) {
                 to[i] = (planes[p][i] - min) * scale;
               }
               out.push_back(to);
             }
             writer->WriteRows(y0, rows, out.data());
           });
  writer->Commit();
}

int ShrinkTo(const CVelImage& image, int side) {
  return (std::max(image.GetWidth(), image.GetHeight()) + side - 1) / side;
}

void SavePicture(Tool& tool, CVelImage& image, const std::filesystem::path& path, int shrink) {
  files::WriteOptions write;
  write.width = std::max(image.GetWidth() / shrink, 1);
  write.height = std::max(image.GetHeight() / shrink, 1);
  write.planes = image.GetPlanes();
  write.type = "uint8";
  write.overwrite = tool.options.overwrite;
  const auto writer = files::ImageWriter::Create(path, write);
  // The mean of shrink x shrink pixels: of what the levels show, so that a bright star stays a point.
  const int rows = std::min(shrink, image.GetHeight()), columns = std::min(shrink, image.GetWidth());
  const float share = 1.0f / static_cast<float>(rows * columns);
  std::vector<float> sums(image.GetWidth()), line(static_cast<size_t>(write.width) * write.planes);
  std::vector<const float*> out(write.planes);
  for (int y = 0; y < write.height; ++y) {
    for (int p = 0; p < write.planes; ++p) {
      float* to = line.data() + static_cast<size_t>(p) * write.width;
      out[p] = to;
      const auto min = static_cast<float>(image.GetLevelMin(p));
      const auto scale = static_cast<float>(255.0 / image.GetLevelRange(p));
      std::fill(sums.begin(), sums.end(), 0.0f);
      for (int j = 0; j < rows; ++j) {
        const float* from = image.GetLine(0, y * shrink + j, p);
        for (int x = 0; x < image.GetWidth(); ++x) {
          const float v = (from[x] - min) * scale, shown = v > 0 ? v : 0;  // NaN is black
          sums[x] += shown < 255 ? shown : 255;
        }
      }
      for (int x = 0; x < write.width; ++x) {
        to[x] = share * std::accumulate(&sums[x * shrink], &sums[x * shrink] + columns, 0.0f);
      }
    }
    writer->WriteRows(y, 1, out.data());
  }
  writer->Commit();
}

}  // namespace korimg::tool
