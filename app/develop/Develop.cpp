#include "app/develop/Develop.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "korimg/image/CImgBright.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgInformation.h"

#include "app/verbs/AutoPicture.h"

namespace korimg::tool {
namespace {

constexpr int kSmallest = 6;  // pixels of a side that can be developed

/// Four positive numbers, or none.
std::optional<std::array<double, 4>> ParseGains(const std::string& text) {
  std::array<double, 4> gains;
  const char *at = text.data(), *end = at + text.size();
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && (at == end || *at++ != ',')) return std::nullopt;
    const auto [next, error] = std::from_chars(at, end, gains[i]);
    if (error != std::errc() || !(gains[i] > 0) || !std::isfinite(gains[i])) return std::nullopt;
    at = next;
  }
  return at == end ? std::optional(gains) : std::nullopt;
}

/// Where red and blue lie in the cell of a mosaic.
struct Sites {
  int red, blue;
  explicit Sites(int cfa) : red(std::array{0, 1, 3, 2}[cfa - 1]), blue(3 - red) {}
};

/// Gains by plane from those by cell; both greens become one.
std::array<double, 3> ByPlane(const std::array<double, 4>& cells, int cfa) {
  const Sites sites(cfa);
  double green = 0;
  for (int i = 0; i < 4; ++i) {
    if (i != sites.red && i != sites.blue) green += 0.5 * cells[i];
  }
  return {cells[sites.red], green, cells[sites.blue]};
}

/// Multiplies each plane of an image whose black is 0.
void ScalePlanes(CVelImage& image, const double* gains) {
  constexpr double kTwice = 256;  // a contrast that doubles
  float brightness[3] = {}, contrast[3] = {};
  for (int p = 0; p < image.GetPlanes(); ++p) {
    contrast[p] = static_cast<float>((gains[p] - 1) * kTwice);
  }
  CImgBright scaled;
  scaled.Swap(&image);
  scaled.Do(brightness, contrast, 0, &scaled, nullptr, 0);
  scaled.Swap(&image);
}

std::array<double, 4> GainsByMedians(CVelImage& image, int cfa) {
  // The library trusts medians of 1 and more; pixels from 0 to 1 are brought there, exactly, by a power of 2.
  constexpr double kScale = 65536, kUnitWhite = 16;
  const bool unit = image.GetLevelMax(0) <= kUnitWhite;
  if (unit) Calculate(image, Calculation::Multiply, kScale);
  std::array<double, 4> gains;
  CImgBayerToRgb frame;
  frame.Swap(&image);
  frame.GetGain(cfa, gains.data());
  frame.Swap(&image);
  if (unit) Calculate(image, Calculation::Multiply, 1 / kScale);
  return gains;
}

}  // namespace

void CheckWhiteBalance(const std::string& wanted) {
  if (wanted == "auto" || wanted == "camera" || wanted == "none" || ParseGains(wanted)) return;
  throw UsageError(
      fmt::format("--white-balance {}: give auto, camera, none, or four positive gains such as "
                  "1.9,1,1,1.5, for the cells of the mosaic row by row",
                  wanted));
}

files::Mosaic RequireMosaic(CVelImage& image, const files::ImageInfo& info,
                            const files::MosaicOptions& options) {
  files::Mosaic mosaic = files::FindMosaic(info, options);
  if (mosaic.cfa > 0 || (info.camera && info.planes == 3)) return mosaic;
  if (info.planes > 1) throw files::FileError(info.path, "has colours already; there is nothing to develop");
  if (!mosaic.name.empty()) {
    throw files::FileError(
        info.path, fmt::format("a mosaic of the pattern {} is not supported; RGGB, GRBG, BGGR and GBRG are. "
                               "If the file is wrong, give --cfa",
                               mosaic.name));
  }
  CImgInformation camera;
  camera.Swap(&image);
  int cfa = 0;
  const bool known = camera.GetAutoCFA(&cfa) && cfa <= 4;
  camera.Swap(&image);
  if (!known) {
    throw files::FileError(info.path,
                           "says nothing of a mosaic (BAYERPAT); if it is one, give --cfa with its pattern");
  }
  return files::FindMosaic(info, {files::CfaName(cfa), options.rowOrder, "by the name of its camera"});
}

WhiteBalance ChooseWhiteBalance(CVelImage& image, const files::ImageInfo& info, const files::Mosaic& mosaic,
                                const std::string& wanted) {
  if (const auto gains = ParseGains(wanted)) return {*gains, "as told"};
  if (wanted == "none") return {{1, 1, 1, 1}, "none"};
  if (info.camera && info.camera->hasGains) return {info.camera->gains, "the camera's"};
  if (wanted == "camera") {
    throw files::FileError(info.path,
                           "knows no white balance of its camera; give --white-balance auto, none or gains");
  }
  if (mosaic.cfa == 0) return {{1, 1, 1, 1}, "none"};
  return {GainsByMedians(image, mosaic.cfa), "by medians"};
}

Development::Development(CVelImage& image, files::ImageInfo& info, const files::Mosaic& mosaic,
                         const WhiteBalance& balance, const DevelopOptions& options)
    : image_(image), path_(info.path), cfa_(mosaic.cfa), gains_(balance.gains), options_(options) {
  if (cfa_ == 0 && (options.mono || options.half || options.levelCut || options.gamma != 1)) {
    throw files::FileError(path_, "has colours already: --mono, --half, --gamma and --level-cut are for mosaics");
  }
  if (cfa_ > 0 && (image.GetWidth() < kSmallest || image.GetHeight() < kSmallest)) {
    throw files::FileError(path_, fmt::format("a mosaic of {} x {} pixels is too small to develop; {} x {} is "
                                              "the smallest",
                                              image.GetWidth(), image.GetHeight(), kSmallest, kSmallest));
  }
  info.header.AddHistory(fmt::format("korimg {} develop", Version()));
  info.header.AddHistory(fmt::format(
      "{}; white balance {} ({:.4g})",
      cfa_ > 0 ? fmt::format("mosaic {} ({})", mosaic.name, mosaic.reason) : "colours of the camera", balance.text,
      fmt::join(gains_, ", ")));
  if (options.half) info.header.AddHistory("half the size, a pixel from each cell");
  if (options.gamma != 1) info.header.AddHistory(fmt::format("gamma {:g}", options.gamma));
  if (cfa_ > 0) files::RemoveMosaic(info.header);
}

Shape Development::Size() const {
  const int part = options_.half ? 2 : 1;
  return {image_.GetWidth() / part, image_.GetHeight() / part, options_.mono ? 1 : 3};
}

/// A copy of rows, with the image's levels.
std::unique_ptr<CVelImage> Development::Rows(int top, int bottom) {
  auto rows = std::make_unique<CVelImage>(image_.VmManager(), CImage::Float, image_.GetWidth(),
                                          bottom - top, image_.GetPlanes(), 1.0, 0.0, 1, nullptr);
  for (int p = 0; p < image_.GetPlanes(); ++p) {
    rows->SetLevel(p, image_.GetLevelMin(p), image_.GetLevelMax(p));
    for (int y = top; y < bottom; ++y) {
      std::memcpy(rows->GetWritableLine(0, y - top, p), image_.GetLine(0, y, p), sizeof(float) * image_.GetWidth());
    }
  }
  return rows;
}

void Development::DevelopBand(CVelImage& band, int trimTop, int trimBottom) {
  const bool balances = gains_ != std::array<double, 4>{1, 1, 1, 1};
  if (cfa_ == 0) {
    if (balances) ScalePlanes(band, gains_.data());
    return;
  }
  tagBayerStruct bayer;
  bayer.nCFA = cfa_;
  bayer.nSrcBits = bayer.nDstBits = -32;
  bayer.nTrimTop = trimTop;
  bayer.nTrimBottom = trimBottom;
  bayer.bMono = options_.mono;
  bayer.bToneCurve = balances;
  bayer.pGain = gains_.data();
  bayer.bLevelCut = options_.levelCut;
  bayer.bGamma = options_.gamma != 1;
  bayer.dGamma = options_.gamma;
  bayer.bRoundUp = options_.half;
  bayer.nRoundUpGreen = 2;
  CImgBayerToRgb developed;
  developed.Swap(&band);
  const int done = developed.Do(bayer, 0);
  developed.Swap(&band);
  if (!done) throw files::FileError(path_, "there is no room to develop it; give --memory");
  if (options_.half && balances) ScalePlanes(band, ByPlane(gains_, cfa_).data());
}

Levels Development::PictureLevels(int side) {
  // Whole cells, so that the sample is a mosaic too.
  const int step = ShrinkTo({image_.GetWidth(), image_.GetHeight()}, side);
  const int width = std::max(image_.GetWidth() / step / 2 * 2, std::min(image_.GetWidth(), kSmallest));
  const int height = std::max(image_.GetHeight() / step / 2 * 2, std::min(image_.GetHeight(), kSmallest));
  const auto place = [step](int i, int end) { return std::min(i / 2 * 2 * step, (end / 2 - 1) * 2) + i % 2; };
  CVelImage sample(image_.VmManager(), CImage::Float, width, height, image_.GetPlanes(), 1.0, 0.0, 1, nullptr);
  for (int p = 0; p < image_.GetPlanes(); ++p) {
    sample.SetLevel(p, image_.GetLevelMin(p), image_.GetLevelMax(p));
    for (int y = 0; y < height; ++y) {
      const float* from = image_.GetLine(0, place(y, image_.GetHeight()), p);
      float* to = sample.GetWritableLine(0, y, p);
      for (int x = 0; x < width; ++x) {
        to[x] = from[place(x, image_.GetWidth())];
      }
    }
  }
  DevelopBand(sample, 0, 0);
  LevelForPicture(sample, "histogram");
  return Levels(sample);
}

void Development::ForBands(Tool& tool, const std::string& title, const std::function<void(CVelImage&)>& visit) {
  constexpr int kBandRows = 256;                              // even: bands begin with the mosaic's first row
  const int margin = cfa_ == 0 || options_.half ? 0 : 4;      // rows that a developed one looks at, and one
  const int height = options_.half ? image_.GetHeight() / 2 * 2 : image_.GetHeight();
  for (int y = 0; y < height; y += kBandRows) {
    tool.console.CheckCancelled();
    tool.console.Progress(title, y, height);
    // What would be too little for a band of its own goes with the one before.
    const int end = height - y < kBandRows + kSmallest ? height : y + kBandRows;
    const int above = std::min(margin, y), below = std::min(margin, height - end);
    const auto band = Rows(y - above, end + below);
    DevelopBand(*band, above, below);
    visit(*band);
    if (end == height) break;
  }
  tool.console.EndProgress();
}

void SaveDeveloped(Tool& tool, Development& development, const files::Header& header, const Levels& levels,
                   const Levels& pictureLevels, const std::filesystem::path& output, bool integers,
                   const std::filesystem::path& preview, int side, const std::function<void(CVelImage&)>& change) {
  const Shape shape = development.Size();
  ImageSaver image(tool, output, shape, levels, header, {.integers = integers});
  PictureSaver picture(tool, preview, shape, pictureLevels, ShrinkTo(shape, side));
  development.ForBands(tool, "developing " + output.filename().string(), [&](CVelImage& band) {
    change(band);
    const float* planes[3] = {};
    for (int p = 0; p < shape.planes; ++p) {
      planes[p] = band.GetLine(0, 0, p);
    }
    image.Write(band.GetHeight(), planes);
    picture.Write(band.GetHeight(), planes);
  });
  image.Commit();
  picture.Commit();
}

}  // namespace korimg::tool
