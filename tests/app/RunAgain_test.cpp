// Runs that go on where an earlier one ended, and those that are for some of the lights.
#include <algorithm>
#include <iterator>
#include <map>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"
#include "tests/support/Simulated.h"

namespace korimg::files {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class RunAgainTest : public ToolTest {
 protected:
  /// The bytes of what a run leaves, but for the report and the cards that tell when it was made.
  std::map<std::string, std::string> Outputs(const std::string& out) const {
    std::map<std::string, std::string> outputs;
    for (const auto& entry : fs::recursive_directory_iterator(In(out))) {
      const std::string name = fs::relative(entry.path(), In(out)).string();
      if (!entry.is_regular_file() || name.starts_with(".korimg") || name == "report.html") continue;
      std::string bytes = ReadBytes(entry.path());
      constexpr size_t kCard = 80;
      if (const size_t date = bytes.find("DATE    = "); name.ends_with(".fits") && date < bytes.size()) {
        bytes.erase(date, kCard);
      }
      // When a master was written, too.
      for (size_t at = bytes.find("\"stamp\""); name.ends_with(".json") && at < bytes.size();
           at = bytes.find("\"stamp\"")) {
        bytes.erase(at, bytes.find('\n', at) - at);
      }
      outputs[name] = std::move(bytes);
    }
    return outputs;
  }

  /// The report without the line on when and how it was made.
  std::string Report(const std::string& out) const {
    const std::string report = ReadBytes(In(out + "/report.html"));
    return report.substr(0, report.find("<h2>Plan"));
  }

  /// When each light was measured.
  std::map<std::string, fs::file_time_type> Measured(const std::string& out) const {
    std::map<std::string, fs::file_time_type> times;
    for (const auto& entry : fs::directory_iterator(In(out + "/.korimg"))) {
      const std::string name = entry.path().stem().string();
      if (name.starts_with("light_")) times[name] = entry.last_write_time();
    }
    return times;
  }
};

TEST_F(RunAgainTest, KilledAtAnyMomentItGoesOnToTheSameBytes) {
  test::Simulated(In("night"), {.frames = 5, .width = 500, .height = 400, .filters = {"L", "R"}, .seed = 3});
  ASSERT_EQ(Shell("korimg run night --out whole --gradient -q").code, 0);
  const auto wanted = Outputs("whole");
  EXPECT_GE(wanted.size(), 12u);
  const auto files = [&](const std::string& out) {
    std::error_code ignored;
    const auto entries = fs::recursive_directory_iterator(In(out), ignored);
    return std::distance(begin(entries), end(entries));
  };
  const auto whole = files("whole");
  int killed = 0;
  for (int i = 0; i < 10; ++i) {
    fs::remove_all(In("out"));
    killed += RunAndKill(folder_, {"korimg", "run", "night", "--out", "out", "--gradient", "-q"}, SIGKILL,
                         [&] { return files("out") * 10 > whole * i; });
    const Result again = Shell("korimg run night --out out --gradient -q");
    ASSERT_EQ(again.code, 0) << again.err;
    const auto got = Outputs("out");
    for (const auto& [name, bytes] : wanted) {
      EXPECT_TRUE(got.contains(name) && got.at(name) == bytes) << name << " after kill " << i;
    }
    EXPECT_EQ(got.size(), wanted.size()) << "nothing half-written is left";
    EXPECT_TRUE(Report("out") == Report("whole"));
  }
  EXPECT_GE(killed, 5);
}

TEST_F(RunAgainTest, OnlyWhatIsNewIsDone) {
  test::Simulated(In("night"), {.frames = 5, .width = 300, .height = 240, .seed = 3});
  fs::create_directories(In("later"));
  fs::rename(In("night/lights/light_0005.fits"), In("later/light_0005.fits"));
  ASSERT_EQ(Shell("korimg run night --out out -q").code, 0);
  const auto first = Measured("out");
  ASSERT_EQ(first.size(), 4u);
  const auto written = fs::last_write_time(In("out/stack.fits"));
  // Nothing has changed: nothing is done.
  const Result same = Shell("korimg run night --out out");
  EXPECT_EQ(same.code, 0) << same.err;
  EXPECT_NE(same.out.find("4 of 4 lights were measured before"), std::string::npos) << same.out;
  EXPECT_EQ(Measured("out"), first);
  EXPECT_EQ(fs::last_write_time(In("out/stack.fits")), written);
  // A new light: it alone is measured, and the stack is that of all.
  fs::rename(In("later/light_0005.fits"), In("night/lights/light_0005.fits"));
  ASSERT_EQ(Shell("korimg run night --out out -q; korimg run night --out fresh -q").code, 0);
  auto second = Measured("out");
  EXPECT_EQ(second.size(), 5u);
  second.erase("light_light_0005");
  EXPECT_EQ(second, first);
  EXPECT_TRUE(Outputs("out") == Outputs("fresh"));
  // Other options for the stack need no measuring; a stack that somebody spoiled is made again, and one of
  // other darks too.
  ASSERT_EQ(Shell("korimg run night --out out --reject sigma -q").code, 0);
  second = Measured("out"), second.erase("light_light_0005");
  EXPECT_EQ(second, first);
  EXPECT_FALSE(Outputs("out").at("stack.fits") == Outputs("fresh").at("stack.fits"));
  ASSERT_EQ(
      Shell("korimg run night --out out -q; echo x >> out/stack.fits; korimg run night --out out -q").code,
      0);
  EXPECT_TRUE(Outputs("out") == Outputs("fresh"));
  fs::remove(In("night/darks/dark_0001.fits"));
  ASSERT_EQ(Shell("korimg run night --out out -q; rm -r fresh; korimg run night --out fresh -q").code, 0);
  EXPECT_TRUE(Outputs("out") == Outputs("fresh"));
  // All anew, when that is asked for.
  ASSERT_EQ(Shell("korimg run night --out out -q --overwrite").code, 0);
  const auto third = Measured("out");
  EXPECT_TRUE(std::all_of(third.begin(), third.end(), [&](const auto& light) {
    return !second.contains(light.first) || second.at(light.first) < light.second;
  }));
  EXPECT_TRUE(Outputs("out") == Outputs("fresh"));
  const Result other = Shell("korimg run night --out out --gradient -q; korimg run night --out out");
  EXPECT_EQ(other.code, 0);
  EXPECT_NE(other.err.find("stack_gradient.fits: is a result of an earlier call"), std::string::npos)
      << other.err;
  fs::remove(In("out/stack_gradient.fits"));
  // What is told of a stack that is kept is what was told of it when it was made.
  const auto told = [&] {
    const Result r = Shell("korimg run night --out sloped --gradient --json");
    return JsonLines(r.out).at(0).value("gradient", json());
  };
  const json gradient = told();
  EXPECT_TRUE(gradient.contains("sky_boxes")) << gradient;
  EXPECT_EQ(told(), gradient);
  // What was kept may be of no use.
  for (const auto& entry : fs::directory_iterator(In("out/.korimg"))) {
    if (entry.path().stem() != "run") fs::resize_file(entry.path(), fs::file_size(entry.path()) / 2);
  }
  ASSERT_EQ(Shell("korimg run night --out out -q").code, 0);
  EXPECT_TRUE(Outputs("out") == Outputs("fresh"));
}

TEST_F(RunAgainTest, ResultsOfOtherLightsAndForeignFilesAreNotReplaced) {
  test::Simulated(In("a"), {.frames = 3, .width = 200, .height = 160, .seed = 1});
  test::Simulated(In("b"), {.frames = 3, .width = 200, .height = 160, .seed = 2});
  ASSERT_EQ(Shell("korimg run a --out out -q").code, 0);
  const auto before = Outputs("out");
  const Result other = Shell("korimg run b --out out -q");
  EXPECT_EQ(other.code, 1);
  EXPECT_NE(other.err.find("holds the results of other lights"), std::string::npos) << other.err;
  EXPECT_TRUE(Outputs("out") == before);
  EXPECT_EQ(Shell("korimg run b --out out -q --overwrite").code, 0);
  EXPECT_FALSE(Outputs("out") == before);
  fs::create_directories(In("mine"));
  WriteBytes(In("mine/stack.png"), "a picture");
  const Result foreign = Shell("korimg run a --out mine -q");
  EXPECT_EQ(foreign.code, 1);
  EXPECT_NE(foreign.err.find("stack.png: exists already"), std::string::npos) << foreign.err;
  EXPECT_EQ(ReadBytes(In("mine/stack.png")), "a picture");
}

TEST_F(RunAgainTest, WhatCannotBeKeptIsNoFaultOfALight) {
  test::Simulated(In("night"), {.frames = 4, .width = 200, .height = 160, .seed = 1});
  fs::create_directories(In("out/.korimg/light_light_0002.cbor/in the way"));
  const Result r = Shell("korimg run night --out out");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("light_light_0002.cbor: cannot "), std::string::npos) << r.err;
  EXPECT_EQ((r.out + r.err).find("light_0002.fits"), std::string::npos) << r.out << r.err;
  fs::remove_all(In("out/.korimg/light_light_0002.cbor"));
  EXPECT_EQ(Shell("korimg run night --out out -q").code, 0);
}

TEST_F(RunAgainTest, AFileInThePlaceOfAFolderStays) {
  test::Simulated(In("night"), {.frames = 3, .width = 200, .height = 160, .seed = 1});
  WriteBytes(In("empty"), "");
  EXPECT_EQ(Shell("korimg run night --out out --masters empty -q").code, 1);
  EXPECT_TRUE(fs::is_regular_file(In("empty")));
}

TEST_F(RunAgainTest, SelectionsAndReferences) {
  test::Simulated(In("night"), {.frames = 6, .width = 400, .height = 300, .seed = 3});
  const auto stacked = [&](const std::string& options) {
    fs::remove_all(In("out"));
    const Result r = Shell("korimg run night --out out --json " + options);
    EXPECT_EQ(r.code, 0) << options << r.err;
    std::string names;
    for (const json& told : JsonLines(r.out)) {
      if (told.value("status", "") == "stacked")
        names += fs::path(told["file"].get<std::string>()).stem().string().back();
    }
    return names;
  };
  EXPECT_EQ(stacked("--exclude '*_0002*' --exclude light_0004.fits"), "1356");
  EXPECT_EQ(stacked("--include 'light_000[1-4].fits' --exclude '*3.fits'"), "124");
  EXPECT_NE(ReadBytes(In("out/report.html")).find("excluded by *3.fits"), std::string::npos);
  WriteBytes(In("sel.json"), R"({"exclude": ["*_0001*"], "reference": "light_0003.fits"})");
  EXPECT_EQ(stacked("--selection sel.json"), "23456");
  EXPECT_NE(Shell("korimg run night --out out --selection sel.json").out.find("reference: light_0003.fits"),
            std::string::npos);
  EXPECT_NE(Shell("korimg run night --out out --exclude '*.cr2'").err.find("*.cr2: fits no light"),
            std::string::npos);
  for (const char* text : {"[]", "{\"exclude\": \"a\"}", "{\"reference\": 3}", "{\"exlude\": []}", "x"}) {
    WriteBytes(In("bad.json"), text);
    const Result bad = Shell("korimg run night --out none --selection bad.json");
    EXPECT_EQ(bad.code, 1) << text;
    EXPECT_NE(bad.err.find("bad.json: is no selection"), std::string::npos) << bad.err;
  }
  EXPECT_EQ(Shell("korimg run night --out none --exclude '*'").code, 2);
  // The grid of another stack: what lies on it is where it is there.
  ASSERT_EQ(Shell("korimg run night --out first --reference night/lights/light_0002.fits -q").code, 0);
  ASSERT_EQ(Shell("korimg run night --out second --reference first/stack.fits -q").code, 0);
  const json truth = json::parse(ReadBytes(In("night/truth.json")));
  const Planes a = Read("first/stack.fits"), b = Read("second/stack.fits");
  int far = 0, compared = 0;
  for (size_t i = 0; i < a[0].size(); ++i) {
    if (!(a[0][i] > 3000)) continue;
    ++compared;
    far += std::abs(a[0][i] - b[0][i]) > 0.2 * a[0][i];
  }
  EXPECT_GT(compared, 50);
  EXPECT_LT(far, compared / 20);
  WriteBytes(In("no.fits"), "no image");
  // Before any work, and by the plan too.
  for (const char* plan : {"", " --dry-run"}) {
    EXPECT_EQ(Shell(std::string("korimg run night --out third --reference no.fits -q") + plan).code, 1);
    EXPECT_FALSE(fs::exists(In("third")));
  }
}

TEST_F(RunAgainTest, ObjectsAreKeptApart) {
  test::Simulated(In("night"), {.frames = 4, .width = 240, .height = 200, .seed = 3});
  const auto name = [&](int light, const char* object) {
    const fs::path path = In(fmt::format("night/lights/light_{:04}.fits", light));
    const auto reader = ImageReader::Open(path);
    ImageInfo info = reader->Info();
    info.header.Set("OBJECT", object);
    WriteAll(
        *ImageWriter::Create(
            path, {.width = 240, .height = 200, .type = "uint16", .header = info.header, .overwrite = true}),
        ReadAll(*reader, 64), 240, 200, 64);
  };
  name(1, "M 31"), name(2, "m31"), name(3, "NGC 7000"), name(4, "NGC 7000");
  const Result r = Shell("korimg run night --out out");
  EXPECT_EQ(r.code, 0) << r.err;
  for (const char* object : {"M_31", "NGC_7000"}) {
    EXPECT_EQ(
        ImageReader::Open(In(fmt::format("out/{}/stack.fits", object)))->Info().header.GetInt("STACKCNT"), 2);
    EXPECT_TRUE(fs::exists(In(fmt::format("out/{}/report.html", object))));
  }
  EXPECT_TRUE(fs::exists(In("out/masters/manifest.json")));
  EXPECT_FALSE(fs::exists(In("out/stack.fits")));
  // Each of them goes on, and neither may replace what is not its own.
  const Result again = Shell("korimg run night --out out");
  EXPECT_EQ(again.code, 0) << again.err;
  const size_t first = again.out.find("2 of 2 lights were measured before");
  EXPECT_NE(first, std::string::npos) << again.out;
  EXPECT_NE(again.out.find("2 of 2 lights were measured before", first + 1), std::string::npos) << again.out;
  fs::create_directories(In("mine/NGC_7000"));
  WriteBytes(In("mine/NGC_7000/stack.png"), "a picture");
  const Result foreign = Shell("korimg run night --out mine");
  EXPECT_EQ(foreign.code, 1);
  EXPECT_NE(foreign.err.find("stack.png: exists already"), std::string::npos) << foreign.err;
  EXPECT_EQ(ReadBytes(In("mine/NGC_7000/stack.png")), "a picture");
}

}  // namespace
}  // namespace korimg::files
