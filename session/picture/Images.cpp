#include "session/picture/Images.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include <fmt/format.h>

#include "korimg/geometry/CImgFlip.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/Loan.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/levels/CImgMidtones.h"
#include "korimg/platform/Debug.h"

#include "session/files/Formats.h"
#include "session/files/Geometry.h"
#include "session/files/internal/CameraName.h"
#include "session/files/internal/Times.h"
#include "session/picture/internal/Bands.h"

namespace korimg::session {
namespace {

constexpr long long kBandBytes = 4 << 20;  // chosen: large for disks, small beside images
constexpr double kWhite = 65535;           // of 16 bits

std::string LevelKey(const char* end, int plane) {
  return fmt::format("KORL{}{}", end, plane + 1);
}

/// A share of the way from black to white as it is shown; NaN is black.
float Shown(float share, float midtone) {
  const float v = share > 0 ? share : 0;
  return CImgMidtones::Transfer(v < 1 ? v : 1, midtone);
}

void FillPicture(Job& job, CVelImage& image, const std::string& title, PictureSaver& saver) {
  ForBands<Access::Read>(job, image, title, [&](const Band<const float>& band) { saver.Write(band); });
  saver.Commit();
}

Shape ShapeOf(const CVelImage& image) {
  return {image.GetWidth(), image.GetHeight(), image.GetPlanes()};
}

}  // namespace

long long BytesOf(const files::ImageInfo& info) {
  return 4LL * info.width * info.height * info.planes;
}

int BandRows(int width, int planes, int height) {
  return static_cast<int>(std::clamp<long long>(kBandBytes / (4LL * width * planes), 1, height));
}

std::pair<double, double> FiniteExtremes(CVelImage& image, int plane) {
  const auto [least, most] = image.GetMinMax(plane);
  if (std::isfinite(least) && std::isfinite(most)) return {least, most};
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  std::pair<float, float> all(kInfinity, -kInfinity);
  for (const auto& [low, high] : MapLines(0, image.GetHeight(), [&](int y) {
         std::pair<float, float> ends(kInfinity, -kInfinity);
         const float* line = image.GetLine(0, y, plane);
         for (int x = 0; x < image.GetWidth(); ++x) {
           if (!std::isfinite(line[x])) continue;
           ends = {std::min(ends.first, line[x]), std::max(ends.second, line[x])};
         }
         return ends;
       })) {
    all = {std::min(all.first, low), std::max(all.second, high)};
  }
  return all;
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
      const auto [min, max] = FiniteExtremes(image, p);
      image.SetLevel(p, max > min ? min : 0, max > min ? max : 1);
    }
  }
}

void TurnOver(CVelImage& image) {
  CImgFlip turned;
  if (!turned.Create(image, nullptr)) throw velora::CVmMemoryAllocationError("no room to turn an image over");
  turned.Do(0, &image, 0);
  image.Paste(&turned, nullptr);
}

std::unique_ptr<CVelImage> LoadSameSize(Job& job, const CVelImage& image, const files::Header& header,
                                        const std::filesystem::path& path, const std::string& user) {
  Image other = Image::Open(job, image.VmManager(), path);
  if (files::LiesOverturned(header, other.Header())) TurnOver(other.Pixels());
  CheckSameSize(other.Pixels(), image, path, user);
  return std::move(other.Pointer());
}

void CheckSameSize(const CVelImage& other, const CVelImage& image, const std::filesystem::path& name,
                   const std::string& user) {
  if (other.GetWidth() == image.GetWidth() && other.GetHeight() == image.GetHeight()) return;
  throw files::FileError(
      name, fmt::format("is {} x {}, but the image is {} x {}; {} wants the same size", other.GetWidth(),
                        other.GetHeight(), image.GetWidth(), image.GetHeight(), user));
}

void ReadHeader(const files::ImageInfo& info, CHeader& camera) {
  const files::Header& header = info.header;
  if (const auto exposure = files::ExposureOf(header)) {
    camera.SetExposureTime(*exposure);
    // A camera's way of telling a short exposure, where it is true.
    const double parts = 1 / *exposure;
    if (info.camera && parts > 2 && std::abs(parts - std::round(parts)) < 1e-3 * parts) {
      camera.SetExposureShutterSpeed(Widen(fmt::format("1/{:.0f}", parts)));
    }
  }
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

void Calculate(CVelImage& image, Calculation operation, double value) {
  Loan<CImgCalculation> loan(image);
  loan.borrower.Do(value, static_cast<int>(operation), 0, &loan.borrower, nullptr, 0);
}

Levels::Levels(const CVelImage& image) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    min[p] = image.GetLevelMin(p);
    max[p] = image.GetLevelMax(p);
  }
}

void CommitComputed(const Job& job, files::ImageWriter& writer) {
  job.CheckComputed(writer.Path());
  writer.Commit();
}

bool IsFits(const std::filesystem::path& path) {
  const std::string extension = files::LowerExtension(path);
  return extension == ".fits" || extension == ".fit" || extension == ".fts";
}

bool IsPng(const std::filesystem::path& path) {
  return files::LowerExtension(path) == ".png";
}

ImageSaver::ImageSaver(Job& job, const std::filesystem::path& path, const Shape& shape, const Levels& levels,
                       const files::Header& header, const SaveOptions& options)
    : job_(&job), shape_(shape), levels_(levels), uncertainty_(options.uncertainty), mask_(options.mask) {
  const bool byLevels = IsPng(path) && !options.integers;
  files::WriteOptions write{shape.width, shape.height, shape.planes};
  write.header = header;
  write.overwrite = job.options.overwrite;
  write.type = byLevels || options.integers ? "uint16" : "float32";
  if (options.integers) write.scale = options.scale;
  if (byLevels) {
    // Planes of one scale are stored by it, and can be read back; others are a picture only.
    bringsToOne_ =
        std::any_of(levels.min, levels.min + shape.planes, [&](double v) { return v != levels.min[0]; }) ||
        std::any_of(levels.max, levels.max + shape.planes, [&](double v) { return v != levels.max[0]; });
    if (!bringsToOne_) write.scale = {(levels.max[0] - levels.min[0]) / kWhite, levels.min[0]};
  }
  for (int p = 0; p < shape.planes; ++p) {
    write.header.Set(LevelKey("MIN", p), levels.min[p], "raw value shown as black");
    write.header.Set(LevelKey("MAX", p), levels.max[p], "raw value shown as white");
  }
  for (int p = shape.planes; p < Band<float>::kMostPlanes; ++p) {
    write.header.Remove(LevelKey("MIN", p));
    write.header.Remove(LevelKey("MAX", p));
  }
  write.extensions = QualityExtensions(uncertainty_, mask_, options.correlation);
  if (!write.extensions.empty() && !header.GetString("BUNIT")) {
    write.header.Set("BUNIT", "adu", "raw values");
  }
  writer_ = files::ImageWriter::Create(path, write);
}

void ImageSaver::WriteQuality(const Band<const float>& variance, const Band<const float>& mask) {
  const int top = nextQuality_;
  nextQuality_ += uncertainty_ ? variance.Rows() : mask.Rows();
  if (mask_) writer_->WriteExtension(uncertainty_ ? 1 : 0, mask.At(top));
  if (!uncertainty_) return;
  const Band<float> deviations = deviations_.Get(shape_.planes, shape_.width, top, variance.Rows());
  for (int p = 0; p < shape_.planes; ++p) {
    for (int y = 0; y < variance.Rows(); ++y) {
      std::ranges::transform(variance.Plane(p)[y], deviations.Plane(p)[y].begin(),
                             [](float v) { return std::sqrt(v); });
    }
  }
  writer_->WriteExtension(0, deviations);
}

void ImageSaver::Write(const Band<const float>& rows) {
  Band<const float> out = rows.At(next_);
  next_ += rows.Rows();
  if (bringsToOne_) {
    const Band<float> scaled = scaled_.Get(shape_.planes, shape_.width, out.Top(), out.Rows());
    for (int p = 0; p < shape_.planes; ++p) {
      const auto min = static_cast<float>(levels_.min[p]);
      const auto scale = static_cast<float>(kWhite / (levels_.max[p] - levels_.min[p]));
      for (int y = 0; y < out.Rows(); ++y) {
        std::ranges::transform(out.Plane(p)[y], scaled.Plane(p)[y].begin(),
                               [=](float v) { return (v - min) * scale; });
      }
    }
    out = scaled;
  }
  writer_->WriteRows(out);
}

void SaveImage(Job& job, CVelImage& image, const files::Header& header, const std::filesystem::path& path,
               const SaveOptions& options, const Quality& quality) {
  SaveOptions scaled = options;
  scaled.uncertainty = quality.variance != nullptr;
  scaled.mask = quality.mask != nullptr;
  // Levels that nobody chose make no picture: planes of their own extremes would lose their colours.
  scaled.integers |= IsPng(path) && !image.HasOwnLevel();
  if (scaled.integers) {
    files::RangeOf16Bits range;
    ForBands<Access::Read>(job, image, "measuring " + path.filename().string(),
                           [&](const Band<const float>& band) { range.Add(band); });
    scaled.scale = range.Get();
  }
  ImageSaver saver(job, path, ShapeOf(image), Levels(image), header, scaled);
  const std::string title = "writing " + path.filename().string();
  if (!IsFits(path) && files::IsPictureOverturned(header)) {
    for (int y = image.GetHeight() - 1; y >= 0; --y) {
      job.CheckCancelled();
      job.Progress(title, image.GetHeight() - 1 - y, image.GetHeight());
      const float* row[3] = {};
      for (int p = 0; p < image.GetPlanes(); ++p) {
        row[p] = image.GetLine(0, y, p);
      }
      saver.Write({row, image.GetPlanes(), image.GetWidth(), y, 1});
    }
    job.EndProgress();
  } else {
    ForBands<Access::Read>(job, image, title, [&](const Band<const float>& band) { saver.Write(band); });
  }
  if (quality.Any()) {
    const CVelImage& any = *(quality.variance ? quality.variance : quality.mask);
    const int rows = BandRows(any.GetWidth(), any.GetPlanes(), any.GetHeight());
    for (int top = 0; top < any.GetHeight(); top += rows) {
      const QualityRows band = quality.Rows(top, std::min(rows, any.GetHeight() - top));
      saver.WriteQuality(band.variance, band.mask);
    }
  }
  saver.Commit();
}

int ShrinkTo(const Shape& shape, int side) {
  return (std::max(shape.width, shape.height) + side - 1) / side;
}

PictureSaver::PictureSaver(const Shape& shape, const Levels& levels, int shrink)
    : shape_(shape),
      picture_{std::max(shape.width / shrink, 1), std::max(shape.height / shrink, 1), shape.planes},
      levels_(levels),
      shrink_(shrink),
      rowsOfPixel_(std::min(shrink, shape.height)),
      sums_(static_cast<size_t>(shape.width) * shape.planes),
      line_(static_cast<size_t>(picture_.width) * shape.planes) {}

PictureSaver::PictureSaver(Job& job, const std::filesystem::path& path, const Shape& shape,
                           const Levels& levels, int shrink, bool overturned)
    : PictureSaver(shape, levels, shrink) {
  job_ = &job;
  overturned_ = overturned;
  files::WriteOptions write = Format();
  write.overwrite = job.options.overwrite;
  writer_ = files::ImageWriter::Create(path, write);
}

PictureSaver::PictureSaver(std::string& jpeg, const Shape& shape, const Levels& levels, int shrink)
    : PictureSaver(shape, levels, shrink) {
  writer_ = files::CreateJpeg(jpeg, Format());
}

files::WriteOptions PictureSaver::Format() const {
  return {.width = picture_.width, .height = picture_.height, .planes = picture_.planes, .type = "uint8"};
}

void PictureSaver::Write(const Band<const float>& rows) {
  const int columns = std::min(shrink_, shape_.width);
  const float share = 1.0f / static_cast<float>(rowsOfPixel_ * columns);
  const Band<float> sum(sums_.data(), shape_.planes, shape_.width, 0, 1),
      mean(line_.data(), picture_.planes, picture_.width, 0, 1);
  for (int y = rows.Top(); y < rows.Bottom(); ++y, ++next_) {
    const int line = next_ / rowsOfPixel_;
    if (line >= picture_.height) continue;
    for (int p = 0; p < shape_.planes; ++p) {
      const float* from = rows.Row(p, y).data();
      float* sums = sum.Row(p, 0).data();
      const auto min = static_cast<float>(levels_.min[p]), midtone = static_cast<float>(levels_.midtone[p]);
      const auto scale = static_cast<float>(1 / (levels_.max[p] - levels_.min[p]));
      RunInLongVectors([=, width = shape_.width]() KORIMG_IN_LOOP {
        for (int x = 0; x < width; ++x) {
          sums[x] += 255 * Shown((from[x] - min) * scale, midtone);
        }
      });
    }
    if ((next_ + 1) % rowsOfPixel_ != 0) continue;
    for (int p = 0; p < shape_.planes; ++p) {
      const float* sums = sum.Row(p, 0).data();
      float* to = mean.Row(p, 0).data();
      for (int x = 0; x < picture_.width; ++x) {
        to[x] = share * std::accumulate(&sums[x * shrink_], &sums[x * shrink_] + columns, 0.0f);
      }
    }
    if (overturned_) {
      overturnedLines_.insert(overturnedLines_.end(), line_.begin(), line_.end());
    } else {
      WriteLine(line, line_.data());
    }
    std::fill(sums_.begin(), sums_.end(), 0.0f);
  }
}

void PictureSaver::WriteLine(int line, const float* pixels) {
  writer_->WriteRows({pixels, picture_.planes, picture_.width, line, 1});
}

void PictureSaver::Commit() {
  for (int line = 0; overturned_ && line < picture_.height; ++line) {
    WriteLine(line, &overturnedLines_.at(line_.size() * (picture_.height - 1 - line)));
  }
  if (job_) {
    CommitComputed(*job_, *writer_);
  } else {
    writer_->Commit();
  }
}

void ShowByLevels(CVelImage& image, const Levels& levels) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto min = static_cast<float>(levels.min[p]), max = static_cast<float>(levels.max[p]),
               midtone = static_cast<float>(levels.midtone[p]);
    const bool isLinear = midtone == 0.5f;
    ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0, width = image.GetWidth(); x < width; ++x) {
        const float v = line[x] > min ? line[x] : min;
        line[x] =
            isLinear ? (v < max ? v : max) : Shown((v - min) / (max - min), midtone) * (max - min) + min;
      }
    });
  }
}

void SavePicture(Job& job, CVelImage& image, const Levels& levels, const std::filesystem::path& path,
                 int shrink, bool overturned) {
  PictureSaver saver(job, path, ShapeOf(image), levels, shrink, overturned);
  FillPicture(job, image, "writing " + path.filename().string(), saver);
}

std::string JpegOf(Job& job, CVelImage& image, const Levels& levels, int shrink) {
  std::string jpeg;
  PictureSaver saver(jpeg, ShapeOf(image), levels, shrink);
  FillPicture(job, image, "drawing", saver);
  return jpeg;
}

}  // namespace korimg::session
