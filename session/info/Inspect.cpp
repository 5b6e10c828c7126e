#include "session/info/Inspect.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "korimg/image/internal/Numbers.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/platform/Debug.h"
#include "korimg/raw/CImgInformation.h"

#include "session/develop/Develop.h"
#include "session/job/internal/Edge.h"
#include "session/picture/Image.h"

namespace korimg::session {
namespace {

constexpr const char* kKeywords[] = {"OBJECT",   "IMAGETYP", "EXPTIME",  "EXPOSURE", "CCD-TEMP", "FILTER",
                                     "INSTRUME", "GAIN",     "OFFSET",   "XBINNING", "DATE-OBS", "BAYERPAT",
                                     "XBAYROFF", "YBAYROFF", "ROWORDER", "PEDESTAL"};

/// The value of a rank among a plane's pixels without NaN: counted by the upper halves of their sort keys,
/// then by the lower halves of those that share the upper one. Takes no copy of the pixels.
float ValueOfRank(CVelImage& image, int plane, long long rank) {
  std::uint32_t prefix = 0;
  for (const int shift : {16, 0}) {
    std::vector<long long> counts(1 << 16);
    for (int y = 0; y < image.GetHeight(); ++y) {
      const float* line = image.GetLine(0, y, plane);
      for (int x = 0; x < image.GetWidth(); ++x) {
        const std::uint32_t key = SortKey(line[x]);
        const bool shares = shift == 16 || key >> 16 == prefix >> 16;
        if (shares && !std::isnan(line[x])) ++counts[(key >> shift) & 0xFFFF];
      }
    }
    std::uint32_t half = 0;
    for (; rank >= counts[half]; ++half) {
      rank -= counts[half];
    }
    prefix |= half << shift;
  }
  return FromSortKey(prefix);
}

/// Median of the pixels that are not NaN; the mean of the two middle ones when their number is even.
double MedianOf(CVelImage& image, int plane) {
  long long count = 0;
  for (int y = 0; y < image.GetHeight(); ++y) {
    const float* line = image.GetLine(0, y, plane);
    count += std::count_if(line, line + image.GetWidth(), [](float v) { return !std::isnan(v); });
  }
  if (count == 0) return std::numeric_limits<double>::quiet_NaN();
  const double upper = ValueOfRank(image, plane, count / 2);
  return count % 2 == 1 ? upper : 0.5 * ValueOfRank(image, plane, count / 2 - 1) + 0.5 * upper;
}

PlaneContents Measure(CImgAutoLevel& image, int plane) {
  const auto [min, max, mean] = image.GetMinMaxAvr(plane);
  double deviation = 0;
  image.GetLevelRangeStd(-std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                         &deviation, plane, nullptr);
  return {
      min, max, mean, MedianOf(image, plane), deviation, image.GetLevelMin(plane), image.GetLevelMax(plane)};
}

/// What the library has to say of the camera of a raw file.
void Describe(CVelImage& image, FileContents& contents) {
  CImgInformation information;
  information.Swap(&image);
  CString instrument, exposure, temperature, format;
  information.GetInfoString(instrument, exposure, temperature);
  information.GetRawType(format);
  const auto narrow = [](const wchar_t* text) { return Narrow(text); };
  contents.instrument = narrow(instrument);
  contents.exposure = narrow(exposure);
  contents.rawType = narrow(format);
}

FileContents ContentsOf(Image loaded) {
  FileContents contents{.info = std::move(loaded.Info())};
  const files::ImageInfo& info = contents.info;
  contents.mosaic = MosaicOf(info, {});
  CImgAutoLevel image;
  image.Swap(&loaded.Pixels());
  for (int p = 0; p < image.GetPlanes(); ++p) {
    contents.planes.push_back(Measure(image, p));
  }
  for (const char* key : kKeywords) {
    if (auto value = info.header.GetString(key)) contents.keywords.emplace_back(key, std::move(*value));
  }
  if (info.camera) Describe(image, contents);
  return contents;
}

}  // namespace

void Inspect(Job& job, const InspectOptions& options, const std::function<void(FileContents)>& take) {
  AtEdge([&] {
    const auto store = job.MakeStore();
    job.ForEachFile(options.files, [&](const std::filesystem::path& file) {
      take(ContentsOf(Image::Open(job, store, file, {.hdu = options.hdu})));
    });
  });
}

std::vector<FileContents> Inspect(Job& job, const InspectOptions& options) {
  std::vector<FileContents> all;
  Inspect(job, options, [&all](FileContents contents) { all.push_back(std::move(contents)); });
  return all;
}

}  // namespace korimg::session
