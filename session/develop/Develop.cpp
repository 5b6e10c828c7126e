#include "session/develop/Develop.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <future>
#include <limits>

#include <fmt/format.h>

#include "korimg/image/CImgBright.h"
#include "korimg/image/Loan.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"
#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgHoneyCombToRgb.h"
#include "korimg/raw/CImgInformation.h"
#include "korimg/raw/internal/HoneycombLattice.h"

#include "session/files/Geometry.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Image.h"

namespace korimg::session {
namespace {

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

const std::vector<Named<WhiteBalanceChoice::Source>> kSources = {{"auto", WhiteBalanceChoice::Auto},
                                                                 {"camera", WhiteBalanceChoice::Camera},
                                                                 {"none", WhiteBalanceChoice::None}};

[[noreturn]] void ThrowWhiteBalance(const std::string& text) {
  throw UsageError(
      fmt::format("--white-balance {}: give auto, camera, none, or four positive gains such as "
                  "1.9,1,1,1.5, for the cells of the mosaic row by row, or red, green, green and blue of a "
                  "honeycomb",
                  text));
}

/// Gains by plane from those by cell; both greens become one.
std::array<double, 3> ByPlane(const std::array<double, 4>& cells, int cfa) {
  const auto [x, y] = files::FindRed(cfa);
  const int red = 2 * y + x, blue = 3 - red;
  double green = 0;
  for (int i = 0; i < 4; ++i) {
    if (i != red && i != blue) green += 0.5 * cells[i];
  }
  return {cells[red], green, cells[blue]};
}

/// Gains by position in the honeycomb's cell from those of red, green, green and blue.
std::array<double, HoneycombLattice::kPositions> ByPosition(const std::array<double, 4>& gains, int cfa) {
  const std::array<double, 3> planes = ByPlane(gains, files::CfaNumber("RGGB"));
  const HoneycombLattice lattice = *HoneycombLattice::Of(cfa);
  std::array<double, HoneycombLattice::kPositions> positions;
  for (int i = 0; i < HoneycombLattice::kPositions; ++i) {
    positions[i] = planes[lattice.ColourAt(HoneycombLattice::ColumnOf(i), HoneycombLattice::RowOf(i))];
  }
  return positions;
}

/// Multiplies each plane of an image whose black is 0.
void ScalePlanes(CVelImage& image, const double* gains) {
  constexpr double kTwice = 256;  // a contrast that doubles
  float brightness[3] = {}, contrast[3] = {};
  for (int p = 0; p < image.GetPlanes(); ++p) {
    contrast[p] = static_cast<float>((gains[p] - 1) * kTwice);
  }
  Loan<CImgBright> loan(image);
  loan.borrower.Do(brightness, contrast, 0, &loan.borrower, nullptr, 0);
}

/// Gains that bring red and blue to green by the medians of the sites, with the same trust in them.
std::array<double, 4> HoneycombGains(CVelImage& image, int cfa) {
  const HoneycombLattice lattice = *HoneycombLattice::Of(cfa);
  double medians[HoneycombLattice::kPositions], sums[3] = {}, counts[3] = {};
  Loan<CImgHoneyCombToRgb>(image).borrower.GetGain(cfa, medians);
  for (int i = 0; i < HoneycombLattice::kPositions; ++i) {
    const int colour = lattice.ColourAt(HoneycombLattice::ColumnOf(i), HoneycombLattice::RowOf(i));
    sums[colour] += medians[i];
    counts[colour] += 1;
  }
  const auto gain = [&](int colour) {
    const double own = sums[colour] / counts[colour];
    return own >= 1 ? sums[kGreen] / counts[kGreen] / own : 1.0;
  };
  return {gain(kRed), 1, 1, gain(kBlue)};
}

std::array<double, 4> GainsByMedians(CVelImage& image, int cfa) {
  // The library trusts medians of 1 and more; pixels from 0 to 1 are brought there, exactly, by a power of 2.
  constexpr double kScale = 65536, kUnitWhite = 16;
  const bool unit = image.GetLevelMax(0) <= kUnitWhite;
  if (unit) Calculate(image, Calculation::Multiply, kScale);
  std::array<double, 4> gains;
  if (files::IsHoneycomb(cfa)) {
    gains = HoneycombGains(image, cfa);
  } else {
    Loan<CImgBayerToRgb>(image).borrower.GetGain(cfa, gains.data());
  }
  if (unit) Calculate(image, Calculation::Multiply, 1 / kScale);
  return gains;
}

}  // namespace

WhiteBalanceChoice WhiteBalanceFrom(const std::string& text) {
  for (const auto& [name, source] : kSources) {
    if (text == name) return {source};
  }
  const auto gains = ParseGains(text);
  if (!gains) ThrowWhiteBalance(text);
  return {WhiteBalanceChoice::Gains, *gains};
}

std::string TextOf(const WhiteBalanceChoice& choice) {
  return choice.source == WhiteBalanceChoice::Gains ? fmt::format("{}", fmt::join(choice.gains, ","))
                                                    : NameOf(kSources, choice.source);
}

void CheckWhiteBalance(const WhiteBalanceChoice& wanted) {
  const auto isGain = [](double gain) { return gain > 0 && std::isfinite(gain); };
  if (wanted.source == WhiteBalanceChoice::Gains && !std::ranges::all_of(wanted.gains, isGain))
    ThrowWhiteBalance(TextOf(wanted));
}

bool PhasesDiffer(files::ImageReader& reader) {
  constexpr int kPairs = 64;                    // of lines; chosen
  constexpr double kClear = 0.5, kAlike = 0.3;  // of the noise, of the largest difference; chosen
  const files::ImageInfo& info = reader.Info();
  const int pairs = std::min(info.height / 2, kPairs), width = info.width / 2 * 2;
  if (info.planes > 1 || pairs == 0 || width == 0) return false;
  std::array<std::vector<float>, 4> places;
  BandBuffer buffer;
  for (int i = 0; i < pairs; ++i) {
    const int top = static_cast<int>(1LL * i * (info.height / 2) / pairs) * 2;
    const Band<float> rows = buffer.Get(1, info.width, top, 2);
    reader.ReadRows(rows);
    for (int k = 0; k < 2; ++k) {
      for (int x = 0; x < width; ++x) {
        const float v = rows.Row(0, top + k)[x];
        if (std::isfinite(v)) places[2 * k + x % 2].push_back(v);
      }
    }
  }
  double low = std::numeric_limits<double>::infinity(), high = -low, noise = 0;
  std::vector<double> medians;
  for (std::vector<float>& place : places) {
    if (place.empty()) return false;
    const float median = UpperMedian(place);
    medians.push_back(median);
    for (float& v : place) {
      v = std::abs(v - median);
    }
    low = std::min<double>(low, median);
    high = std::max<double>(high, median);
    noise = std::max<double>(noise, 1.4826 * UpperMedian(place));
  }
  // Green lies on one of the diagonals; a detector's rows or columns differ on both.
  const double green = std::min(std::abs(medians[0] - medians[3]), std::abs(medians[1] - medians[2]));
  return high - low > kClear * noise && green < kAlike * (high - low);
}

namespace {

/// The CFA number of a camera by its name; 0 for one that has no mosaic of ours, or is not known.
int CfaOfCamera(const files::ImageInfo& info) {
  // Some cameras change their pattern with the size of their frames. Nothing is held for pixels untouched.
  CImgInformation camera;
  camera.Create(
      CVelImage(CreatePagedManager(), CImage::Float, info.width, info.height, 1, 1.0, 0.0, 1, nullptr),
      nullptr);
  ReadHeader(info, *camera.GetHeader());
  int cfa = 0;
  return camera.GetAutoCFA(&cfa) && (cfa <= 4 || files::IsHoneycomb(cfa)) ? cfa : 0;
}

files::Mosaic ByName(const files::ImageInfo& info, int cfa, const std::string& rowOrder) {
  return files::FindMosaic(info, {files::CfaName(cfa), rowOrder, "by the name of its camera"});
}

}  // namespace

files::Mosaic MosaicOf(const files::ImageInfo& info, const files::MosaicOptions& options) {
  const files::Mosaic mosaic = files::FindMosaic(info, options);
  if (!mosaic.name.empty() || info.planes > 1) return mosaic;
  const int cfa = CfaOfCamera(info);
  // Frames of such a camera that were made mono keep its name.
  if (cfa == 0 || !PhasesDiffer(*files::ImageReader::Open(info.path))) return mosaic;
  return ByName(info, cfa, options.rowOrder);
}

files::Mosaic RequireMosaic(const files::ImageInfo& info, const files::MosaicOptions& options) {
  files::Mosaic mosaic = files::FindMosaic(info, options);
  if (mosaic.cfa > 0 || (info.camera && info.planes == 3)) return mosaic;
  if (info.planes > 1) throw files::FileError(info.path, "has colours already; there is nothing to develop");
  if (files::CfaNumber(mosaic.name) > 0) {
    throw files::FileError(info.path, fmt::format("its mosaic cannot be developed: {} {}; give --cfa or "
                                                  "--row-order if the file is wrong",
                                                  mosaic.name, mosaic.reason));
  }
  if (!mosaic.name.empty()) {
    throw files::FileError(info.path, fmt::format("a mosaic of the pattern {} is not supported; {} are. "
                                                  "If the file is wrong, give --cfa",
                                                  mosaic.name, fmt::join(files::CfaNames(), ", ")));
  }
  const int cfa = CfaOfCamera(info);
  if (cfa == 0) {
    throw files::FileError(info.path,
                           "says nothing of a mosaic (BAYERPAT); if it is one, give --cfa with its pattern");
  }
  return ByName(info, cfa, options.rowOrder);
}

bool NeedsMedians(const files::ImageInfo& info, const WhiteBalanceChoice& wanted) {
  return wanted.source == WhiteBalanceChoice::Auto && info.planes == 1 &&
         !(info.camera && info.camera->hasGains);
}

WhiteBalance ChooseWhiteBalance(CVelImage* image, const files::ImageInfo& info, const files::Mosaic& mosaic,
                                const WhiteBalanceChoice& wanted) {
  CheckWhiteBalance(wanted);
  if (wanted.source == WhiteBalanceChoice::Gains) return {wanted.gains, "as told"};
  if (NeedsMedians(info, wanted)) return {GainsByMedians(*image, mosaic.cfa), "by medians"};
  if (info.camera && info.camera->hasGains && wanted.source != WhiteBalanceChoice::None)
    return {info.camera->gains, "the camera's"};
  if (wanted.source == WhiteBalanceChoice::Camera) {
    throw files::FileError(info.path,
                           "knows no white balance of its camera; give --white-balance auto, none or gains");
  }
  return {{1, 1, 1, 1}, "none"};
}

MosaicSource::MosaicSource(CVelImage& image)
    : shape{image.GetWidth(), image.GetHeight(), image.GetPlanes()},
      levels(image),
      store(image.VmManager()),
      read([&image](const Band<float>& to) {
        for (int p = 0; p < to.Planes(); ++p) {
          for (int y = to.Top(); y < to.Bottom(); ++y) {
            std::copy_n(image.GetLine(0, y, p), to.Width(), to.Row(p, y).data());
          }
        }
      }) {}

MosaicSource::MosaicSource(files::ImageReader& reader, const Levels& levels,
                           std::shared_ptr<CVmManager> store)
    : shape{reader.Info().width, reader.Info().height, reader.Info().planes},
      levels(levels),
      store(std::move(store)),
      read([&reader](const Band<float>& to) { reader.ReadRows(to); }) {}

Development::Development(MosaicSource source, files::ImageInfo& info, const files::Mosaic& mosaic,
                         const WhiteBalance& balance, const DevelopOptions& options)
    : source_(std::move(source)),
      path_(info.path),
      cfa_(mosaic.cfa),
      gains_(balance.gains),
      options_(options) {
  if (cfa_ == 0 && (options.mono || options.half || options.levelCut || options.gamma != 1)) {
    throw files::FileError(path_,
                           "has colours already: --mono, --half, --gamma and --level-cut are for mosaics");
  }
  if (cfa_ > 0 && (std::min(source_.shape.width, source_.shape.height) < Smallest())) {
    throw files::FileError(path_,
                           fmt::format("a mosaic of {} x {} pixels is too small to develop; {} x {} is "
                                       "the smallest",
                                       source_.shape.width, source_.shape.height, Smallest(), Smallest()));
  }
  if (files::IsHoneycomb(cfa_) && options.half) {
    throw files::FileError(path_, "is a honeycomb, which has no cells for half the size: leave out --half");
  }
  info.header.AddHistory(fmt::format("korimg {} develop", Version()));
  info.header.AddHistory(fmt::format(
      "{}; white balance {} ({:.4g})",
      cfa_ > 0 ? fmt::format("mosaic {} ({})", mosaic.name, mosaic.reason) : "colours of the camera",
      balance.text, fmt::join(gains_, ", ")));
  if (options.scale != 1) info.header.AddHistory(fmt::format("multiplied by {:.9g}", options.scale));
  for (int i = 0; i < 4; ++i) {
    gains_[i] *= options.scale;
  }
  for (int p = 0; p < source_.shape.planes; ++p) {
    source_.levels.max[p] *= options.scale;
  }
  if (options.half) info.header.AddHistory("half the size, a pixel from each cell");
  if (options.gamma != 1) info.header.AddHistory(fmt::format("gamma {:g}", options.gamma));
  if (cfa_ > 0) files::RemoveMosaic(info.header);
}

Shape Development::Size() const {
  const int part = options_.half ? 2 : 1;
  return {source_.shape.width / part, source_.shape.height / part, options_.mono ? 1 : 3};
}

int Development::Period() const {
  return cfa_ == 0 ? 1 : files::IsHoneycomb(cfa_) ? HoneycombLattice::kPeriod : 2;
}

int Development::Smallest() const {
  return cfa_ == 0 ? 1 : files::IsHoneycomb(cfa_) ? 10 : 6;
}

/// An image for some of the source's pixels, with its levels.
std::unique_ptr<CVelImage> Development::NewImage(int width, int height) const {
  auto image = std::make_unique<CVelImage>(source_.store, CImage::Float, width, height, source_.shape.planes,
                                           1.0, 0.0, 1, nullptr);
  for (int p = 0; p < source_.shape.planes; ++p) {
    image->SetLevel(p, source_.levels.min[p], source_.levels.max[p]);
  }
  return image;
}

void Development::DevelopBand(CVelImage& band, int trimTop, int trimBottom) {
  const bool balances = gains_ != std::array<double, 4>{1, 1, 1, 1};
  if (cfa_ == 0) {
    if (balances) ScalePlanes(band, gains_.data());
    return;
  }
  const auto fill = [&](auto& parameters, double* gains) {
    parameters.nCFA = cfa_;
    parameters.nSrcBits = parameters.nDstBits = -32;
    parameters.nTrimTop = trimTop;
    parameters.nTrimBottom = trimBottom;
    parameters.bMono = options_.mono;
    parameters.bToneCurve = balances;
    parameters.pGain = gains;
    parameters.bLevelCut = options_.levelCut;
    parameters.bGamma = options_.gamma != 1;
    parameters.dGamma = options_.gamma;
  };
  int done = 0;
  if (files::IsHoneycomb(cfa_)) {
    auto gains = ByPosition(gains_, cfa_);
    tagHoneyCombStruct honeyComb;
    fill(honeyComb, gains.data());
    honeyComb.nKind = 1;
    done = Loan<CImgHoneyCombToRgb>(band).borrower.Do(honeyComb, 0);
  } else {
    tagBayerStruct bayer;
    fill(bayer, gains_.data());
    bayer.bRoundUp = options_.half;
    bayer.nRoundUpGreen = 2;
    done = Loan<CImgBayerToRgb>(band).borrower.Do(bayer, 0);
  }
  if (!done) throw files::FileError(path_, "there is no room to develop it; give --memory");
  if (options_.half && balances) ScalePlanes(band, ByPlane(gains_, cfa_).data());
}

Levels Development::PictureLevels(int side, LevelMethod method) {
  // Whole cells, so that the sample is a mosaic too.
  const auto& [width, height, planes] = source_.shape;
  const int step = ShrinkTo(source_.shape, side), cell = Period();
  const auto place = [=](int i, int end) {
    return std::min(i / cell * cell * step, (end / cell - 1) * cell) + i % cell;
  };
  const auto length = [this, step, cell](int end) {
    return std::max(end / step / cell * cell, std::min(end, Smallest()));
  };
  const auto sample = NewImage(length(width), length(height));
  BandBuffer buffer;
  for (int y = 0; y < sample->GetHeight(); ++y) {
    const Band<float> line = buffer.Get(planes, width, place(y, height), 1);
    source_.read(line);
    for (int p = 0; p < planes; ++p) {
      float* to = sample->GetWritableLine(0, y, p);
      for (int x = 0; x < sample->GetWidth(); ++x) {
        to[x] = line.Plane(p)[0][place(x, width)];
      }
    }
  }
  DevelopBand(*sample, 0, 0);
  return LevelForPicture(*sample, method);
}

std::unique_ptr<CVelImage> Development::Rows(int y0, int y1) {
  const int margin = cfa_ == 0 || options_.half ? 0 : 4;  // rows that a developed one looks at, or one more
  const int least = options_.half ? 1 : Smallest(), part = options_.half ? 2 : 1;
  const int height = source_.shape.height / part * part, first = y0 * part, last = y1 * part;
  // A mosaic begins with the first row of a cell.
  const int wanted = std::min(first - margin, height - least);
  const int top = std::max(wanted / Period() * Period(), 0);
  const int bottom = std::min(std::max(last + margin, top + least), height);
  auto band = NewImage(source_.shape.width, bottom - top);
  source_.read(Image::RowsOf(*band, 0, bottom - top).At(top));
  DevelopBand(*band, first - top, bottom - last);
  return band;
}

void Development::ForBands(Job& job, const std::string& title,
                           const std::function<void(std::unique_ptr<CVelImage>)>& visit, bool fromLowest) {
  constexpr int kBandRows = 128;  // chosen: many rows beside the margins
  const int height = Size().height;
  for (int done = 0, rows; done < height; done += rows) {
    job.CheckCancelled();
    job.Progress(title, done, height);
    rows = std::min(kBandRows, height - done);
    const int y = fromLowest ? height - done - rows : done;
    visit(Rows(y, y + rows));
  }
  job.EndProgress();
}

void SaveDeveloped(Job& job, Development& development, const files::Header& header, const Levels& levels,
                   const Levels& pictureLevels, const std::filesystem::path& output, const SaveOptions& save,
                   const std::optional<std::filesystem::path>& preview, int side,
                   const std::function<void(CVelImage&)>& change,
                   const std::function<void(const QualityRows&)>& quality) {
  const Shape shape = development.Size();
  ImageSaver image(job, output, shape, levels, header, save);
  std::optional<PictureSaver> picture;
  const bool overturned = files::IsPictureOverturned(header), turns = overturned && !IsFits(output);
  if (preview) {
    picture.emplace(job, *preview, shape, pictureLevels, ShrinkTo(shape, side), overturned && !turns);
  }
  const auto policy = CParallel::GetMaxThreads() > 1 ? std::launch::async : std::launch::deferred;
  std::future<void> writing;
  int next = 0;
  BandBuffer variances, masks;
  const auto writeQuality = [&](int top, int rows) {
    const auto room = [&](bool isWanted, BandBuffer& buffer) {
      return isWanted ? buffer.Get(shape.planes, shape.width, top, rows) : Band<float>();
    };
    const QualityRows filled{room(save.uncertainty, variances), room(save.mask, masks)};
    quality(filled);
    image.WriteQuality(filled.variance, filled.mask);
  };
  development.ForBands(
      job, "developing " + output.filename().string(),
      [&](std::unique_ptr<CVelImage> band) {
        change(*band);
        if (turns) TurnOver(*band);
        const Band<const float> rows = Image::RowsOf(*band, 0, band->GetHeight(), true);
        if (picture) picture->Write(rows);
        if (writing.valid()) writing.get();
        writing = std::async(policy, [&, rows, top = next, band = std::move(band)] {
          image.Write(rows);
          if (save.uncertainty || save.mask) writeQuality(top, rows.Rows());
        });
        next += rows.Rows();
      },
      turns);
  writing.get();
  image.Commit();
  if (picture) picture->Commit();
}

}  // namespace korimg::session
