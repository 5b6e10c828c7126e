#include <cmath>
#include <fstream>
#include <numbers>
#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "session/register/Register.h"
#include "session/stack/internal/Transforms.h"
#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

using Json = nlohmann::json;

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

class StarsTest : public ToolTest {
 protected:
  struct Error {
    double shift, angle;
  };
  /// How far a registration on the first light is off.
  Error ErrorOf(const Json& line, const Json& pose) {
    // The truth turns about the middle of the outer pixels' middles, the result about half the size.
    const double turn = pose["rotation_deg"], a = -turn * std::numbers::pi / 180;
    const double x = 0.5 - pose["dx"].get<double>(), y = 0.5 - pose["dy"].get<double>();
    const double dx = std::cos(a) * x - std::sin(a) * y - 0.5, dy = std::sin(a) * x + std::cos(a) * y - 0.5;
    return {std::hypot(line["dx"].get<double>() - dx, line["dy"].get<double>() - dy),
            std::abs(line["degrees"].get<double>() + turn)};
  }

  void Simulate() {
    ASSERT_EQ(Shell("korimg simulate night --frames 5 --size 1400x1000 --seed 4").code, 0);
    truth_ = Json::parse(std::ifstream(In("night/truth.json")));
  }

  Json truth_;
};

TEST_F(StarsTest, RegistersASessionAgainstItsTruth) {
  Simulate();
  const Result r =
      Shell("korimg register --json --reference night/lights/light_0001.fits night/lights/*.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto lines = JsonLines(r.out);
  ASSERT_EQ(lines.size(), 5u);
  std::vector<double> shifts, angles;
  for (size_t i = 0; i < lines.size(); ++i) {
    const Json& line = lines[i];
    ASSERT_EQ(line["status"], "ok") << line;
    EXPECT_EQ(line["method"], i == 0 ? "reference" : "stars");
    EXPECT_GT(line["stars"], 60);
    EXPECT_LT(line["residual_px"], 0.5);
    const Error error = ErrorOf(line, truth_["lights"][i]);
    shifts.push_back(error.shift);
    angles.push_back(error.angle);
    EXPECT_LT(shifts.back(), 0.05) << line;
  }
  EXPECT_LT(Median(shifts), 0.02);
  EXPECT_LT(Median(angles), 0.002);

  const Result automatic = Shell("korimg register --threads 1 night/lights/*.fits -o list.jsonl");
  EXPECT_EQ(automatic.code, 0) << automatic.err;
  EXPECT_NE(automatic.out.find("reference: night/lights/"), std::string::npos);
  EXPECT_NE(automatic.out.find("shift 0.000, 0.000, angle 0.0000"), std::string::npos)
      << "of the reference" << automatic.out;
  const std::vector<Json> list = JsonLines(ReadBytes(In("list.jsonl")));
  ASSERT_EQ(list.size(), 5u);
  EXPECT_EQ(list[4]["file"], "night/lights/light_0005.fits");
  EXPECT_EQ(std::count_if(list.begin(), list.end(), [](auto& r) { return r["method"] == "reference"; }), 1);

  // Too few stars: phase correlation, hot pixels and all.
  const Result phase = Shell(
      "korimg register --json --sigma 1e5 --reference night/lights/light_0001.fits "
      "night/lights/light_000[35].fits");
  ASSERT_EQ(JsonLines(phase.out).size(), 2u) << phase.err;
  for (const int light : {3, 5}) {
    const Json line = JsonLines(phase.out)[light / 4];
    EXPECT_EQ(line["method"], "phase");
    ASSERT_EQ(line["status"], "ok");
    const Error error = ErrorOf(line, truth_["lights"][light - 1]);
    EXPECT_LT(error.shift, 0.1);
    EXPECT_LT(error.angle, 0.02);
  }
}

TEST_F(StarsTest, ALoneObjectIsLaidByThePlaceOfItsLight) {
  // A ringed planet too small for a disc; and a frame that clouds have taken it from.
  const auto planet = [](double x, double y, double light, int seed) -> test::PixelRule {
    return [=](int p, int px, int py) {
      const double u = px - x, v = py - y, globe = std::exp(-std::pow(std::hypot(u, v) / 7, 6));
      const double ring = std::exp(-std::pow(std::hypot(u / 15, (v - 0.3 * u) / 4) - 1, 2) / 0.05);
      return 500 + light * (globe + 0.7 * ring) + test::Random(-30, 30, seed)(p, px, py);
    };
  };
  Save("1.fits", 640, 480, 1, planet(300, 240, 600, 1));
  Save("2.fits", 640, 480, 3, planet(340.5, 221.25, 450, 2));
  Save("3.fits", 640, 480, 1, planet(300, 240, 0, 3));
  const Result r = Shell("korimg register --json --reference 1.fits 1.fits 2.fits 3.fits");
  const auto lines = JsonLines(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.err;
  EXPECT_EQ(lines[1]["status"], "ok") << lines[1];
  EXPECT_EQ(lines[1]["method"], "place");
  EXPECT_NEAR(lines[1]["dx"], -40.5, 0.3);
  EXPECT_NEAR(lines[1]["dy"], 18.75, 0.3);
  EXPECT_NE(lines[1]["note"].get<std::string>().find("turns are not looked for"), std::string::npos);
  EXPECT_EQ(lines[2]["status"], "no stars") << lines[2];
}

TEST_F(StarsTest, RealFramesAreLaidOnEachOther) {
  const std::filesystem::path data = RealFrames();
  if (data.empty()) GTEST_SKIP() << "no real frames: KORIMG_TEST_DATA names no folder";
  const auto real = [&](const char* name) { return (data / name).string(); };
  const std::string infrared = real("ic310-infrared");
  ASSERT_EQ(Shell("korimg calibrate " + infrared + "/IC310_?.fits --bias " + infrared + "/bias* --flat " +
                  infrared + "/flats* --out infrared")
                .code,
            0);
  const struct {
    std::string reference, frames;
    std::vector<std::pair<double, double>> shifts;
    double error;
  } sessions[] = {
      // A drift of more than the field's half, and field rotation.
      {real("hatp32-field/HATP-32171220013343.fits"),
       real("hatp32-field/HATP-321712200[26]0312.fits ") + real("hatp32-field/HATP-32171220083312.fits"),
       {{8.56, -15.82}, {180.54, -53.56}, {270.35, -19.89}},
       0.5},
      // Too few stars, or too many: by phase.
      {real("m13-globular/M13_blue_0001.fits"),
       real("m13-globular/M13_blue_000*"),
       {{0, 0}, {12, -1}, {25, -3}, {34, -3}, {46, -3}},
       1.5},
      // A galaxy and a few faint stars.
      {"infrared/IC310_5.fits",
       "infrared/IC310_?.fits",
       {{-2.9, -5.1}, {-1.6, -3.9}, {-0.9, -1.8}, {-1.5, -0.9}, {0, 0}},
       0.5}};
  for (const auto& [reference, frames, shifts, error] : sessions) {
    const Result r = Shell("korimg register --json --reference " + reference + " " + frames);
    ASSERT_EQ(JsonLines(r.out).size(), shifts.size()) << r.err;
    for (size_t i = 0; i < shifts.size(); ++i) {
      const Json line = JsonLines(r.out)[i];
      EXPECT_EQ(line["status"], "ok") << line;
      EXPECT_NEAR(line["dx"].get<double>(), shifts[i].first, error) << line;
      EXPECT_NEAR(line["dy"].get<double>(), shifts[i].second, error) << line;
    }
  }
}

TEST_F(StarsTest, HalfTurnsAreFoundAndMirroredFramesNamed) {
  Simulate();
  ASSERT_EQ(Shell("cd night/lights && korimg apply rotate degrees=180 light_0002.fits -o turned.fits && "
                  "korimg apply flip light_0002.fits -o flipped.fits")
                .code,
            0);
  const Result r = Shell(
      "cd night/lights && korimg register --json --reference light_0001.fits light_0002.fits "
      "turned.fits flipped.fits");
  ASSERT_EQ(JsonLines(r.out).size(), 3u) << r.err;
  const Json plain = JsonLines(r.out)[0], turned = JsonLines(r.out)[1];
  ASSERT_EQ(turned["status"], "ok");
  // Half a turn about the middle pixel, while angles are about half the size: half a pixel beyond.
  const double turn = plain["degrees"].get<double>() * std::numbers::pi / 180;
  EXPECT_NEAR(turned["dx"], plain["dx"].get<double>() - std::cos(turn) + std::sin(turn), 0.02);
  EXPECT_NEAR(turned["dy"], plain["dy"].get<double>() - std::sin(turn) - std::cos(turn), 0.02);
  EXPECT_NEAR(std::remainder(turned["degrees"].get<double>() - plain["degrees"].get<double>() - 180, 360), 0,
              0.002);
  EXPECT_EQ(JsonLines(r.out)[2]["status"], "mirrored");
}

TEST_F(StarsTest, StacksReadWhatRegisterWrites) {
  const std::string name = "a \"b\" 星.fits";
  const session::Registration registration{In(name).string(), -1.5, 1e-17,    179.25, 7, 0.125, 2.5,
                                           "phase",           "ok", "a note", 0.75};
  WriteBytes(In("list"), session::ToJson(registration) + "\n\n");
  const session::Transform read = session::Transforms(In("list")).Of(In(name));
  EXPECT_EQ(std::tuple(read.dx, read.dy, read.degrees, read.fwhm, read.fluxRatio, read.Text()),
            std::tuple(-1.5, 1e-17, 179.25, 2.5, 0.75, "ok: a note"));
}

TEST_F(StarsTest, FramesWithoutCommonStarsAreRegisteredThroughOthers) {
  // A long field, seen in three overlapping frames that are turned and shifted; the last shares no star with
  // the first.
  constexpr int kWidth = 800, kHeight = 600;
  const struct { double dx, dy, degrees; } poses[] = {{0, 0, 0}, {450.25, -20.5, 3}, {900.75, 31.125, -174}};
  std::vector<session::FrameMeasure> frames;
  for (const auto& pose : poses) {
    session::FrameMeasure frame;
    frame.width = kWidth;
    frame.height = kHeight;
    std::minstd_rand random(5);
    std::uniform_real_distribution<double> along(0, 1800), across(0, kHeight);
    for (int i = 0; i < 150; ++i) {
      CStar star;
      const double x = along(random), y = across(random);
      star.flux = 1000 - i;
      star.snr = 100;
      star.fwhm = 3;
      // What CImgComposit undoes.
      const double a = -pose.degrees * std::numbers::pi / 180, u = x - pose.dx - kWidth / 2.0,
                   v = y - pose.dy - kHeight / 2.0;
      star.x = std::cos(a) * u - std::sin(a) * v + kWidth / 2.0;
      star.y = std::sin(a) * u + std::cos(a) * v + kHeight / 2.0;
      if (star.x > 0 && star.y > 0 && star.x < kWidth && star.y < kHeight) frame.stars.push_back(star);
    }
    frames.push_back(frame);
  }
  const auto noImage = [](size_t) -> std::shared_ptr<CVelImage> {
    throw FileError("an image", "is not needed");
  };
  const CFrameFitter fitter(kWidth, kHeight);
  std::vector<session::Registration> registrations(3);
  registrations[0].status = "ok";
  registrations[0].method = "stars";
  registrations[1].status = registrations[2].status = "no match";
  ASSERT_EQ(CStarMatcher(frames[0].stars).Match(frames[2].stars, kWidth, kHeight).status,
            CStarMatch::NoMatch);
  EXPECT_TRUE(session::RegisterThroughOthers(frames, registrations, fitter, noImage));
  for (int i = 1; i < 3; ++i) {
    ASSERT_TRUE(registrations[i].IsGood()) << i;
    EXPECT_NEAR(registrations[i].dx, poses[i].dx, 1e-3);
    EXPECT_NEAR(registrations[i].dy, poses[i].dy, 1e-3);
    EXPECT_NEAR(registrations[i].degrees, poses[i].degrees, 1e-4);
  }
  EXPECT_FALSE(session::RegisterThroughOthers(frames, registrations, fitter, noImage)) << "all are known";
}

/// A frame of stars at given places.
session::FrameMeasure FrameOf(const std::vector<std::pair<double, double>>& places, double dx, double dy) {
  session::FrameMeasure frame;
  frame.width = 800;
  frame.height = 600;
  for (const auto& [x, y] : places) {
    CStar star;
    star.x = x + dx;
    star.y = y + dy;
    star.flux = 1000 - 10.0 * static_cast<double>(frame.stars.size());
    star.snr = 100;
    star.fwhm = 3;
    frame.stars.push_back(star);
  }
  return frame;
}

TEST_F(StarsTest, DoubtsAndRefusalsTellTheirNumbers) {
  const auto noImage = [] {
    return test::Make(test::MemoryStore(), 20, 20, 1, [](int, int, int) { return 1; });
  };
  const std::vector<std::pair<double, double>> places = {
      {100, 100}, {650, 480}, {520, 90}, {220, 410}, {330, 300}};
  const auto registered = [&](const session::FrameMeasure& reference, const session::FrameMeasure& frame,
                              double limit) {
    return session::Registrar(reference, noImage, limit).Register(frame, noImage).Text();
  };
  const session::FrameMeasure five = FrameOf(places, 0, 0), two = FrameOf({places[0], places[1]}, 0, 0);
  EXPECT_EQ(registered(five, FrameOf(places, 5, 3), 1), "ok");
  EXPECT_EQ(registered(two, FrameOf({places[0], places[1]}, 5, 3), 1).find("ok: by two stars alone"), 0u);
  EXPECT_EQ(registered(five, FrameOf({places[0]}, 0, 0), 1),
            "no stars: 1 of them, the reference 5; two of each are needed");
  EXPECT_EQ(registered(five, FrameOf({{50, 80}, {90, 700}, {130, 20}}, 0, 0), 1)
                .find("no match: 3 stars, the reference 5:"),
            0u);
  auto larger = places;
  for (auto& [x, y] : larger) {
    x *= 1.25;
    y *= 1.25;
  }
  const std::string tooLarge = registered(five, FrameOf(larger, 0, 0), 2);
  EXPECT_NE(tooLarge.find("of 5 stars, more than 2; the reference is 0.8000 times as large"),
            std::string::npos)
      << tooLarge;
  auto turned = places;
  for (auto& [x, y] : turned) {
    x = 800 - x;
  }
  EXPECT_EQ(registered(five, FrameOf(turned, 0, 0), 1).find("mirrored: its 5 stars"), 0u);
}

// Through clouds the brightest stars still tell how much light is left, though they are faint then.
TEST_F(StarsTest, LightIsComparedByTheStarsThatFramesShare) {
  std::vector<std::pair<double, double>> places;
  for (int i = 0; i < 40; ++i) {
    places.emplace_back(20 + i * 173 % 751, 30 + i * 211 % 541);
  }
  const session::FrameMeasure reference = FrameOf(places, 0, 0);
  std::vector<session::FrameMeasure> frames = {reference};
  const double transparencies[] = {1, 0.62, 0.2, 0.05};
  for (const double transparency : transparencies) {
    session::FrameMeasure frame = FrameOf(places, 7, -4);
    for (size_t i = 0; i < frame.stars.size(); ++i) {
      CStar& star = frame.stars[i];
      star.snr = 100 * transparency;
      // Errors as noise makes them, one star that has become brighter, and one that is none.
      star.flux *= transparency * (1 + (static_cast<double>(i * 37 % 21) - 10) / 6 / star.snr);
      if (i == 3) star.flux *= 3;
      if (i == 5) star.flags = CStar::Saturated, star.flux = 1e6;
    }
    frames.push_back(frame);
  }
  frames.push_back(FrameOf({{3, 3}}, 0, 0));
  std::vector<session::Registration> registrations(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    registrations[i].status = "ok";
    if (i > 0) registrations[i].dx = -7, registrations[i].dy = 4;
  }
  session::CompareFluxes(frames, reference, registrations);
  EXPECT_EQ(registrations[0].fluxRatio, 1);
  for (size_t i = 0; i < std::size(transparencies); ++i) {
    EXPECT_NEAR(registrations[i + 1].fluxRatio.value_or(0) / transparencies[i], 1, 0.005 / transparencies[i]);
  }
  EXPECT_FALSE(registrations.back().fluxRatio);
  // What only few of the frames show is no star.
  for (size_t i = 1; i + 2 < frames.size(); ++i) {
    frames[i].stars.clear();
  }
  session::CompareFluxes(frames, reference, registrations);
  for (const session::Registration& registration : registrations) {
    EXPECT_FALSE(registration.fluxRatio);
  }
}

// Frames beside one that its light turned over do not bear it out.
TEST_F(StarsTest, HalfTurnsByLightAreCheckedByNeighbours) {
  const auto planet = [](double x, double y) {
    return test::Make(test::MemoryStore(), 120, 100, 1, [=](int p, int i, int k) {
      const double r = std::hypot(i - x, k - y) / 30;
      return test::Random(0, 9)(p, i, k) +
             (r < 1 ? 900 * (0.5 + 0.5 * std::sqrt(1 - r * r)) + 60 * std::sin(0.2 * (k - y)) : 0);
    });
  };
  const CFrameFitter fitter(120, 100);
  std::vector<session::FrameMeasure> frames(4);
  std::vector<session::Registration> registrations(4);
  for (size_t i = 0; i < frames.size(); ++i) {
    frames[i].width = 120;
    frames[i].height = 100;
    registrations[i].status = "ok";
    registrations[i].method = i == 0 ? "reference" : "phase";
    registrations[i].dx = -2.0 * static_cast<double>(i);
  }
  registrations[2].degrees = 180;
  registrations[2].dx = 7;
  const auto image = [&](size_t i) { return planet(60 + 2.0 * static_cast<double>(i), 50); };
  EXPECT_TRUE(session::RegisterThroughOthers(frames, registrations, fitter, image));
  ASSERT_TRUE(registrations[2].IsGood());
  EXPECT_EQ(registrations[2].degrees, 0);
  EXPECT_NEAR(registrations[2].dx, -4, 0.1);
  EXPECT_FALSE(session::RegisterThroughOthers(frames, registrations, fitter, image));
}

TEST_F(StarsTest, TheReferenceIsTheSharpestRichFrame) {
  const auto frame = [](int stars, double fwhm) {
    session::FrameMeasure measure;
    measure.starCount = stars;
    measure.fwhm = fwhm;
    return measure;
  };
  EXPECT_EQ(session::ChooseReference({frame(0, 0)}), 0u);
  EXPECT_EQ(session::ChooseReference({frame(0, 0), frame(1, 9), frame(0, 0)}), 1u);
  EXPECT_EQ(session::ChooseReference({frame(10, 1), frame(100, 3), frame(50, 2.9), frame(49, 2)}), 2u);
}

TEST_F(StarsTest, FindsTheStarsOfASession) {
  Simulate();
  const Result r = Shell("korimg stars --json -o list.txt night/lights/light_0001.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const Json found = JsonLines(r.out).at(0);
  EXPECT_NEAR(found["fwhm"].get<double>(), truth_["lights"][0]["fwhm_px"].get<double>(), 0.09);
  EXPECT_EQ(found["stars"], found["list"].size());
  int bright = 0, met = 0;
  for (const Json& star : truth_["stars"]) {
    const double x = star["x"], y = star["y"];
    if (star["flux_e"] < 5000 || x < 8 || y < 8 || x > 1391 || y > 991) continue;
    const bool alone = std::count_if(truth_["stars"].begin(), truth_["stars"].end(), [&](const Json& other) {
                         return other["flux_e"] > 0.2 * star["flux_e"].get<double>() &&
                                std::hypot(other["x"].get<double>() - x, other["y"].get<double>() - y) < 8;
                       }) == 1;
    if (!alone) continue;
    ++bright;
    for (const Json& near : found["list"]) {
      if (std::hypot(near["x"].get<double>() - x, near["y"].get<double>() - y) > 1) continue;
      ++met;
      break;
    }
  }
  EXPECT_GE(met, 0.95 * bright);

  std::ifstream list(In("list.txt"));
  size_t stars = 0;
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    double x, y, radius;
    if (!(words >> x)) continue;
    ASSERT_TRUE(words >> y >> radius) << line;
    EXPECT_NEAR(x, found["list"][stars]["x"].get<double>(), 0.001);
    EXPECT_GE(radius, 3);
    std::string more;
    EXPECT_FALSE(words >> more) << line;
    ++stars;
  }
  EXPECT_EQ(stars, found["list"].size());
}

TEST_F(StarsTest, FailuresSayWhatIsWrong) {
  Frame("flat.fits", 80, 60, [](int, int, int) { return 100; });
  Frame("noise.fits", 80, 60, test::Random(90, 110));
  EXPECT_NE(Shell("korimg stars flat.fits noise.fits").out.find("flat.fits: 0 stars"), std::string::npos);
  const Result r = Shell("korimg register --json flat.fits missing.fits noise.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("missing.fits: "), std::string::npos);
  ASSERT_EQ(JsonLines(r.out).size(), 3u);
  EXPECT_EQ(JsonLines(r.out)[0]["method"], "reference");
  EXPECT_EQ(JsonLines(r.out)[1]["status"], "no stars");
  EXPECT_EQ(JsonLines(r.out)[2]["status"], "cannot be read");
  EXPECT_EQ(Shell("korimg stars -o list.txt flat.fits noise.fits").code, 2);
  EXPECT_EQ(Shell("korimg stars -o list.txt flat.fits && korimg stars -o list.txt flat.fits").code, 1);
  EXPECT_EQ(Shell("korimg register --reference missing.fits flat.fits").code, 1);
  const Result folder = Shell("mkdir two && cp flat.fits noise.fits two && korimg register --json two");
  EXPECT_EQ(JsonLines(folder.out).size(), 2u) << folder.err;
  EXPECT_EQ(folder.code, 1);
  EXPECT_NE(folder.err.find("1 of 2 frames lie on the reference, none but itself"), std::string::npos)
      << folder.err;
  // One that cannot be read of four is a warning, for stacking too; a copy counts once.
  ASSERT_EQ(Shell("korimg simulate night --frames 3 --size 400x300").code, 0);
  WriteBytes(In("night/lights/x.fits"), ReadBytes(In("night/lights/light_0001.fits")).substr(0, 9000));
  const Result most = Shell("korimg register night/lights -o t.json");
  EXPECT_EQ(most.code, 0) << most.err;
  EXPECT_NE(most.err.find("warning: night/lights/x.fits"), std::string::npos) << most.err;
  std::filesystem::copy_file(In("night/lights/light_0002.fits"), In("night/lights/y.fits"));
  ASSERT_EQ(Shell("korimg register night/lights -o t.json --overwrite").code, 0);
  const Result stacked = Shell("korimg stack night/lights --transforms t.json -o s.fits");
  EXPECT_EQ(stacked.code, 0) << stacked.err;
  EXPECT_NE(stacked.err.find("y.fits: left out: copy: has the pixels of"), std::string::npos) << stacked.err;
  EXPECT_EQ(ImageReader::Open(In("s.fits"))->Info().header.GetInt("NCOMBINE"), 3);
}

}  // namespace
}  // namespace korimg::files
