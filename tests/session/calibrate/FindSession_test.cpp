// Frames of a session wherever they lie, and what serves which of them.
#include "session/calibrate/FindSession.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/calibrate/internal/Session.h"
#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

using Cards = std::map<std::string, std::string>;

class FindSessionTest : public files::FolderTest {
 protected:
  FindSessionTest() {
    options_.report = [this](const Event& event) {
      if (event.kind == Event::Warning) warnings_ += event.text + '\n';
    };
  }

  /// A frame of 30 x 20 with such cards, of noise about a level.
  void Frame(const std::string& name, const Cards& cards, double level = 100) {
    files::Header header;
    for (const auto& [key, value] : cards) {
      const auto number = ToNumber(value);
      if (key == "HISTORY") {
        header.AddHistory(value);
      } else {
        number ? header.Set(key, *number) : header.Set(key, value);
      }
    }
    fs::create_directories(In(name).parent_path());
    std::vector<float> pixels;
    for (int i = 0; i < 600; ++i) {
      pixels.push_back(static_cast<float>(level + (i * 37 + ++frames_ * 11) % 7));
    }
    files::WriteAll(*files::ImageWriter::Create(
                        In(name), {.width = 30, .height = 20, .type = "uint16", .header = header}),
                    {pixels}, 30, 20, 20);
  }

  static std::string Names(const std::vector<fs::path>& files) {
    std::vector<std::string> names;
    for (const fs::path& file : files) {
      names.push_back(file.stem().string());
    }
    std::sort(names.begin(), names.end());
    return fmt::format("{}", fmt::join(names, " "));
  }

  CalibrateOptions Options(Job& job) const {
    CalibrateOptions options;
    SessionFrames found = FindSession(job, folder_);
    options.lights = found.lights;
    options.darks = found.darks;
    options.flats = found.flats;
    options.biases = found.biases;
    options.misfitsMayBeMissing = true;
    return options;
  }

  JobOptions options_;
  std::string warnings_;
  int frames_ = 0;
};

TEST_F(FindSessionTest, FramesAreWhatTheyOrTheirFoldersOrTheirNamesSay) {
  Frame("a.fits", {{"IMAGETYP", "Light Frame"}});
  Frame("b.fits", {{"IMAGETYP", "DARK"}});
  Frame("c.fits", {{"FRAME", "Flat"}});
  Frame("d.fits", {{"IMAGETYP", "Bias Frame"}});
  Frame("e.fits", {{"IMAGETYP", "DarkFlat"}});
  Frame("deep/Lights/2026-03-14/Ha/f.fits", {});
  Frame("deep/Dark Flats/g.fits", {});
  Frame("deep/Lights/h.fits", {{"IMAGETYP", "dark"}});
  Frame("i_BIAS_0001.fits", {});
  Frame("darkness_j.fits", {});
  Frame("lights/k.fits", {{"IMAGETYP", "something"}});
  Frame("master_flat_Ha.fits", {});
  Frame("l.fits", {{"IMAGETYP", "Master Dark"}});
  // Neither of these is a frame.
  Frame("m.fits", {{"IMAGETYP", "LIGHT"}, {"STACKCNT", "12"}});
  Frame("p.fits", {{"IMAGETYP", "Master Light"}});
  Frame("q.fits", {{"IMAGETYP", "FOCUS"}});
  Frame(".hidden/lights/n.fits", {});
  fs::create_directory_symlink("..", In("deep/up"));
  Frame("earlier/stack.fits", {});
  Frame("earlier/masters/master_dark.fits", {{"IMAGETYP", "DARK"}});
  files::WriteBytes(In("earlier/report.html"), "");
  Frame("results/lights/o.fits", {});
  files::WriteBytes(In("picture.png"), "none");
  Frame("calibrated/a.fits", {{"IMAGETYP", "Light Frame"}, {"HISTORY", "korimg 0.2.0 calibrate"}});
  Job job(options_);
  const SessionFrames found = FindSession(job, folder_, In("results"));
  EXPECT_EQ(Names(found.lights), "a darkness_j f k");
  EXPECT_EQ(Names(found.darks), "b e g h l");
  EXPECT_EQ(Names(found.flats), "c master_flat_Ha");
  EXPECT_EQ(Names(found.biases), "d i_BIAS_0001");
  EXPECT_NE(warnings_.find("in a folder of lights, but say that they are darks"), std::string::npos);
  EXPECT_NE(warnings_.find("h.fits"), std::string::npos);
  EXPECT_NE(warnings_.find("stacks of several lights"), std::string::npos);
  EXPECT_NE(warnings_.find("calibrated lights beside raw ones"), std::string::npos);
  EXPECT_NE(warnings_.find("IMAGETYP says that they are no light, dark, flat or bias"), std::string::npos);
  EXPECT_NE(warnings_.find("taken as lights, for nothing says what they are"), std::string::npos);
  fs::remove_all(In("deep"));
  fs::create_directories(In("none"));
  EXPECT_THROW(FindSession(job, In("none")), files::FileError);
  EXPECT_THROW(FindSession(job, In("nowhere")), files::FileError);
}

TEST_F(FindSessionTest, ResultsLieApartFromFramesAndOtherFoldersFillGaps) {
  Frame("night/lights/l1.fits", {});
  Frame("night/darks/d1.fits", {});
  Frame("night/unfinished/stack.fits", {});
  fs::create_directory(In("night/unfinished/.korimg"));
  Frame("library/darks/d7.fits", {});
  Frame("library/flats/f7.fits", {});
  Job job(options_);
  const SessionFrames found = FindSession(job, In("night"), In("night/result"), In("library"));
  EXPECT_EQ(Names(found.lights), "l1") << "a run that was not finished holds no frames";
  EXPECT_EQ(Names(found.darks), "d1");
  EXPECT_EQ(Names(found.flats), "f7");
  for (const char* taken : {"night/darks", "night/lights"}) {
    EXPECT_NE(files::ErrorOf([&] { FindSession(job, In("night"), In(taken)); }).find("holds frames"),
              std::string::npos)
        << taken;
  }
  EXPECT_EQ(Names(FindSession(job, In("night"), In("night/unfinished")).lights), "l1");
}

TEST_F(FindSessionTest, NightsFoldersAndRotatorsHaveTheirOwnFlats) {
  const auto at = [](const char* kind, int day, int hour) {
    return Cards{{"IMAGETYP", kind},
                 {"DATE-OBS", fmt::format("2026-03-{:02}T{:02}:00:00", day, hour)},
                 {"ROTATANG", "0.5"}};
  };
  for (const int day : {14, 15}) {
    for (int i = 0; i < 3; ++i) {
      Frame(fmt::format("flat_{}_{}.fits", day, i), at("flat", day, 18), 1000);
    }
    Frame(fmt::format("light_{}_late.fits", day), at("light", day, 23));
    Frame(fmt::format("light_{}_morning.fits", day), at("light", day + 1, 3));
  }
  Cards turned = at("flat", 14, 19);
  turned["ROTATANG"] = "90";
  Frame("turned_0.fits", turned, 1000);
  Frame("turned_1.fits", turned, 1000);
  turned["IMAGETYP"] = "light", turned["ROTATANG"] = "449";
  Frame("light_turned.fits", turned);
  Job job(options_);
  const CalibrateOptions options = Options(job);
  const Session session(job, options);
  const auto flatOf = [](const Session& s, const std::string& light) {
    for (const Light& l : s.Lights()) {
      if (StemOf(l.frame.path) == light && l.flat) return StemOf(l.flat->frames.front().path);
    }
    return std::string("none");
  };
  EXPECT_EQ(session.Lights().size(), 5u) << warnings_;
  for (const int day : {14, 15}) {
    for (const char* when : {"late", "morning"}) {
      EXPECT_EQ(flatOf(session, fmt::format("light_{}_{}", day, when)), fmt::format("flat_{}_0", day));
    }
  }
  EXPECT_EQ(flatOf(session, "light_turned"), "turned_0");
  CalibrateOptions together = options;
  together.group = "none";
  EXPECT_EQ(flatOf(Session(job, together), "light_15_late"), "flat_14_0");
  together.group = "OBSERVER,";
  EXPECT_THROW(Session(job, together), UsageError);
  // Folders go before time.
  Frame("two/n1/flats/x0.fits", at("flat", 20, 18), 1000);
  Frame("two/n1/flats/x1.fits", at("flat", 20, 18), 1000);
  Frame("two/n2/flats/y0.fits", at("flat", 20, 19), 1000);
  Frame("two/n2/flats/y1.fits", at("flat", 20, 19), 1000);
  Frame("two/n1/lights/first.fits", at("light", 20, 22));
  Frame("two/n2/lights/second.fits", at("light", 20, 17));
  const CalibrateOptions both = Options(job);
  const Session folders(job, both);
  EXPECT_EQ(flatOf(folders, "first"), "x0");
  EXPECT_EQ(flatOf(folders, "second"), "y0");
}

TEST_F(FindSessionTest, MatchingBendsWhereItCanAndSaysSoOnce) {
  for (int i = 0; i < 2; ++i) {
    Frame(fmt::format("dark_600_{}.fits", i), {{"IMAGETYP", "dark"}, {"EXPTIME", "600"}}, 400);
    Frame(fmt::format("bias_{}.fits", i), {{"IMAGETYP", "bias"}}, 100);
    Frame(fmt::format("flat_{}.fits", i), {{"IMAGETYP", "flat"}, {"FILTER", "ha"}, {"EXPTIME", "1"}}, 9000);
    Frame(fmt::format("light_{}.fits", i), {{"IMAGETYP", "light"}, {"FILTER", " Ha"}, {"EXPTIME", "600.4"}},
          2000);
    Frame(fmt::format("short_{}.fits", i), {{"IMAGETYP", "light"}, {"FILTER", "HA"}, {"EXPTIME", "150"}},
          2000);
    Frame(fmt::format("oiii_{}.fits", i), {{"IMAGETYP", "light"}, {"FILTER", "OIII"}, {"EXPTIME", "600"}},
          2000);
  }
  Job job(options_);
  const CalibrateOptions options = Options(job);
  Session session(job, options);
  ASSERT_EQ(session.Lights().size(), 6u) << warnings_;
  session.Prepare();
  const auto count = [&](const std::string& text) {
    int found = 0;
    for (size_t at = warnings_.find(text); at != std::string::npos; at = warnings_.find(text, at + 1)) {
      ++found;
    }
    return found;
  };
  EXPECT_EQ(count("there are no flats of filter OIII"), 1) << warnings_;
  EXPECT_EQ(count("there are no darks of 150 s: those of 600 s are scaled by the bias"), 1) << warnings_;
  for (const Light& light : session.Lights()) {
    const std::string name = StemOf(light.frame.path);
    EXPECT_EQ(light.flat != nullptr, !name.starts_with("oiii")) << name;
    ASSERT_TRUE(light.dark) << name;
    EXPECT_EQ(light.dark->scaledFrom != nullptr, name.starts_with("short")) << name;
    if (name.starts_with("short")) {
      // 2003 less 100 and a quarter of 300, by a flat that is even.
      EXPECT_NEAR(session.LoadLight(light).loaded.Pixels().GetPixelGrayRaw(15, 10, 0), 2003 - 175, 12);
    }
  }
  // What nothing serves is told once.
  for (int i = 0; i < 3; ++i) {
    Frame(fmt::format("other_{}.fits", i),
          {{"IMAGETYP", "light"}, {"GAIN", "7"}, {"EXPTIME", "600"}, {"FILTER", "Ha"}});
  }
  Frame("dark_gain.fits", {{"IMAGETYP", "dark"}, {"GAIN", "1"}, {"EXPTIME", "600"}}, 400);
  for (int i = 0; i < 2; ++i) {
    fs::remove(In(fmt::format("dark_600_{}.fits", i)));
  }
  warnings_.clear();
  const CalibrateOptions more = Options(job);
  const Session refuses(job, more);
  EXPECT_EQ(refuses.Failed().size(), 3u) << warnings_;
  EXPECT_EQ(count("GAIN is 7, but 1 in the dark frames"), 1) << warnings_;
  EXPECT_EQ(count("and 2 other lights"), 1) << warnings_;
}

TEST_F(FindSessionTest, ALibraryOfMastersIsUsedUntilItsFramesChange) {
  for (int i = 0; i < 3; ++i) {
    Frame(fmt::format("dark_{}.fits", i), {{"IMAGETYP", "dark"}, {"EXPTIME", "60"}}, 100);
    Frame(fmt::format("flat_{}.fits", i), {{"IMAGETYP", "flat"}}, 9000);
    Frame(fmt::format("light_{}.fits", i), {{"IMAGETYP", "light"}, {"EXPTIME", "60"}}, 2000);
  }
  Job job(options_);
  CalibrateOptions options = Options(job);
  options.masters = In("library");
  options.mastersAreLibrary = true;
  const auto prepare = [&](const CalibrateOptions& o) {
    Session session(job, o);
    session.CheckOutputs({});
    session.Prepare();
    return session.LoadLight(session.Lights()[0]).loaded.Pixels().GetPixelGrayRaw(3, 4, 0);
  };
  const auto masters = [&] {
    std::map<std::string, fs::file_time_type> found;
    for (const auto& entry : fs::directory_iterator(In("library"))) {
      if (entry.path().extension() == ".fits") found[entry.path().filename()] = entry.last_write_time();
    }
    return found;
  };
  const float value = prepare(options);
  const auto first = masters();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(prepare(options), value);
  EXPECT_EQ(masters(), first) << "nothing was made again";
  // A master that somebody changed, or that is half of one, is made again.
  fs::resize_file(In("library/" + first.begin()->first), 3000);
  EXPECT_EQ(prepare(options), value);
  const auto mended = masters();
  // Another session beside it; then the first one with another dark.
  CalibrateOptions other = options;
  other.darks.pop_back();
  prepare(other);
  EXPECT_EQ(masters().size(), 3u);
  EXPECT_EQ(prepare(options), value);
  EXPECT_EQ(masters().at(first.begin()->first), mended.at(first.begin()->first));
  fs::remove(In("dark_1.fits"));
  Frame("dark_1.fits", {{"IMAGETYP", "dark"}, {"EXPTIME", "60"}}, 150);
  EXPECT_NE(prepare(options), value + 1000);
  EXPECT_NE(masters(), first) << "a dark has changed";
}

}  // namespace
}  // namespace korimg::session
