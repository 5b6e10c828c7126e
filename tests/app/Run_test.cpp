// The whole road, from raw frames to a picture and a report.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>
#include <regex>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>

#include "korimg/measurement/CStarFinder.h"

#include "tests/app/Tool.h"
#include "tests/support/Simulated.h"

namespace korimg::files {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class RunTest : public ToolTest {
 protected:
  static double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values.at(values.size() / 2);
  }
};

TEST_F(RunTest, HotPixelsAreMendedAndToldOf) {
  test::Simulated(In("night"), {.frames = 5, .width = 500, .height = 400, .seed = 6});
  const json truth = json::parse(ReadBytes(In("night/truth.json")));
  const int hot = truth["hot_pixels"]["count"];
  WriteBytes(In("night/lights/light_0006.fits"),
             ReadBytes(In("night/lights/light_0002.fits")).substr(0, 90000));
  EXPECT_EQ(Shell("korimg run night --out dark --maps -q").code, 0);
  fs::remove_all(In("night/darks"));
  fs::remove_all(In("night/biases"));
  fs::remove_all(In("night/flats"));
  const Result r = Shell("korimg run night --out lights --maps --json");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(Shell("korimg run night --out none --cosmetic none -q").code, 0);
  EXPECT_NE(Shell("korimg run night --out wrong --cosmetic none --maps").code, 0);
  EXPECT_FALSE(fs::exists(In("none/hot_pixels.fits")));
  for (const char* out : {"dark", "lights"}) {
    const Planes map = Read(std::string(out) + "/hot_pixels.fits");
    const auto found = std::count(map.at(0).begin(), map.at(0).end(), 1.0f);
    EXPECT_GE(found, 0.98 * hot) << out;
    EXPECT_LE(found, hot) << out;
    for (const json& pixel : truth["hot_pixels"]["list"]) {
      EXPECT_EQ(map[0][pixel["y"].get<size_t>() * 500 + pixel["x"].get<size_t>()], 1) << out << pixel;
    }
    if (std::string(out) == "lights") {
      EXPECT_EQ(JsonLines(r.out).at(1)["hot_pixels"], found);
    }
    EXPECT_NE(ReadBytes(In(std::string(out) + "/report.html")).find(fmt::format(": {} and ", found)),
              std::string::npos);
  }
}

TEST_F(RunTest, ASimulatedSessionComesOutAsItsTruth) {
  constexpr int kFrames = 16, kWidth = 1300, kHeight = 900;
  test::Simulated(In("night"), {.frames = kFrames, .width = kWidth, .height = kHeight, .seed = 4});
  fs::rename(In("night/lights"), In("night/LIGHT"));
  fs::rename(In("night/biases"), In("night/Bias"));
  WriteBytes(In("night/LIGHT/broken.fits"), "no image");
  const Result r =
      Shell("korimg run night --out 'the result' --json; korimg run night --out again --threads 1 -q");
  const json truth = json::parse(ReadBytes(In("night/truth.json")));
  EXPECT_EQ(r.code, 0) << "one light that can't be read is a warning: " << r.err;
  EXPECT_NE(r.err.find("broken.fits"), std::string::npos);
  for (const auto& entry : fs::recursive_directory_iterator(In("the result"))) {
    EXPECT_NE(entry.path().extension(), ".part");
  }

  // How the frames lie, to the reference that was chosen.
  std::vector<json> lines = JsonLines(r.out);
  ASSERT_EQ(lines.size(), kFrames + 2);
  EXPECT_EQ(lines[0]["stack"], "the result/stack.fits");
  EXPECT_EQ(lines.back()["file"], "night/LIGHT/broken.fits");
  EXPECT_NE(lines.back()["status"].get<std::string>().find("camera raw"), std::string::npos) << lines.back();
  EXPECT_EQ(
      lines[1]["date_obs"],
      ImageReader::Open(In("night/LIGHT/light_0001.fits"))->Info().header.GetString("DATE-OBS").value_or(""));
  EXPECT_EQ(lines[0]["frames"], kFrames);
  EXPECT_GT(lines[0]["fwhm"].get<double>(), 1);
  lines.erase(lines.begin());
  struct Pose {
    double a, x, y;
  };
  std::vector<Pose> poses;
  size_t reference = 0;
  for (size_t i = 0; i < kFrames; ++i) {
    const json& light = truth["lights"][i];
    poses.push_back({light["rotation_deg"].get<double>() * std::numbers::pi / 180, light["dx"], light["dy"]});
    EXPECT_EQ(lines[i]["status"], "stacked") << lines[i];
    if (lines[i]["method"] == "reference") reference = i;
  }
  const auto toReference = [&](size_t i, double u, double v) {
    const auto turn = [](double a, double x, double y) {
      return std::pair(std::cos(a) * x - std::sin(a) * y, std::sin(a) * x + std::cos(a) * y);
    };
    const double cx = (kWidth - 1) / 2.0, cy = (kHeight - 1) / 2.0;
    const auto [x, y] = turn(-poses[i].a, u - cx - poses[i].x, v - cy - poses[i].y);
    const auto [p, q] = turn(poses[reference].a, x, y);
    return std::pair(p + cx + poses[reference].x, q + cy + poses[reference].y);
  };
  std::vector<double> shifts, angles;
  for (size_t i = 0; i < kFrames; ++i) {
    // What is told moves the middle of the frame as CImgComposit does.
    const auto [x, y] = toReference(i, (kWidth - 1) / 2.0, (kHeight - 1) / 2.0);
    const double degrees = lines[i]["degrees"], a = degrees * std::numbers::pi / 180;
    const double mx = kWidth * 0.5 + lines[i]["dx"].get<double>() - 0.5 * (std::cos(a) - std::sin(a)),
                 my = kHeight * 0.5 + lines[i]["dy"].get<double>() - 0.5 * (std::sin(a) + std::cos(a));
    shifts.push_back(std::hypot(mx - x, my - y));
    angles.push_back(std::abs(degrees - (poses[reference].a - poses[i].a) * 180 / std::numbers::pi));
    EXPECT_LT(shifts.back(), 0.1) << i;
  }
  EXPECT_LT(Median(shifts), 0.02);
  EXPECT_LT(Median(angles), 0.002);

  // Fluxes of bright, unsaturated stars that stand alone.
  Planes pixels = Read("the result/stack.fits");
  ASSERT_EQ(pixels.size(), 1u);
  const auto store = CreateContiguousManager();
  CVelImage stack(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
  for (int y = 0; y < kHeight; ++y) {
    std::copy_n(&pixels[0][static_cast<size_t>(y) * kWidth], kWidth, stack.GetWritableLine(0, y, 0));
  }
  CStarFinder finder(&stack);
  finder.Find();
  const double transparency = truth["lights"][reference]["transparency"];
  std::vector<double> ratios;
  const auto placeOf = [&, pose = poses[reference]](const json& star) {
    const double x = star["x"].get<double>() - (kWidth - 1) / 2.0,
                 y = star["y"].get<double>() - (kHeight - 1) / 2.0;
    return std::pair(std::cos(pose.a) * x - std::sin(pose.a) * y + (kWidth - 1) / 2.0 + pose.x,
                     std::sin(pose.a) * x + std::cos(pose.a) * y + (kHeight - 1) / 2.0 + pose.y);
  };
  std::vector<std::pair<double, double>> stars;
  for (const json& star : truth["stars"]) {
    stars.push_back(placeOf(star));
    const double flux = star["flux_adu"];
    if (flux < 8000 || flux > 60000) continue;
    const bool alone = std::none_of(truth["stars"].begin(), truth["stars"].end(), [&](const json& other) {
      const double distance = std::hypot(other["x"].get<double>() - star["x"].get<double>(),
                                         other["y"].get<double>() - star["y"].get<double>());
      return distance > 0 && distance < 20 && other["flux_adu"] > 0.01 * flux;
    });
    if (!alone) continue;
    const auto [x, y] = placeOf(star);
    for (const CStar& found : finder.GetStars()) {
      if (found.flags == 0 && std::hypot(found.x - x, found.y - y) < 1)
        ratios.push_back(found.flux / flux / transparency);
    }
  }
  ASSERT_GE(ratios.size(), 8u);
  EXPECT_NEAR(Median(ratios), 1, 0.01);

  // Hot pixels are gone, wherever a frame laid them.
  int seen = 0, places = 0;
  for (const json& hot : truth["hot_pixels"]["list"]) {
    for (size_t i = 0; i < kFrames; ++i) {
      const auto [u, v] = toReference(i, hot["x"], hot["y"]);
      const int x = static_cast<int>(std::lround(u)), y = static_cast<int>(std::lround(v));
      if (x < 5 || y < 5 || x >= kWidth - 5 || y >= kHeight - 5) continue;
      const bool hasStar = std::any_of(stars.begin(), stars.end(), [x, y](const auto& star) {
        return std::abs(star.first - x) < 6 && std::abs(star.second - y) < 6;
      });
      if (hasStar) continue;
      ++places;
      const auto at = [&](int dx, int dy) {
        return pixels[0][static_cast<size_t>(y + dy) * kWidth + x + dx];
      };
      seen += at(0, 0) - 0.25 * (at(-2, 0) + at(2, 0) + at(0, -2) + at(0, 2)) > 12 * finder.GetNoise();
    }
  }
  EXPECT_GT(places, 1000);
  EXPECT_LE(seen, places / 1000);

  // The other outputs.
  const auto reader = ImageReader::Open(In("the result/stack.fits"));
  const Header& header = reader->Info().header;
  EXPECT_EQ(header.GetDouble("NCOMBINE"), kFrames);
  EXPECT_EQ(header.GetDouble("STACKCNT"), kFrames);
  const Planes real = Read("the result/stack_float.tif"), whole = Read("the result/stack_16bit.tif");
  EXPECT_EQ(real, pixels);
  const ImageInfo sixteen = ImageReader::Open(In("the result/stack_16bit.tif"))->Info();
  EXPECT_EQ(sixteen.type, "uint16");
  double farthest = 0;
  for (size_t i = 0; i < whole[0].size(); ++i) {
    farthest = std::max<double>(farthest, std::abs(whole[0][i] - real[0][i]));
  }
  EXPECT_LT(farthest, 0.51 * sixteen.bscale);
  EXPECT_LT(sixteen.bscale, 1.1) << "the range is that of a 16-bit camera";
  EXPECT_EQ(ImageReader::Open(In("the result/stack.png"))->Info().width, kWidth);
  EXPECT_TRUE(fs::exists(In("the result/masters/manifest.json")));
  const std::string report = ReadBytes(In("the result/report.html"));
  for (const char* part : {"light_0001.fits", "master_bias", "broken.fits", "korimg run night", "FWHM",
                           "<polyline", "data:image/jpeg;base64,/9j/"}) {
    EXPECT_NE(report.find(part), std::string::npos) << part;
  }
  for (const char* part : {"src=\"http", "href", "src=\"/", ".png\""}) {
    EXPECT_EQ(report.find(part), std::string::npos) << part << ": the page needs other files";
  }
  // Threads don't matter.
  const Planes again = Read("again/stack.fits");
  EXPECT_EQ(0, std::memcmp(again[0].data(), pixels[0].data(), pixels[0].size() * sizeof(float)));
}

TEST_F(RunTest, TheFiltersOfAWheelBecomeAColourImage) {
  test::Simulated(In("wheel"),
                  {.frames = 3, .width = 500, .height = 400, .filters = {"B", "L", "R", "G"}, .seed = 4});
  const Result r = Shell(
      "korimg run wheel --out out && rm -r wheel/lights/light_L_* && korimg run wheel --out rgb -q && "
      "korimg run wheel --out none --palette none -q && korimg run wheel --out sho --palette sho");
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("there are no lights through a filter SII, Ha, OIII"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("colour: luminance L, red R, green G, blue B"), std::string::npos) << r.out;
  const std::string page = ReadBytes(In("out/report.html"));
  EXPECT_LT(page.find("<h2>colour</h2>"), page.find("<h2>stack_"));
  for (const char* file : {"out/colour.tif", "out/colour.png", "rgb/colour.fits", "none/stack_R.fits"}) {
    EXPECT_TRUE(fs::exists(In(file))) << file;
  }
  EXPECT_FALSE(fs::exists(In("none/colour.fits")));

  // Without a luminance the planes are the stacks; with one its light stays where colours are grey.
  const auto planes = [&](const char* file) { return ReadAll(*ImageReader::Open(In(file)), 64); };
  const Planes rgb = planes("rgb/colour.fits"), lrgb = planes("out/colour.fits"),
               luminance = planes("out/stack_L.fits");
  size_t same = 0;
  for (int p = 0; p < 3; ++p) {
    const auto stack = planes((std::string("rgb/stack_") + "RGB"[p] + ".fits").c_str())[0];
    for (size_t i = 0; i < stack.size(); ++i) {
      same += stack[i] == rgb[p][i] || (std::isnan(stack[i]) && std::isnan(rgb[p][i]));
    }
  }
  EXPECT_EQ(same, 3 * rgb[0].size());
  std::vector<double> ratios;
  for (size_t i = 0; i < luminance[0].size(); ++i) {
    const double ratio = (lrgb[0][i] + lrgb[1][i] + lrgb[2][i]) / 3 / luminance[0][i];
    if (std::isfinite(ratio)) ratios.push_back(ratio);
  }
  EXPECT_NEAR(Median(ratios), 1, 0.01);
}

TEST_F(RunTest, TheGradientGoesAndIsKeptBesideTheStack) {
  constexpr int kWidth = 900, kHeight = 600;
  test::Simulated(In("night"), {.frames = 4, .width = kWidth, .height = kHeight, .seed = 5});
  const Result r = Shell("korimg run night --out plain -q && korimg run night --out out --gradient --json");
  ASSERT_EQ(r.code, 0) << r.err;
  const json told = JsonLines(r.out).at(0)["gradient"];
  EXPECT_GT(told["sky_boxes"].get<int>(), 50);
  const auto plane = [&](const char* file) { return ReadAll(*ImageReader::Open(In(file)), 64)[0]; };
  const std::vector<float> before = plane("plain/stack.fits"), after = plane("out/stack.fits"),
                           surface = plane("out/stack_gradient.fits");
  const double kept = told["kept"][0];
  EXPECT_NEAR(Median({surface.begin(), surface.end()}), kept, 0.02 * kept);
  // Nothing else has changed.
  for (size_t i = 0; i < before.size(); i += 101) {
    if (std::isfinite(before[i])) {
      EXPECT_NEAR(after[i] + surface[i] - kept, before[i], 1e-6 * before[i]) << i;
    }
  }
  // A slope across a sky with nebulae at its sides.
  const json truth = json::parse(ReadBytes(In("night/truth.json")))["sky"];
  const auto at = [&](int x, int y) { return surface[static_cast<size_t>(y) * kWidth + x] / kept; };
  EXPECT_NEAR(at(kWidth - 1, kHeight / 2) - at(0, kHeight / 2), truth["gradient_x"].get<double>(), 0.015);
  EXPECT_NEAR(at(kWidth / 2, kHeight - 1) - at(kWidth / 2, 0), truth["gradient_y"].get<double>(), 0.015);
  const Header header = ImageReader::Open(In("out/stack.fits"))->Info().header;
  EXPECT_TRUE(ImageReader::Open(In("plain/stack.fits"))->Info().header.GetDouble("KORLGAIN").has_value());
  EXPECT_FALSE(header.GetDouble("KORLGAIN").has_value()) << "values are no counts any more";
  const std::string page = ReadBytes(In("out/report.html"));
  EXPECT_NE(page.find("gradient taken off"), std::string::npos);
  EXPECT_EQ(ReadBytes(In("plain/report.html")).find("gradient"), std::string::npos);
}

TEST_F(RunTest, WhatIsMuchWorseIsLeftOutAndFiltersAreStackedApart) {
  test::Simulated(In("night"), {.frames = 7, .width = 600, .height = 500, .seed = 9});
  // One light behind clouds, one out of focus, one of the sky alone, and two through another filter.
  const auto change = [&](int number, const std::function<void(std::vector<float>&)>& work,
                          const char* filter) {
    const std::string name = fmt::format("night/lights/light_{:04}.fits", number);
    const auto reader = ImageReader::Open(In(name));
    const ImageInfo info = reader->Info();
    Planes pixels = ReadAll(*reader, 64);
    work(pixels[0]);
    Header header;
    header.Set("DATE-OBS", info.header.GetString("DATE-OBS").value_or(""));
    header.Set("EXPTIME", info.header.GetDouble("EXPTIME").value_or(0));
    header.Set("FILTER", filter);
    const auto writer = ImageWriter::Create(
        In(name), {.width = 600, .height = 500, .type = "uint16", .header = header, .overwrite = true});
    WriteAll(*writer, pixels, 600, 500, 64);
  };
  const auto keep = [](std::vector<float>&) {};
  const auto blur = [](std::vector<float>& v) {
    for (int round = 0; round < 20; ++round) {
      const std::vector<float> before = v;
      for (size_t i = 601; i + 601 < v.size(); ++i) {
        v[i] = 0.2f * (before[i] + before[i - 1] + before[i + 1] + before[i - 600] + before[i + 600]);
      }
    }
  };
  const auto cloud = [](std::vector<float>& v) {
    std::vector<float> sorted = v;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    const float sky = sorted[sorted.size() / 2];
    for (float& p : v) {
      p = sky + (p - sky) * (p > sky + 60 ? 0.02f : 1.0f);
    }
  };
  change(1, keep, "L");
  change(2, keep, "l ");
  change(3, keep, "L");
  change(4, blur, "L");
  change(5, cloud, "L");
  change(6, keep, "R/x");
  change(7, keep, "R x");
  const Result r = Shell("korimg run night --out out --json --allow-mismatch");
  ASSERT_EQ(r.code, 0) << r.err;
  std::map<std::string, std::string> status;
  std::istringstream out(r.out);
  for (std::string line; std::getline(out, line) && line.starts_with("{");) {
    const json j = json::parse(line);
    if (!j.contains("file")) continue;  // a stack
    status[fs::path(j["file"].get<std::string>()).stem()] = j["status"];
  }
  EXPECT_EQ(status["light_0001"], "stacked");
  EXPECT_EQ(status["light_0007"], "stacked");
  EXPECT_TRUE(status["light_0004"].find("FWHM") != std::string::npos ||
              status["light_0004"].find("stars") != std::string::npos)
      << status["light_0004"];
  EXPECT_NE(status["light_0005"].find("stars"), std::string::npos) << status["light_0005"];
  EXPECT_EQ(ImageReader::Open(In("out/stack_L.fits"))->Info().header.GetDouble("NCOMBINE"), 3);
  // Filters whose names are alike as names of files.
  for (const auto& [name, filter] :
       {std::pair("out/stack_R_x.fits", "R/x"), {"out/stack_R_x_2.fits", "R x"}}) {
    EXPECT_EQ(ImageReader::Open(In(name))->Info().header.GetDouble("NCOMBINE"), 1);
    EXPECT_EQ(ImageReader::Open(In(name))->Info().header.GetString("FILTER"), filter);
  }
}

TEST_F(RunTest, ColourSessionsGiveColour) {
  test::Simulated(In("night"), {.frames = 3, .width = 500, .height = 400, .bayer = "GBRG"});
  const Result r = Shell("korimg run night --out out --pedestal 100");
  ASSERT_EQ(r.code, 0) << r.err;
  const Planes planes = Read("out/stack.fits");
  ASSERT_EQ(planes.size(), 3u);
  std::array<double, 3> sky;
  for (size_t p = 0; p < 3; ++p) {
    std::vector<double> values;
    for (const float v : planes[p]) {
      if (v == v) values.push_back(v);
    }
    sky[p] = Median(values) - 100;
  }
  EXPECT_NEAR(sky[0] / sky[1], 1, 0.05);
  EXPECT_NEAR(sky[2] / sky[1], 1, 0.05);
}

TEST_F(RunTest, OneBudgetServesTheWholeJob) {
  if (kSanitized) GTEST_SKIP() << "sanitizers take memory of their own";
  test::Simulated(In("night"), {.frames = 8, .width = 2400, .height = 1600});
  for (const long long megabytes : {64, 256}) {
    const Result r =
        Shell(fmt::format("korimg run night --out out{0} --json --memory {0}M --threads 4", megabytes));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_LT(JsonLines(r.out)[0]["peak_memory_bytes"].get<long long>(), (megabytes + 128) << 20);
  }
}

TEST_F(RunTest, ThePlanTellsWhatTheRunTakes) {
  const struct {
    session::SimulateOptions session;
    std::string options;
  } cases[] = {{{.frames = 6, .width = 1500, .height = 1000, .bayer = "RGGB"}, ""},
               {{.frames = 3, .width = 900, .height = 700, .filters = {"R", "G", "B"}}, " --gradient"}};
  int n = 0;
  for (const auto& [session, options] : cases) {
    const std::string name = fmt::format("night{}", ++n);
    test::Simulated(In(name), session);
    const std::string call = fmt::format("korimg run {0} --out of{0} --threads 2{1}", name, options);
    const Result dry = Shell(call + " --dry-run --json; " + call + " --dry-run > text"),
                 r = Shell(call + " --json");
    ASSERT_EQ(r.code, 0) << r.err;
    const json plan = JsonLines(dry.out).back()["plan"];
    const std::string text = ReadBytes(In("text")), told = text.substr(text.find("the run will take"));
    EXPECT_EQ(told.find('\n'), told.size() - 1) << "it ends the plan: " << text;
    EXPECT_NE(ReadBytes(In("of" + name + "/report.html")).find(told.substr(0, told.rfind("about"))),
              std::string::npos);
    long long written = 0, peak = 0;
    for (const auto& entry : fs::recursive_directory_iterator(In("of" + name))) {
      if (entry.is_regular_file()) written += static_cast<long long>(entry.file_size());
    }
    for (const json& line : JsonLines(r.out)) {
      peak = std::max(peak, line.value("peak_memory_bytes", 0LL));
    }
    const auto disk = plan["disk_bytes"].get<long long>(), memory = plan["memory_bytes"].get<long long>();
    EXPECT_LE(written, disk);
    EXPECT_GT(written, disk / 2);
    if (!kSanitized) {
      EXPECT_LE(peak, memory);
      EXPECT_GT(peak, memory / 3);
    }
    EXPECT_GT(plan["seconds"].get<double>(), 0);
  }
}

TEST_F(RunTest, PlanesOfColourHaveWeightsOfTheirOwn) {
  test::Simulated(In("night"), {.frames = 3, .width = 400, .height = 300, .bayer = "RGGB"});
  const Result r = Shell("korimg run night --out out --json");
  ASSERT_EQ(r.code, 0) << r.err;
  std::array<double, 3> best = {};
  bool differ = false;
  for (const json& line : JsonLines(r.out)) {
    if (!line.contains("weight")) continue;
    const auto weights = line["weights"].get<std::vector<double>>();
    ASSERT_EQ(weights.size(), 3u) << line;
    EXPECT_NEAR((weights[0] + weights[1] + weights[2]) / 3, line["weight"].get<double>(), 1e-12);
    differ |= weights[0] != weights[1] || weights[1] != weights[2];
    for (size_t p = 0; p < 3; ++p) {
      best[p] = std::max(best[p], weights[p]);
    }
  }
  EXPECT_EQ(best, (std::array<double, 3>{1, 1, 1}));
  EXPECT_TRUE(differ);
}

TEST_F(RunTest, WhatIsStillBeingWrittenIsLeftForLater) {
  test::Simulated(In("night"), {.frames = 2, .width = 300, .height = 200});
  const std::string whole = ReadBytes(In("night/lights/light_0001.fits"));
  // More than half of the lights; the camera's clock is fast.
  const struct {
    const char* name;
    std::string bytes;
    int minutes;  // from now
  } parts[] = {{"cut.fits", whole.substr(0, whole.size() / 2), 0},
               {"header.fits", whole.substr(0, 1000), 0},
               {"empty.fits", "", 0},
               {"fast.fits", whole.substr(0, 5760), 90}};
  for (const auto& [name, bytes, minutes] : parts) {
    const fs::path file = In(std::string("night/lights/") + name);
    WriteBytes(file, bytes);
    fs::last_write_time(file, fs::file_time_type::clock::now() + std::chrono::minutes(minutes));
  }
  WriteBytes(In("night/lights/light_0003.fits.part"), whole.substr(0, 9000));
  const Result r = Shell("korimg run night --out out --json");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("light_0003.fits.part: is still being written"), std::string::npos) << r.err;
  const std::string page = ReadBytes(In("out/report.html"));
  int told = 0;
  for (const json& line : JsonLines(r.out)) {
    if (!line.contains("status") || line["status"] == "stacked") continue;
    ++told;
    const std::string status = line["status"];
    EXPECT_TRUE(status.starts_with("is still being written")) << line;
    EXPECT_NE(page.find(status), std::string::npos) << status;
  }
  EXPECT_EQ(told, 4);
  // An hour later nobody writes them any more.
  for (const auto& part : parts) {
    fs::last_write_time(In(std::string("night/lights/") + part.name),
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  const Result later = Shell("korimg run night --out later");
  EXPECT_EQ(later.code, 1);
  EXPECT_NE(later.err.find("holds 2 of 6 lights"), std::string::npos) << later.err;
  EXPECT_NE(later.err.find("cut.fits: truncated: 300 x 200"), std::string::npos) << later.err;
  EXPECT_EQ(later.err.find("cut.fits: is still"), std::string::npos) << later.err;
}

TEST_F(RunTest, TwoLightsSayWhatTheyCannotTell) {
  test::Simulated(In("night"), {.frames = 3, .width = 600, .height = 500});
  const std::string cannot = "there are only 2";
  EXPECT_EQ(Shell("korimg run night --out three").err.find("their like"), std::string::npos);
  fs::remove(In("night/lights/light_0003.fits"));
  const Result two = Shell("korimg run night --out two");
  EXPECT_EQ(two.code, 0) << two.err;
  EXPECT_NE(two.err.find(cannot), std::string::npos) << two.err;
  EXPECT_NE(ReadBytes(In("two/report.html")).find(cannot), std::string::npos);
  const Result free = Shell("korimg run night --out free --min-stars 0 --max-fwhm 0 --max-elongation 0");
  EXPECT_EQ(free.err.find(cannot), std::string::npos) << "nothing is asked of them";
}

TEST_F(RunTest, TheReportShowsNightsInHours) {
  test::Simulated(In("night"), {.frames = 4, .width = 600, .height = 500});
  const auto date = [&](int number, const char* text) {
    const std::string name = fmt::format("night/lights/light_{:04}.fits", number);
    ImageInfo info = ImageReader::Open(In(name))->Info();
    const Planes pixels = Read(name);
    text ? info.header.Set("DATE-OBS", text) : info.header.Remove("DATE-OBS");
    const auto writer = ImageWriter::Create(
        In(name), {.width = 600, .height = 500, .type = "uint16", .header = info.header, .overwrite = true});
    WriteAll(*writer, pixels, 600, 500, 64);
  };
  date(1, "2026-03-14T22:00:00");
  date(2, "2026-03-15T00:00:00");
  date(3, "2026-03-15T22:00:00");
  date(4, "2026-03-16T00:00:00");
  ASSERT_EQ(Shell("korimg run night --out out").code, 0);
  const std::string page = ReadBytes(In("out/report.html"));
  for (const char* part :
       {">26.0 h</text>", ">since 2026-03-14T22:00</text>", "a pause of 22.0 h",
        "light_0003.fits, 2026-03-15T22:00:00.000: ", "<td>2026-03-16T00:00:00.000</td>"}) {
    EXPECT_NE(page.find(part), std::string::npos) << part;
  }
  // Two lines of two hours each, and little between them.
  const std::string plot = page.substr(page.find("FWHM, pixels"));
  const std::regex line("points=\"([0-9.]+),[0-9.]+ ([0-9.]+),[0-9.]+ \"");
  std::vector<double> ends;
  for (std::sregex_iterator
           found(plot.begin(), plot.begin() + static_cast<std::ptrdiff_t>(plot.find("</svg>")), line),
       end;
       found != end; ++found) {
    ends.push_back(std::stod((*found)[1])), ends.push_back(std::stod((*found)[2]));
  }
  ASSERT_EQ(ends.size(), 4u) << plot.substr(0, plot.find("</svg>"));
  EXPECT_NEAR(ends[1] - ends[0], ends[3] - ends[2], 0.15);
  EXPECT_LT(ends[2] - ends[1], 0.2 * (ends[1] - ends[0]));
  // One light without a date, and they are numbered.
  date(2, nullptr);
  ASSERT_EQ(Shell("korimg run night --out numbered").code, 0);
  const std::string numbered = ReadBytes(In("numbered/report.html"));
  EXPECT_EQ(numbered.find(" h</text>"), std::string::npos);
  EXPECT_EQ(numbered.find("class=\"pause\""), std::string::npos);
}

TEST_F(RunTest, PlansAreForProgramsToo) {
  test::Simulated(In("night"), {.frames = 2, .width = 300, .height = 200});
  const std::string light = "night/lights/light_0001.fits ";
  for (const std::string& call : std::vector<std::string>{
           "apply invert " + light + "-o x.fits", "composite " + light + light + "-o x.fits",
           "render " + light + "-o x.png", "develop " + light + "--cfa RGGB --white-balance none --out x",
           "stack night/lights -o x.fits", "calibrate night/lights --dark night/darks --out x",
           "run night --out x", "simulate x --frames 2", "stars " + light + "-o x.txt",
           "register night/lights -o x.json"}) {
    const Result r = Shell("korimg " + call + " --dry-run --json");
    EXPECT_EQ(r.code, 0) << call << r.err;
    EXPECT_GE(JsonLines(r.out).size(), 1u) << call;
    for (const auto& entry : fs::directory_iterator(folder_)) {
      EXPECT_NE(entry.path().stem(), "x") << call;
    }
  }
  for (const char* verb : {"stack", "run", "calibrate", "register", "simulate", "render"}) {
    EXPECT_NE(Shell(std::string("korimg ") + verb + " --help").out.find("="), std::string::npos);
  }
  EXPECT_NE(Shell("korimg stack --help").out.find("--reject TEXT:{auto"), std::string::npos);
  EXPECT_NE(Shell("korimg register --help").out.find("(width / 2, height / 2)"), std::string::npos);
}

TEST_F(RunTest, BadSessionsSayWhatToDo) {
  fs::create_directories(In("empty"));
  EXPECT_NE(Shell("korimg run empty --out out").err.find("holds no lights"), std::string::npos);
  EXPECT_NE(Shell("korimg run nowhere --out out").err.find("is no folder"), std::string::npos);
  test::Simulated(In("night"), {.frames = 2, .width = 300, .height = 200});
  ASSERT_EQ(Shell("korimg run night --out out").code, 0);
  EXPECT_NE(Shell("korimg run night --out no --calibration empty").err.find("holds no calibration frames"),
            std::string::npos);
  EXPECT_NE(Shell("korimg run night --out night/lights").err.find("holds frames; name another folder"),
            std::string::npos);
  // Few of many; copies count once.
  for (int i = 0; i < 3; ++i) {
    WriteBytes(In(fmt::format("night/lights/x{}.fits", i)), "no image");
  }
  const Result few = Shell("korimg run night --out few");
  EXPECT_EQ(few.code, 1) << "2 of 5 lights";
  EXPECT_NE(few.err.find("stack: holds 2 of 5 lights"), std::string::npos) << few.err;
  EXPECT_TRUE(fs::exists(In("few/stack.fits"))) << "what there is stands";
  fs::remove(In("night/lights/x0.fits"));
  fs::remove(In("night/lights/x1.fits"));
  fs::copy_file(In("night/lights/light_0001.fits"), In("night/lights/x2.fits"),
                fs::copy_options::overwrite_existing);
  fs::copy_file(In("night/lights/light_0001.fits"), In("night/lights/x2.fit"));
  const Result copies = Shell("korimg run night --out copies");
  EXPECT_EQ(copies.code, 0) << copies.err;
  EXPECT_NE(copies.err.find("is a copy of light_0001.fits"), std::string::npos) << copies.err;
  EXPECT_EQ(ImageReader::Open(In("copies/stack.fits"))->Info().header.GetInt("NCOMBINE"), 2);
  // A filter whose lights nothing serves has no stack; one without flats has one.
  const auto through = [&](const std::string& name, const char* filter, int gain = 100) {
    const auto reader = ImageReader::Open(In(name));
    ImageInfo info = reader->Info();
    const Planes pixels = ReadAll(*reader, 64);
    info.header.Set("FILTER", filter);
    info.header.Set("GAIN", gain);
    WriteAll(*ImageWriter::Create(
                 In(name),
                 {.width = 300, .height = 200, .type = "uint16", .header = info.header, .overwrite = true}),
             pixels, 300, 200, 64);
  };
  fs::copy(In("night"), In("filters"), fs::copy_options::recursive);
  for (const auto& flat : fs::directory_iterator(In("filters/flats"))) {
    through("filters/flats/" + flat.path().filename().string(), "L");
  }
  fs::remove(In("filters/lights/x2.fit")), fs::remove(In("filters/lights/x2.fits"));
  through("filters/lights/light_0001.fits", "L");
  through("filters/lights/light_0002.fits", "Ha");
  const Result unflattened = Shell("korimg run filters --out unflattened");
  EXPECT_EQ(unflattened.code, 0) << unflattened.err;
  EXPECT_NE(unflattened.err.find("there are no flats of filter Ha"), std::string::npos) << unflattened.err;
  EXPECT_TRUE(fs::exists(In("unflattened/stack_Ha.fits")));
  through("filters/lights/light_0002.fits", "Ha", 200);
  const Result filters = Shell("korimg run filters --out halves");
  EXPECT_EQ(filters.code, 1);
  EXPECT_NE(filters.err.find("none of the 1 light of filter ha could be used"), std::string::npos)
      << filters.err;
  EXPECT_TRUE(fs::exists(In("halves/stack.fits")));
  // A truncated dark is left out.
  fs::resize_file(In("night/darks/dark_0001.fits"), 20000);
  // What fails leaves nothing in the way of a repeat.
  const Result failed = Shell("korimg run night --out again --memory 20K");
  EXPECT_EQ(failed.code, 1);
  EXPECT_FALSE(fs::exists(In("again/stack.fits"))) << failed.err;
  const Result repeat = Shell("korimg run night --out again");
  EXPECT_EQ(repeat.code, 0) << repeat.err;
  EXPECT_NE(repeat.err.find("dark_0001.fits"), std::string::npos) << repeat.err;
  const Result plan = Shell("korimg run night --out dry --dry-run");
  EXPECT_EQ(plan.code, 0);
  EXPECT_NE(plan.out.find("stack: 4 lights"), std::string::npos) << plan.out;
  EXPECT_FALSE(fs::exists(In("dry")));
}

}  // namespace
}  // namespace korimg::files
