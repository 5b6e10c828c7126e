#include "app/develop/Develop.h"

#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "korimg/image/CImgBright.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgInformation.h"

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

void Develop(CVelImage& image, files::ImageInfo& info, const files::Mosaic& mosaic,
             const WhiteBalance& balance, const DevelopOptions& options) {
  std::array<double, 4> gains = balance.gains;
  const bool balances = gains != std::array<double, 4>{1, 1, 1, 1};
  const std::string shown = fmt::format("white balance {} ({:.4g})", balance.text, fmt::join(gains, ", "));
  info.header.AddHistory(fmt::format("korimg {} develop", Version()));
  if (mosaic.cfa == 0) {
    if (options.mono || options.half || options.levelCut || options.gamma != 1) {
      throw files::FileError(info.path,
                             "has colours already: --mono, --half, --gamma and --level-cut are for mosaics");
    }
    ScalePlanes(image, gains.data());
    info.header.AddHistory("colours of the camera; " + shown);
    return;
  }
  if (image.GetWidth() < kSmallest || image.GetHeight() < kSmallest) {
    throw files::FileError(info.path,
                           fmt::format("a mosaic of {} x {} pixels is too small to develop; {} x {} is "
                                       "the smallest",
                                       image.GetWidth(), image.GetHeight(), kSmallest, kSmallest));
  }
  tagBayerStruct bayer;
  bayer.nCFA = mosaic.cfa;
  bayer.nSrcBits = bayer.nDstBits = -32;
  bayer.bMono = options.mono;
  bayer.bToneCurve = balances;
  bayer.pGain = gains.data();
  bayer.bLevelCut = options.levelCut;
  bayer.bGamma = options.gamma != 1;
  bayer.dGamma = options.gamma;
  bayer.bRoundUp = options.half;
  bayer.nRoundUpGreen = 2;
  CImgBayerToRgb developed;
  developed.Swap(&image);
  const int done = developed.Do(bayer, 0);
  developed.Swap(&image);
  if (!done) throw files::FileError(info.path, "there is no room to develop it; give --memory");
  if (options.half && balances) ScalePlanes(image, ByPlane(gains, mosaic.cfa).data());
  files::RemoveMosaic(info.header);
  info.header.AddHistory(fmt::format("mosaic {} ({}); {}", mosaic.name, mosaic.reason, shown));
  if (options.half) info.header.AddHistory("half the size, a pixel from each cell");
  if (options.gamma != 1) info.header.AddHistory(fmt::format("gamma {:g}", options.gamma));
}

}  // namespace korimg::tool
