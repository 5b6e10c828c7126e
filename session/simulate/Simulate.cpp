#include "session/simulate/Simulate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <numbers>
#include <optional>
#include <set>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <omp.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/raw/internal/HoneycombLattice.h"

#include "session/files/Formats.h"
#include "session/files/ImageFile.h"
#include "session/files/Mosaic.h"
#include "session/job/internal/Edge.h"
#include "session/simulate/internal/Random.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

// The camera.
constexpr double kGain = 0.8;           // electrons per ADU
constexpr double kReadNoise = 3;        // electrons
constexpr double kBias = 500;           // ADU
constexpr double kColumnPattern = 1.5;  // ADU, deviation of the columns' bias
constexpr double kDarkRate = 0.02;      // electrons per second
constexpr double kHotShare = 0.0005;    // of all pixels
constexpr double kResponse = 0.005;     // deviation of the pixels' response
constexpr double kCorner = 0.70;        // what the vignette leaves in the corners
constexpr double kWhite = 65535;        // ADU

// The sky and the exposures.
constexpr double kExposure = 120, kFlatExposure = 2;  // seconds
constexpr double kSky = 800;                          // electrons per light
constexpr double kGradientX = 0.12, kGradientY = -0.06;
constexpr double kFlatLevel = 24000;  // electrons
constexpr double kNebula = 250;       // electrons at its brightest
constexpr double kFwhm = 3;           // pixels, of the reference frame
constexpr double kTrail = 600;        // electrons at the middle of the satellite's trail
constexpr double kTrailSigma = 1.5;   // pixels

/// What a filter lets through, relative to a mono sensor without one: of the sky, the nebula, the lamp of the
/// flats, and a star of colour 0; each colour of a star multiplies its light by 10^slope.
struct Passband {
  std::string name;
  double sky, nebula, lamp, star, slope;
};

/// Filters before the pixels of a mosaic. A mono sensor without filters is as the green pixels.
const Passband kRedPixel = {"red", 0.9, 2.2, 0.7, 1, 0.2}, kGreenPixel = {"green", 1, 1, 1, 1, 0},
               kBluePixel = {"blue", 0.75, 1.2, 0.8, 1, -0.2};

/// Filters of a wheel: luminance, thirds of its band, and lines 7 nm wide. Flats are exposed to one level.
const std::vector<Passband> kFilters = {
    {"L", 1, 1, 1, 1, 0},
    {"R", 0.36, 0.6, 1, 0.4, 0.2},
    {"G", 0.4, 0.25, 1, 0.4, 0},
    {"B", 0.3, 0.35, 1, 0.4, -0.2},
    {"Ha", 0.03, 0.8, 1, 0.03, 0.25},
    {"OIII", 0.03, 0.3, 1, 0.03, 0},
    {"SII", 0.03, 0.2, 1, 0.03, 0.25},
};

/// What random numbers are for: a part of their key.
enum Purpose : std::uint64_t {
  kStars = 1,
  kMotion,
  kNebulaShape,
  kDust,
  kHotPixels,
  kPixelResponse,
  kColumns,
  kCosmics,
  kTrailPath,
  kNoise
};

enum Kind : std::uint64_t { kLight, kDark, kFlat, kBiasFrame };

struct Star {
  double x, y, flux, colour;  // flux in electrons per light; colour > 0 is red
};

struct Dust {
  double x, y, inner, outer, edge, depth;
};

struct HotPixel {
  int x, y;
  double rate;  // electrons per second
};

/// A pixel that a cosmic ray has hit.
struct HitPixel {
  int x, y;
  double electrons;
};

/// Where a light points, how clear the air is, and what is before the sensor.
struct Pose {
  double dx = 0, dy = 0, degrees = 0, fwhm = kFwhm, transparency = 1, sky = 1;
};

struct Trail {
  double x0, y0, x1, y1;
};

/// Smooth brightness in 0..1 over the reference frame and a margin around it, sampled every kStep pixels.
class Nebula {
 public:
  Nebula(std::uint64_t seed, int width, int height)
      : columns_((width + 2 * kMargin) / kStep + 2), rows_((height + 2 * kMargin) / kStep + 2) {
    values_.resize(static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_));
    const double extent = std::max(width, height);
    for (int j = 0; j < rows_; ++j) {
      for (int i = 0; i < columns_; ++i) {
        const double x = i * kStep, y = j * kStep;
        double sum = 0, weight = 1;
        for (int octave = 0; octave < 4; ++octave, weight /= 2) {
          sum += weight * Lattice(seed, static_cast<std::uint64_t>(octave), x, y, extent / (4 << octave));
        }
        // Only the peaks of the noise glow: most of the field is free sky.
        const double glow = std::clamp((sum / 1.875 - 0.58) / 0.25, 0.0, 1.0);
        values_[Index(i, j)] = static_cast<float>(glow * glow);
      }
    }
  }

  double At(double x, double y) const {
    x = std::clamp((x + kMargin) / kStep, 0.0, columns_ - 1.001);
    y = std::clamp((y + kMargin) / kStep, 0.0, rows_ - 1.001);
    const int i = static_cast<int>(x), j = static_cast<int>(y);
    const double u = x - i, v = y - j;
    return (values_[Index(i, j)] * (1 - u) + values_[Index(i + 1, j)] * u) * (1 - v) +
           (values_[Index(i, j + 1)] * (1 - u) + values_[Index(i + 1, j + 1)] * u) * v;
  }

 private:
  static constexpr int kStep = 4, kMargin = 64;

  std::size_t Index(int i, int j) const {
    return static_cast<std::size_t>(j) * static_cast<std::size_t>(columns_) + static_cast<std::size_t>(i);
  }

  /// Random values on a lattice, joined smoothly.
  static double Lattice(std::uint64_t seed, std::uint64_t octave, double x, double y, double cell) {
    x /= cell;
    y /= cell;
    const auto i = static_cast<std::uint64_t>(x), j = static_cast<std::uint64_t>(y);
    const auto value = [&](std::uint64_t a, std::uint64_t b) {
      return Random({seed, kNebulaShape, octave, i + a, j + b}).Uniform();
    };
    const auto smooth = [](double t) { return t * t * t * (t * (6 * t - 15) + 10); };
    const double u = smooth(x - static_cast<double>(i)), v = smooth(y - static_cast<double>(j));
    return std::lerp(std::lerp(value(0, 0), value(1, 0), u), std::lerp(value(0, 1), value(1, 1), u), v);
  }

  int columns_, rows_;
  std::vector<float> values_;
};

class SimulatedSession {
 public:
  SimulatedSession(Job& job, const fs::path& folder, const SimulateOptions& options)
      : job_(job),
        folder_(folder),
        options_(options),
        width_(options.width),
        height_(options.height),
        middleX_((width_ - 1) / 2.0),
        middleY_((height_ - 1) / 2.0),
        bands_(BandsOf(options)),
        lattice_(HoneycombLattice::Of(files::CfaNumber(options.bayer))),
        lights_(options.frames * Filters()),
        calibrationFrames_(std::min(10, std::max(3, options.frames / 2))),
        flats_(calibrationFrames_ * Filters()),
        nebula_(options.seed, width_, height_),
        flat_(Pixels()),
        dark_(Pixels(), static_cast<float>(kDarkRate)),
        light_(Pixels()) {
    MakeStars();
    MakePoses();
    MakeSensor();
  }

  void Write() {
    const bool overwrites = job_.options.overwrite;
    if (fs::exists(TruthPath()) && !overwrites) {
      throw files::FileError(TruthPath(),
                             "exists already; use --overwrite to replace the session, or another folder");
    }
    const int total = lights_ + flats_ + 2 * calibrationFrames_;
    int done = 0;
    const struct {
      Kind kind;
      const char *folder, *name;
      int count;       // for each filter
      bool isOfLight;  // through the filters
    } kinds[] = {{kLight, "lights", "light", options_.frames, true},
                 {kDark, "darks", "dark", calibrationFrames_, false},
                 {kFlat, "flats", "flat", calibrationFrames_, true},
                 {kBiasFrame, "biases", "bias", calibrationFrames_, false}};
    for (const auto& [kind, subfolder, name, count, isOfLight] : kinds) {
      fs::create_directories(folder_ / subfolder);
      Json names = Json::array();
      for (int f = 0; f < (isOfLight ? Filters() : 1); ++f) {
        const auto file = [&, isOfLight = isOfLight, subfolder = subfolder, name = name](int i) {
          const std::string filter =
              isOfLight && !options_.filters.empty() ? options_.filters[Key(f)] + "_" : "";
          return fmt::format("{}/{}_{}{:04}.fits", subfolder, name, filter, i + 1);
        };
        for (int i = 0; i < count; ++i) {
          if (kind == kLight) Expose(f * count + i);
          WriteFrame(folder_ / file(i), kind, f * count + i);
          names.push_back(file(i));
          job_.Progress("simulating", ++done, total);
          job_.CheckCancelled();
        }
        // Frames of an earlier, longer session do not belong to this one.
        for (int i = count; overwrites && fs::remove(folder_ / file(i)); ++i) {
        }
      }
      files_[subfolder] = std::move(names);
    }
    WriteTruth();
    job_.EndProgress();
  }

 private:
  fs::path TruthPath() const { return folder_ / "truth.json"; }
  std::size_t Pixels() const { return static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_); }
  std::size_t Index(int x, int y) const {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x);
  }
  int Threads() const { return options_.threads > 0 ? options_.threads : omp_get_max_threads(); }
  static std::uint64_t Key(int value) { return static_cast<std::uint64_t>(value); }

  /// What is before the sensor: filters of a wheel, or those of a mosaic's pixels.
  static std::vector<Passband> BandsOf(const SimulateOptions& options) {
    if (!options.bayer.empty()) return {kRedPixel, kGreenPixel, kBluePixel};
    if (options.filters.empty()) return {kGreenPixel};
    std::vector<Passband> bands;
    for (const std::string& name : options.filters) {
      bands.push_back(*std::find_if(kFilters.begin(), kFilters.end(),
                                    [&](const Passband& known) { return known.name == name; }));
    }
    return bands;
  }

  int Filters() const { return std::max<int>(1, static_cast<int>(options_.filters.size())); }

  /// The number of what is before a pixel of a light or flat.
  std::size_t BandBefore(Kind kind, int frame, int x, int y) const {
    if (lattice_) return Key(lattice_->ColourAt(x, y));
    if (!options_.bayer.empty()) {
      const char letter = options_.bayer[Key((y & 1) * 2 + (x & 1))];
      return letter == 'R' ? 0 : letter == 'G' ? 1 : 2;
    }
    return options_.filters.empty() ? 0
                                    : Key(frame / (kind == kLight ? options_.frames : calibrationFrames_));
  }

  /// The sensor has a pixel there.
  bool IsSite(int x, int y) const { return !lattice_ || lattice_->IsSite(x, y); }

  static double StarLight(const Passband& band, double colour) {
    return band.star * std::pow(10, band.slope * colour);
  }

  void MakeStars() {
    // A little beyond the frame, as shifts bring stars in. Counts grow with falling flux as in the galactic
    // plane.
    constexpr double kLeastMargin = 40, kAreaPerStar = 2500, kSlope = 0.8, kFaintest = 600, kBrightest = 3e6;
    const double marginX = kLeastMargin + (options_.dither + options_.barrel) * width_,
                 marginY = kLeastMargin + (options_.dither + options_.barrel) * height_,
                 area = (width_ + 2 * marginX) * (height_ + 2 * marginY);
    Random random({options_.seed, kStars});
    const int count = std::max(30, static_cast<int>(area / kAreaPerStar));
    for (int i = 0; i < count; ++i) {
      Star star;
      star.x = random.Uniform(-marginX, width_ + marginX);
      star.y = random.Uniform(-marginY, height_ + marginY);
      star.flux = std::min(kBrightest, kFaintest * std::pow(random.Uniform(), -1 / kSlope));
      star.colour = std::clamp(0.2 + 0.5 * random.Normal(), -1.0, 1.5);
      stars_.push_back(star);
    }
    std::sort(stars_.begin(), stars_.end(), [](const Star& a, const Star& b) { return a.flux > b.flux; });
  }

  void MakePoses() {
    constexpr double kShift = 12, kTurn = 0.25;  // pixels, degrees
    const double shiftX = options_.dither > 0 ? options_.dither * width_ : kShift,
                 shiftY = options_.dither > 0 ? options_.dither * height_ : kShift;
    poses_.resize(static_cast<std::size_t>(lights_));
    for (std::size_t i = 1; i < poses_.size(); ++i) {
      Random random({options_.seed, kMotion, i});
      poses_[i] = {.dx = random.Uniform(-shiftX, shiftX),
                   .dy = random.Uniform(-shiftY, shiftY),
                   .degrees = random.Uniform(-kTurn, kTurn),
                   .fwhm = kFwhm * random.Uniform(0.95, 1.15),
                   .transparency = random.Uniform(0.88, 1),
                   .sky = random.Uniform(0.95, 1.15)};
    }
    Random random({options_.seed, kTrailPath});
    trail_ = {0, random.Uniform(0.1, 0.9) * height_, width_ - 1.0, random.Uniform(0.1, 0.9) * height_};
  }

  /// Flat field, dark current and bias of every pixel.
  void MakeSensor() {
    Random random({options_.seed, kDust});
    const double size = std::min(width_, height_);
    for (int i = 0; i < 6; ++i) {
      Dust dust;
      dust.x = random.Uniform(0.1, 0.9) * width_;
      dust.y = random.Uniform(0.1, 0.9) * height_;
      dust.outer = random.Uniform(0.01, 0.025) * size + 3;
      dust.inner = dust.outer * random.Uniform(0.4, 0.6);
      dust.edge = 1 + dust.outer * 0.05;
      dust.depth = random.Uniform(0.04, 0.12);
      dust_.push_back(dust);
    }
    const double radius2 = middleX_ * middleX_ + middleY_ * middleY_;
    vignette_ = 1 / std::sqrt(kCorner) - 1;
    double sum = 0, lampSum = 0;
    for (int y = 0; y < height_; ++y) {
      Random response({options_.seed, kPixelResponse, Key(y)});
      for (int x = 0; x < width_; ++x) {
        const double dx = x - middleX_, dy = y - middleY_;
        const double fall = 1 + vignette_ * (dx * dx + dy * dy) / radius2;
        const double value = 1 / (fall * fall) * (1 + kResponse * response.Normal());
        flat_[Index(x, y)] = static_cast<float>(value);
      }
    }
    for (const Dust& dust : dust_)
      Shade(dust);
    double sites = 0;
    for (int y = 0; y < height_; ++y) {
      for (int x = 0; x < width_; ++x) {
        if (!IsSite(x, y)) continue;
        sum += flat_[Index(x, y)];
        lampSum += flat_[Index(x, y)] * bands_[BandBefore(kFlat, 0, x, y)].lamp;
        ++sites;
      }
    }
    flatMean_ = sum / sites;
    lampMean_ = lampSum / sites;

    Random hot({options_.seed, kHotPixels});
    const int count = std::max(5, static_cast<int>(kHotShare * static_cast<double>(Pixels())));
    for (int i = 0; i < count; ++i) {
      HotPixel pixel;
      pixel.x = static_cast<int>(hot.Uniform() * width_);
      pixel.y = static_cast<int>(hot.Uniform() * height_);
      pixel.rate = std::pow(10, hot.Uniform(2, 5.2)) / kExposure;
      if (dark_[Index(pixel.x, pixel.y)] > kDarkRate * 1.5 || !IsSite(pixel.x, pixel.y)) continue;  // taken
      dark_[Index(pixel.x, pixel.y)] += static_cast<float>(pixel.rate);
      hot_.push_back(pixel);
    }
    std::sort(hot_.begin(), hot_.end(), [](const HotPixel& a, const HotPixel& b) { return a.rate > b.rate; });

    Random columns({options_.seed, kColumns});
    for (int x = 0; x < width_; ++x)
      bias_.push_back(kBias + kColumnPattern * columns.Normal());
  }

  /// A ring with soft edges: the shadow of a grain far before the sensor.
  void Shade(const Dust& dust) {
    const double reach = dust.outer + 8 * dust.edge;
    const auto step = [&](double r) { return 1 / (1 + std::exp(r / dust.edge)); };
    ForBox(dust.x, dust.y, reach, [&](int x, int y) {
      const double r = std::hypot(x - dust.x, y - dust.y);
      flat_[Index(x, y)] *=
          static_cast<float>(1 - dust.depth * (step(r - dust.outer) - step(r - dust.inner)));
    });
  }

  template <typename Action>
  void ForBox(double x, double y, double reach, Action action) const {
    const int x0 = std::max(0, static_cast<int>(std::ceil(x - reach)));
    const int x1 = std::min(width_ - 1, static_cast<int>(std::floor(x + reach)));
    const int y0 = std::max(0, static_cast<int>(std::ceil(y - reach)));
    const int y1 = std::min(height_ - 1, static_cast<int>(std::floor(y + reach)));
    for (int j = y0; j <= y1; ++j) {
      for (int i = x0; i <= x1; ++i)
        action(i, j);
    }
  }

  /// Puts what only this light shows into light_: stars, trail, cosmic rays. Electrons before the flat field.
  void Expose(int frame) {
    std::fill(light_.begin(), light_.end(), 0.0f);
    const Pose& pose = poses_[static_cast<std::size_t>(frame)];
    const double angle = pose.degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
    for (const Star& star : stars_) {
      const double x = star.x - middleX_, y = star.y - middleY_;
      const double u = c * x - s * y + pose.dx, v = s * x + c * y + pose.dy;
      const double drawn = 1 - options_.barrel * (u * u + v * v) / Corner2();
      AddStar(middleX_ + u * drawn, middleY_ + v * drawn, star, frame);
    }
    if (frame == TrailFrame()) AddTrail();
    AddCosmics(frame);
  }

  /// Of the distance from the middle to a corner, the square.
  double Corner2() const { return middleX_ * middleX_ + middleY_ * middleY_; }

  /// How much farther from the middle something would lie without the lens that is seen at (x, y) from there.
  double Undrawn(double x, double y) const {
    constexpr int kRounds = 30;
    double factor = 1;
    for (int i = 0; i < kRounds && options_.barrel > 0; ++i) {
      factor = 1 / (1 - options_.barrel * (x * x + y * y) * factor * factor / Corner2());
    }
    return factor;
  }

  /// A Moffat profile of beta 3, integrated over the pixels: by nine points each where it is steep.
  void AddStar(double x, double y, const Star& star, int frame) {
    const Pose& pose = poses_[static_cast<std::size_t>(frame)];
    constexpr double kNegligible = 0.02, kSteep = 6;  // electrons, pixels
    constexpr std::array<double, 3> kNode = {-0.3872983346207417, 0, 0.3872983346207417},
                                    kWeight = {5.0 / 18, 8.0 / 18, 5.0 / 18};
    const double width = pose.fwhm / (2 * std::sqrt(std::cbrt(2.0) - 1)), width2 = width * width;
    const double flux = star.flux * pose.transparency, peak = flux * 2 / (std::numbers::pi * width2);
    const double reach = width * std::pow(std::max(1.0, peak / kNegligible), 1.0 / 6) + 1;
    const auto profile = [&](double dx, double dy) {
      const double t = 1 + (dx * dx + dy * dy) / width2;
      return peak / (t * t * t);
    };
    std::vector<double> share;  // of the bands
    for (const Passband& band : bands_) {
      share.push_back(StarLight(band, star.colour));
    }
    ForBox(x, y, reach, [&](int i, int j) {
      const double dx = i - x, dy = j - y;
      double sum = 0;
      if (std::max(std::abs(dx), std::abs(dy)) > kSteep) {
        sum = profile(dx, dy);
      } else {
        for (std::size_t a = 0; a < 3; ++a) {
          for (std::size_t b = 0; b < 3; ++b)
            sum += kWeight[a] * kWeight[b] * profile(dx + kNode[a], dy + kNode[b]);
        }
      }
      light_[Index(i, j)] += static_cast<float>(sum * share[BandBefore(kLight, frame, i, j)]);
    });
  }

  int TrailFrame() const { return lights_ / 2; }

  void AddTrail() {
    const double dx = trail_.x1 - trail_.x0, dy = trail_.y1 - trail_.y0, length = std::hypot(dx, dy);
    for (int y = 0; y < height_; ++y) {
      for (int x = 0; x < width_; ++x) {
        const double away = ((x - trail_.x0) * dy - (y - trail_.y0) * dx) / length / kTrailSigma;
        if (std::abs(away) < 5)
          light_[Index(x, y)] += static_cast<float>(kTrail * std::exp(-away * away / 2));
      }
    }
  }

  int CosmicCount(int frame) const {
    constexpr double kPerPixel = 1.2e-5;
    return std::max(1, static_cast<int>(Random({options_.seed, kCosmics, Key(frame), 1})
                                            .Poisson(kPerPixel * static_cast<double>(Pixels()))));
  }

  /// Short sharp streaks. They pass the optics by: the flat field is divided out beforehand.
  void AddCosmics(int frame) {
    for (const HitPixel& pixel : HitPixels(frame)) {
      light_[Index(pixel.x, pixel.y)] += static_cast<float>(pixel.electrons / flat_[Index(pixel.x, pixel.y)]);
    }
  }

  std::vector<HitPixel> HitPixels(int frame) const {
    std::vector<HitPixel> pixels;
    Random random({options_.seed, kCosmics, Key(frame), 2});
    for (int n = CosmicCount(frame); n > 0; --n) {
      const double x = random.Uniform() * width_, y = random.Uniform() * height_;
      const double angle = random.Uniform(0, 2 * std::numbers::pi);
      const double energy = 1000 * std::pow(10, random.Uniform(0, 1.3));  // electrons per pixel
      for (int step = 0, length = 1 + static_cast<int>(random.Uniform() * 8); step < length; ++step) {
        const int i = static_cast<int>(x + step * std::cos(angle)),
                  j = static_cast<int>(y + step * std::sin(angle));
        if (i < 0 || j < 0 || i >= width_ || j >= height_) break;
        pixels.push_back({i, j, energy});
      }
    }
    return pixels;
  }

  /// Expected electrons in a row of a frame.
  void Expect(Kind kind, int frame, int y, std::vector<double>& row) const {
    const double seconds = kind == kFlat ? kFlatExposure : kind == kBiasFrame ? 0 : kExposure;
    for (int x = 0; x < width_; ++x)
      row[static_cast<std::size_t>(x)] = seconds * dark_[Index(x, y)];
    if (kind == kFlat) {
      for (int x = 0; x < width_; ++x) {
        row[static_cast<std::size_t>(x)] +=
            kFlatLevel * bands_[BandBefore(kind, frame, x, y)].lamp * flat_[Index(x, y)];
      }
    }
    if (kind != kLight) return;
    const Pose& pose = poses_[static_cast<std::size_t>(frame)];
    const double angle = pose.degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
    for (int x = 0; x < width_; ++x) {
      const Passband& band = bands_[BandBefore(kind, frame, x, y)];
      const double undrawn = Undrawn(x - middleX_, y - middleY_);
      const double fromX = (x - middleX_) * undrawn - pose.dx, fromY = (y - middleY_) * undrawn - pose.dy;
      const double glow = nebula_.At(middleX_ + c * fromX + s * fromY, middleY_ - s * fromX + c * fromY);
      const double gradient =
          1 + kGradientX * (x - middleX_) / width_ + kGradientY * (y - middleY_) / height_;
      row[static_cast<std::size_t>(x)] +=
          flat_[Index(x, y)] * (light_[Index(x, y)] + kNebula * band.nebula * pose.transparency * glow +
                                kSky * band.sky * pose.sky * gradient);
    }
  }

  void WriteFrame(const fs::path& path, Kind kind, int frame) {
    constexpr int kBand = 128;
    const auto writer = files::ImageWriter::Create(path, {.width = width_,
                                                          .height = height_,
                                                          .type = "uint16",
                                                          .header = MakeHeader(kind, frame),
                                                          .verbatim = true,
                                                          .overwrite = job_.options.overwrite});
    BandBuffer buffer;
    for (int y0 = 0; y0 < height_; y0 += kBand) {
      const Band<float> band = buffer.Get(1, width_, y0, std::min(kBand, height_ - y0));
#pragma omp parallel num_threads(Threads())
      {
        std::vector<double> row(static_cast<std::size_t>(width_));
#pragma omp for schedule(dynamic)
        for (int y = y0; y < band.Bottom(); ++y) {
          Expect(kind, frame, y, row);
          Random random({NoiseSeed(), kNoise, kind, Key(frame), Key(y)});
          float* out = band.Row(0, y).data();
          for (std::size_t x = 0; x < row.size(); ++x) {
            const double electrons = random.Poisson(row[x]) + kReadNoise * random.Normal();
            const bool site = IsSite(static_cast<int>(x), y);
            out[x] = site ? static_cast<float>(electrons / kGain + bias_[x]) : 0.0f;
          }
        }
      }
      writer->WriteRows(band);
    }
    writer->Commit();
  }

  std::uint64_t NoiseSeed() const {
    return options_.noiseSeed ? options_.noiseSeed : options_.seed;
  }

  static std::string Time(int seconds) {
    // The night begins at 20:00 and has at most a few days.
    const int time = 20 * 3600 + seconds;
    return fmt::format("2026-01-{:02}T{:02}:{:02}:{:02}.000", 10 + time / 86400, time / 3600 % 24,
                       time / 60 % 60, time % 60);
  }

  files::Header MakeHeader(Kind kind, int frame) const {
    constexpr const char* kNames[] = {"Light Frame", "Dark Frame", "Flat Frame", "Bias Frame"};
    const double seconds = kind == kFlat ? kFlatExposure : kind == kBiasFrame ? 0 : kExposure;
    // Lights first, then the other kinds, every frame with five seconds for its readout.
    const int before[] = {0, lights_, lights_ + calibrationFrames_, lights_ + calibrationFrames_ + flats_};
    constexpr int kCadence = static_cast<int>(kExposure) + 5;
    const int start = (before[kind] + frame) * kCadence % (20 * 86400);
    Random random({options_.seed, kNoise, kind, Key(frame)});
    files::Header header;
    header.Set("IMAGETYP", kNames[kind], "kind of exposure");
    header.Set("EXPTIME", seconds, "[s] exposure time");
    header.Set("EXPOSURE", seconds, "[s] exposure time");
    header.Set("DATE-OBS", Time(start), "UTC start of the exposure");
    header.Set("DATE", Time(start + kCadence), "UTC of writing this file");
    header.Set("CCD-TEMP", std::round(10 * (-10 + 0.1 * random.Normal())) / 10, "[degC] sensor");
    header.Set("SET-TEMP", -10.0, "[degC] wanted");
    header.Set("GAIN", 100, "gain step of the camera");
    header.Set("OFFSET", 50, "offset step of the camera");
    header.Set("EGAIN", kGain, "[e-/ADU]");
    header.Set("RDNOISE", kReadNoise, "[e-]");
    header.Set("XBINNING", 1);
    header.Set("YBINNING", 1);
    header.Set("XPIXSZ", 3.76, "[um] pixel width");
    header.Set("YPIXSZ", 3.76, "[um] pixel height");
    header.Set("INSTRUME", "Simulated camera");
    if (kind == kLight || kind == kFlat) {
      header.Set("TELESCOP", "Simulated telescope");
      header.Set("FOCALLEN", 500.0, "[mm]");
      if (options_.bayer.empty()) header.Set("FILTER", FilterOf(kind, frame));
    }
    if (kind == kLight) header.Set("OBJECT", "Simulated field");
    if (!options_.bayer.empty()) {
      header.Set("BAYERPAT", options_.bayer,
                 lattice_ ? "pattern of the colours" : "colours of the first two rows");
      header.Set("XBAYROFF", 0, "columns before the pattern");
      header.Set("YBAYROFF", 0, "rows before the pattern");
    }
    header.Set("ROWORDER", "TOP-DOWN", "order of the rows");
    header.Set("SWCREATE", fmt::format("korimg {}", Version()), "program that made this frame");
    return header;
  }

  std::string FilterOf(Kind kind, int frame) const {
    return options_.filters.empty() ? "L" : bands_[BandBefore(kind, frame, 0, 0)].name;
  }

  /// What a light's level becomes by perfect calibration: electrons to ADU.
  double Calibrated(double electrons, const Passband& band) const {
    return electrons * lampMean_ / band.lamp / kGain;
  }

  void WriteTruth() const {
    constexpr double kListedHot = 1000;  // ADU
    constexpr std::size_t kMostHot = 5000;
    const bool mono = options_.bayer.empty();
    const auto ofBands = [&](double Passband::*share, double electrons) {
      if (bands_.size() == 1) return Json(Calibrated(electrons * bands_[0].*share, bands_[0]));
      Json values;
      for (const Passband& band : bands_) {
        values[band.name] = Calibrated(electrons * band.*share, band);
      }
      return values;
    };
    Json truth;
    truth["program"] = fmt::format("korimg {}", Version());
    truth["conventions"] = {
        {"positions", "0-based pixels, x to the right, y downwards, whole numbers are the middles of pixels"},
        {"motion",
         "a star at (x, y) in the reference frame is at x' = cx + cos(a) (x - cx) - sin(a) (y - cy) + dx and "
         "y' = cy + sin(a) (x - cx) + cos(a) (y - cy) + dy in a light, with a = rotation_deg and (cx, cy) "
         "the middle of "
         "the image, ((width - 1) / 2, (height - 1) / 2); positive rotation turns clockwise as y points "
         "down"},
        {"barrel",
         "what would lie at (u, v) from the middle of a light is seen at 1 - barrel (u^2 + v^2) / R^2 times "
         "that, R from the middle to the corner"},
        {"calibration",
         "perfectly calibrated = (light - bias - dark) / (flat / mean of the whole flat, or of a honeycomb's "
         "sites), the flat without its bias and dark; a level of e electrons then becomes e * flat.lamp_mean "
         "/ lamp colour of the pixel / "
         "gain_e_per_adu"},
        {"flux",
         "flux_e is in electrons per light of transparency 1 before the flat field, in green and mono "
         "pixels; "
         "flux_adu is the same perfectly calibrated; red pixels take it times 10^(0.2 colour), blue ones "
         "times "
         "10^(-0.2 colour), and filters times star_share 10^(star_slope colour)"},
        {"hit_pixels", "x, y and electrons that a cosmic ray leaves there; two rays may hit one pixel"},
        {"sky",
         "sky_adu is perfectly calibrated, at the middle, for sky_factor 1; at (x, y) it is times "
         "1 + gradient_x (x - cx) / width + gradient_y (y - cy) / height and times the light's sky_factor"}};
    truth["options"] = {{"frames", options_.frames},   {"width", width_},
                        {"height", height_},           {"bayer", options_.bayer},
                        {"filters", options_.filters}, {"barrel", options_.barrel},
                        {"dither", options_.dither},   {"seed", options_.seed}};
    truth["camera"] = {{"gain_e_per_adu", kGain},   {"read_noise_e", kReadNoise},
                       {"bias_adu", kBias},         {"column_pattern_sigma_adu", kColumnPattern},
                       {"dark_e_per_s", kDarkRate}, {"saturation_adu", kWhite},
                       {"exposure_s", kExposure},   {"flat_exposure_s", kFlatExposure}};
    truth["sky"] = {{"sky_e", kSky},
                    {"sky_adu", ofBands(&Passband::sky, kSky)},
                    {"gradient_x", kGradientX},
                    {"gradient_y", kGradientY}};
    if (!options_.filters.empty()) {
      for (const Passband& band : bands_) {
        truth["filters"][band.name] = {{"star_share", band.star}, {"star_slope", band.slope}};
      }
    }
    truth["nebula"] = {{"peak_e", kNebula}, {"peak_adu", ofBands(&Passband::nebula, kNebula)}};
    truth["flat"] = {
        {"level_e", kFlatLevel},
        {"vignette",
         {{"formula", "1 / (1 + k r^2 / R^2)^2, r from the middle, R from there to the corner"},
          {"k", vignette_},
          {"corner", kCorner}}},
        {"pixel_response_sigma", kResponse},
        {"mean", flatMean_},
        {"lamp_mean", lampMean_},
        {"lamp_colour", mono ? Json(1) : Json{kRedPixel.lamp, kGreenPixel.lamp, kBluePixel.lamp}}};
    truth["flat"]["dust_formula"] =
        "1 - depth (s(r - outer) - s(r - inner)), s(t) = 1 / (1 + exp(t / edge)), r from (x, y)";
    truth["flat"]["dust"] = Json::array();
    for (const Dust& d : dust_) {
      truth["flat"]["dust"].push_back({{"x", d.x},
                                       {"y", d.y},
                                       {"inner", d.inner},
                                       {"outer", d.outer},
                                       {"edge", d.edge},
                                       {"depth", d.depth}});
    }
    truth["psf"] = {{"profile", "Moffat"}, {"beta", 3}, {"fwhm_px", kFwhm}};
    truth["lights"] = Json::array();
    for (int i = 0; i < lights_; ++i) {
      const Pose& pose = poses_[static_cast<std::size_t>(i)];
      Json hits = Json::array();
      for (const HitPixel& pixel : HitPixels(i)) {
        hits.push_back({pixel.x, pixel.y, pixel.electrons});
      }
      truth["lights"].push_back({{"file", files_["lights"][static_cast<std::size_t>(i)]},
                                 {"dx", pose.dx},
                                 {"dy", pose.dy},
                                 {"rotation_deg", pose.degrees},
                                 {"fwhm_px", pose.fwhm},
                                 {"transparency", pose.transparency},
                                 {"sky_factor", pose.sky},
                                 {"cosmic_rays", CosmicCount(i)},
                                 {"hit_pixels", std::move(hits)}});
    }
    truth["trail"] = {{"file", files_["lights"][static_cast<std::size_t>(TrailFrame())]},
                      {"x0", trail_.x0},
                      {"y0", trail_.y0},
                      {"x1", trail_.x1},
                      {"y1", trail_.y1},
                      {"peak_e", kTrail},
                      {"sigma_px", kTrailSigma}};
    truth["hot_pixels"] = {{"count", hot_.size()}, {"listed_above_adu", kListedHot}, {"list", Json::array()}};
    for (const HotPixel& pixel : hot_) {
      const double adu = pixel.rate * kExposure / kGain;
      if (adu < kListedHot || truth["hot_pixels"]["list"].size() == kMostHot) break;
      truth["hot_pixels"]["list"].push_back({{"x", pixel.x}, {"y", pixel.y}, {"dark_adu", adu}});
    }
    truth["stars"] = Json::array();
    for (const Star& star : stars_) {
      truth["stars"].push_back({{"x", star.x},
                                {"y", star.y},
                                {"flux_e", star.flux},
                                {"flux_adu", Calibrated(star.flux, mono ? bands_[0] : kGreenPixel)},
                                {"colour", star.colour}});
    }
    truth["files"] = files_;

    files::TransientFile part(files::PartialName(TruthPath()));
    std::ofstream out(part.Path());
    out << truth.dump(1) << '\n';
    out.close();
    if (!out) throw files::FileError(TruthPath(), "cannot be written; is the disk full?");
    part.RenameTo(TruthPath());
  }

  Job& job_;
  fs::path folder_;
  const SimulateOptions& options_;
  int width_, height_;
  double middleX_, middleY_;
  std::vector<Passband> bands_;
  std::optional<HoneycombLattice> lattice_;  // of a honeycomb
  int lights_, calibrationFrames_, flats_;
  Nebula nebula_;
  std::vector<float> flat_;   // share of the light that a pixel takes
  std::vector<float> dark_;   // electrons per second
  std::vector<float> light_;  // of the light being made
  std::vector<double> bias_;  // ADU, of each column
  double vignette_ = 0, flatMean_ = 0, lampMean_ = 0;
  std::vector<Star> stars_;
  std::vector<Pose> poses_;
  Trail trail_ = {};
  std::vector<Dust> dust_;
  std::vector<HotPixel> hot_;
  Json files_;
};

}  // namespace

void Simulate(Job& job, const fs::path& folder, const SimulateOptions& options) {
  constexpr int kLeastSide = 64;
  if (options.frames < 1 || options.frames > 9999) {
    throw UsageError(fmt::format("{} frames; 1 to 9999 are possible", options.frames));
  }
  if (std::min(options.width, options.height) < kLeastSide ||
      std::max(options.width, options.height) > files::kMaxSide) {
    throw UsageError(fmt::format("a size of {}x{}; sides of {} to {} are possible", options.width,
                                 options.height, kLeastSide, files::kMaxSide));
  }
  constexpr double kMostBarrel = 0.1, kMostDither = 0.5;
  if (!(options.barrel >= 0 && options.barrel <= kMostBarrel)) {
    throw UsageError(fmt::format("a barrel of {:g}; 0 to {:g} are possible", options.barrel, kMostBarrel));
  }
  if (!(options.dither >= 0 && options.dither <= kMostDither)) {
    throw UsageError(fmt::format("a dither of {:g}; 0 to {:g} are possible", options.dither, kMostDither));
  }
  const std::string& bayer = options.bayer;
  const std::vector<std::string> patterns = files::CfaNames();
  if (!bayer.empty() && std::find(patterns.begin(), patterns.end(), bayer) == patterns.end()) {
    throw UsageError(
        fmt::format("pattern '{}' of a mosaic; {} are possible", bayer, fmt::join(patterns, ", ")));
  }
  std::set<std::string> taken;
  for (const std::string& filter : options.filters) {
    if (std::none_of(kFilters.begin(), kFilters.end(), [&](const Passband& f) { return f.name == filter; })) {
      throw UsageError(fmt::format("filter '{}'; L, R, G, B, Ha, OIII and SII are possible", filter));
    }
    if (!taken.insert(filter).second) throw UsageError("filter " + filter + " is given twice");
  }
  if (!bayer.empty() && !options.filters.empty()) {
    throw UsageError("a colour sensor needs no filters: leave out the pattern or the filters");
  }
  AtEdge([&] { SimulatedSession(job, folder, options).Write(); });
}

}  // namespace korimg::session
