#include "session/simulate/Simulate.h"

#include <cmath>
#include <map>
#include <numbers>

#include <nlohmann/json.hpp>

#include "session/simulate/internal/Random.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;
using files::ImageReader;
using nlohmann::json;

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

class Simulated : public files::FolderTest {
 protected:
  json Make(const SimulateOptions& options) {
    width_ = options.width;
    height_ = options.height;
    test::Simulated(folder_, options);
    return json::parse(files::ReadBytes(In("truth.json")));
  }

  std::vector<float> Frame(const std::string& name) const {
    return files::ReadAll(*ImageReader::Open(In(name)), height_)[0];
  }

  /// Mean of all frames of a kind.
  std::vector<double> Master(const json& names) const {
    std::vector<double> sum(static_cast<std::size_t>(width_) * height_);
    for (const auto& name : names) {
      const std::vector<float> frame = Frame(name);
      for (std::size_t i = 0; i < sum.size(); ++i)
        sum[i] += frame[i] / static_cast<double>(names.size());
    }
    return sum;
  }

  /// A light with dark and flat taken out, as truth.json describes it.
  std::vector<double> Calibrate(const json& truth, int light) const {
    const json& names = truth["files"];
    const std::vector<double> bias = Master(names["biases"]), dark = Master(names["darks"]);
    std::vector<double> flat = Master(names["flats"]), result(bias.size());
    double mean = 0;
    for (std::size_t i = 0; i < flat.size(); ++i)
      mean += (flat[i] -= bias[i]) / static_cast<double>(flat.size());
    const std::vector<float> raw = Frame(names["lights"][light]);
    for (std::size_t i = 0; i < result.size(); ++i)
      result[i] = (raw[i] - dark[i]) / (flat[i] / mean);
    return result;
  }

  /// Share of a star's light in the pixel at that distance: the Moffat profile, summed over 7 x 7 points.
  static double Share(double dx, double dy, double fwhm) {
    const double alpha = fwhm / 2 / std::sqrt(std::pow(2, 1.0 / 3) - 1);
    double sum = 0;
    for (int n = 0; n < 49; ++n) {
      const double r = std::hypot(dx + (n % 7 - 3) / 7.0, dy + (n / 7 - 3) / 7.0) / alpha;
      sum += std::pow(1 + r * r, -3) / 49;
    }
    return sum * 2 / (std::numbers::pi * alpha * alpha);
  }

  int width_ = 0, height_ = 0;
};

TEST_F(Simulated, SameSeedGivesSameBytesWithAnyThreads) {
  for (const char* bayer : {"", "GBRG"}) {
    SimulateOptions options{.frames = 4, .width = 130, .height = 70, .bayer = bayer};
    const auto bytes = [&](int threads, std::uint64_t seed) {
      options.threads = threads;
      options.seed = seed;
      const json truth = Make(options);
      std::string all = files::ReadBytes(In("truth.json"));
      for (const auto& kind : truth["files"]) {
        for (const auto& name : kind)
          all += files::ReadBytes(In(name));
      }
      return all;
    };
    const std::string one = bytes(1, 7), two = bytes(2, 7), other = bytes(2, 8);
    EXPECT_EQ(one.size() % 2880, two.size() % 2880);
    EXPECT_TRUE(one == two);
    EXPECT_FALSE(one == other);
  }
}

TEST_F(Simulated, SkyIsWhatTheTruthSays) {
  for (const char* bayer : {"", "RGGB", "GRBG", "BGGR", "GBRG"}) {
    const std::string pattern = bayer;
    const json truth = Make({.frames = 20, .width = 240, .height = 180, .bayer = bayer, .seed = 3});
    const std::vector<double> light = Calibrate(truth, 0);
    const json& sky = truth["sky"];
    for (const char letter : {'R', 'G', 'B'}) {
      std::vector<double> values;
      for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
          if (!pattern.empty() && pattern[(y % 2) * 2 + x % 2] != letter) continue;
          const double gradient = 1 + sky["gradient_x"].get<double>() * (x - (width_ - 1) / 2.0) / width_ +
                                  sky["gradient_y"].get<double>() * (y - (height_ - 1) / 2.0) / height_;
          values.push_back(light[static_cast<std::size_t>(y) * width_ + x] / gradient);
        }
      }
      const json& level = sky["sky_adu"];
      const double wanted = pattern.empty() ? level.get<double>()
                                            : level[letter == 'R'   ? "red"
                                                    : letter == 'G' ? "green"
                                                                    : "blue"]
                                                  .get<double>();
      // Faint stars and the rims of the nebula raise the median a little.
      EXPECT_NEAR(Median(values) / wanted, 1.005, 0.01) << pattern << ' ' << letter;
    }
    const files::Header header = ImageReader::Open(In("lights/light_0001.fits"))->Info().header;
    EXPECT_EQ(header.GetString("BAYERPAT").value_or(""), pattern);
    EXPECT_EQ(header.GetString("ROWORDER"), "TOP-DOWN");
    EXPECT_EQ(header.GetString("IMAGETYP"), "Light Frame");
  }
}

TEST_F(Simulated, AHoneycombHasItsSkyAtItsSites) {
  const json truth = Make({.frames = 20, .width = 240, .height = 180, .bayer = "HONEYCOMB4", .seed = 3});
  EXPECT_EQ(ImageReader::Open(In("lights/light_0001.fits"))->Info().header.GetString("BAYERPAT"),
            "HONEYCOMB4");
  const std::vector<double> light = Calibrate(truth, 0);
  const std::vector<float> raw = Frame("lights/light_0001.fits"), dark = Frame("darks/dark_0001.fits");
  constexpr const char* kRows[] = {"G.G.", ".B.R", "G.G.", ".R.B"};
  std::map<char, std::vector<double>> values;
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x) {
      const std::size_t i = static_cast<std::size_t>(y) * width_ + x;
      const double gradient = 1 +
                              truth["sky"]["gradient_x"].get<double>() * (x - (width_ - 1) / 2.0) / width_ +
                              truth["sky"]["gradient_y"].get<double>() * (y - (height_ - 1) / 2.0) / height_;
      const char site = kRows[y % 4][x % 4];
      // The flat's mean over all squares is half of that over the sites.
      if (site != '.') values[site].push_back(2 * light[i] / gradient);
      ASSERT_EQ(raw[i] == 0, site == '.');
      ASSERT_EQ(dark[i] == 0, site == '.');
    }
  }
  for (const auto& [site, name] : {std::pair('R', "red"), {'G', "green"}, {'B', "blue"}}) {
    EXPECT_NEAR(Median(values[site]) / truth["sky"]["sky_adu"][name].get<double>(), 1.005, 0.01) << name;
  }
  for (const json& pixel : truth["hot_pixels"]["list"]) {
    EXPECT_NE(kRows[pixel["y"].get<int>() % 4][pixel["x"].get<int>() % 4], '.');
  }
}

TEST_F(Simulated, StarsAreWhereAndAsBrightAsTheTruthSays) {
  const json truth = Make({.frames = 6, .width = 900, .height = 700, .seed = 5});
  for (const int light : {0, 1, 2, 5}) {  // the trail is in light 3
    const std::vector<double> image = Calibrate(truth, light);
    const json& pose = truth["lights"][light];
    const double angle = pose["rotation_deg"].get<double>() * std::numbers::pi / 180;
    std::vector<double> distances, ratios;
    for (const json& star : truth["stars"]) {
      const double flux = star["flux_adu"].get<double>() * pose["transparency"].get<double>();
      if (flux > 500000 || flux < 25000) continue;  // saturated, or lost in the noise
      const double dx = star["x"].get<double>() - (width_ - 1) / 2.0,
                   dy = star["y"].get<double>() - (height_ - 1) / 2.0;
      const double x =
          (width_ - 1) / 2.0 + std::cos(angle) * dx - std::sin(angle) * dy + pose["dx"].get<double>();
      const double y =
          (height_ - 1) / 2.0 + std::sin(angle) * dx + std::cos(angle) * dy + pose["dy"].get<double>();
      constexpr int kReach = 4, kRim = 16;  // pixels: for the star, and for the sky around it
      const int cx = static_cast<int>(std::lround(x)), cy = static_cast<int>(std::lround(y));
      if (cx < kRim || cy < kRim || cx >= width_ - kRim || cy >= height_ - kRim) continue;
      std::vector<double> rim;
      const auto at = [&](int i, int j) { return image[static_cast<std::size_t>(cy + j) * width_ + cx + i]; };
      for (int i = -kRim; i <= kRim; ++i) {
        for (const int side : {-kRim, kRim}) {
          rim.push_back(at(i, side));
          rim.push_back(at(side, i));
        }
      }
      const double sky = Median(rim);
      // The flux that fits best to the profile at the known place, and the centroid.
      double match = 0, norm = 0, core = 0, coreX = 0, coreY = 0;
      for (int j = -kReach; j <= kReach; ++j) {
        for (int i = -kReach; i <= kReach; ++i) {
          const double value = at(i, j) - sky, share = Share(cx + i - x, cy + j - y, pose["fwhm_px"]);
          match += value * share;
          norm += share * share;
          core += value;
          coreX += value * i;
          coreY += value * j;
        }
      }
      ratios.push_back(match / norm / flux);
      distances.push_back(std::hypot(cx + coreX / core - x, cy + coreY / core - y));
    }
    ASSERT_GE(ratios.size(), 5u) << light;
    EXPECT_LT(Median(distances), 0.08) << light;
    EXPECT_NEAR(Median(ratios), 1, 0.015) << light;
  }
}

TEST_F(Simulated, HotPixelsAreInDarksAndLights) {
  const json truth = Make({.frames = 1, .width = 200, .height = 150});
  const std::vector<float> dark = Frame("darks/dark_0002.fits"), light = Frame("lights/light_0001.fits");
  ASSERT_GE(truth["hot_pixels"]["list"].size(), 3u);
  for (const json& pixel : truth["hot_pixels"]["list"]) {
    const std::size_t i = static_cast<std::size_t>(pixel["y"].get<int>() * width_ + pixel["x"].get<int>());
    const double wanted = std::min(65535.0, 500 + pixel["dark_adu"].get<double>());
    EXPECT_NEAR(dark[i], wanted, 6 * std::sqrt(wanted / 0.8) + 10);
    EXPECT_GT(light[i], wanted - 6 * std::sqrt(wanted / 0.8));
  }
}

TEST_F(Simulated, FiltersOfAWheel) {
  const json truth =
      Make({.frames = 2, .width = 300, .height = 200, .filters = {"L", "Ha", "B"}, .seed = 11});
  ASSERT_EQ(truth["lights"].size(), 6u);
  int light = 0;
  for (const std::string filter : {"L", "Ha", "B"}) {
    for (const char* number : {"1", "2"}) {
      const json& told = truth["lights"][light];
      EXPECT_EQ(told["file"], "lights/light_" + filter + "_000" + number + ".fits");
      EXPECT_EQ(ImageReader::Open(In(told["file"]))->Info().header.GetString("FILTER"), filter);
      // The nebula covers less than half of the field.
      const double sky = Median(Calibrate(truth, light));
      const double expected =
          truth["sky"]["sky_adu"][filter].get<double>() * told["sky_factor"].get<double>();
      EXPECT_NEAR(sky, expected, 0.05 * expected + 5) << told["file"];
      ++light;
    }
  }
  EXPECT_TRUE(fs::exists(In("flats/flat_Ha_0003.fits")));
  EXPECT_GT(truth["sky"]["sky_adu"]["L"], truth["sky"]["sky_adu"]["B"]);
}

TEST_F(Simulated, RefusesCancelsAndCleansUp) {
  const SimulateOptions good{.frames = 2, .width = 64, .height = 64};
  for (const auto& change : std::initializer_list<void (*)(SimulateOptions&)>{
           [](SimulateOptions& o) { o.frames = 0; }, [](SimulateOptions& o) { o.width = 63; },
           [](SimulateOptions& o) { o.height = 2000000; }, [](SimulateOptions& o) { o.bayer = "RGBG"; },
           [](SimulateOptions& o) { o.bayer = "honeycomb1"; },
           [](SimulateOptions& o) {
             o.filters = {"L", "X"};
           },
           [](SimulateOptions& o) {
             o.filters = {"L", "L"};
           },
           [](SimulateOptions& o) { o.filters = {"L"}, o.bayer = "RGGB"; }}) {
    SimulateOptions bad = good;
    change(bad);
    Job job;
    EXPECT_THROW(session::Simulate(job, folder_, bad), UsageError);
  }
  EXPECT_TRUE(Names().empty());

  long long last = 0;
  JobOptions world;
  world.report = [&](const Event& event) {
    EXPECT_EQ(event.total, 2 + 3 * 3);
    last = event.step;
    if (last == 3) world.cancel->Cancel();
  };
  Job job(world);
  EXPECT_THROW(session::Simulate(job, folder_, good), Cancelled);
  EXPECT_EQ(last, 3);
  EXPECT_FALSE(fs::exists(In("truth.json")));
  EXPECT_TRUE(fs::exists(In("lights/light_0002.fits")));

  Job careful;
  EXPECT_THROW(session::Simulate(careful, folder_, good), files::FileError);
  SimulateOptions options = good;
  options.frames = 1;
  test::Simulated(folder_, options);
  EXPECT_FALSE(fs::exists(In("lights/light_0002.fits")));
}

TEST(Random, PoissonHasItsMomentsOnBothSidesOfTheSwitch) {
  for (const double mean : {0.0, 0.3, 5.0, 19.9, 20.1, 300.0}) {
    Random random({1, static_cast<std::uint64_t>(mean * 10)});
    constexpr int kCount = 200000;
    double sum = 0, square = 0, cube = 0;
    for (int i = 0; i < kCount; ++i) {
      const double d = random.Poisson(mean) - mean;
      sum += d;
      square += d * d;
      cube += d * d * d;
    }
    // Mean, variance and third moment of a Poisson variable are all the same number.
    EXPECT_NEAR(sum / kCount, 0, 5 * std::sqrt(mean / kCount) + 0.01) << mean;
    EXPECT_NEAR(square / kCount, mean, 0.02 * mean + 0.1) << mean;
    EXPECT_NEAR(cube / kCount, mean, 0.1 * mean + 5 * std::sqrt(15 * mean * mean * mean / kCount)) << mean;
  }
}

}  // namespace
}  // namespace korimg::session
