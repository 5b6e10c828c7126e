#include "viewer/run/Runs.h"

#include <chrono>
#include <thread>

#include "session/picture/Image.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"
#include "viewer/api/Api.h"

namespace korimg::viewer {
namespace {

using namespace session;

namespace fs = std::filesystem;

constexpr const char* kToken = "0123456789abcdef0123456789abcdef";

class RunsTest : public files::FolderTest {
 protected:
  /// A night of four lights, and one that cannot be read.
  RunsTest() {
    test::Simulated(In("night"), {.frames = 4, .width = 1201, .height = 333, .bayer = "RGGB"});
    files::WriteBytes(In("night/lights/broken.fits"), "no image");
    options_.calibrate.lights = {In("night/lights")};
    options_.calibrate.out = In("out");
    options_.limits = {0, 0, 0};
    session::Run(job_, options_);
    context_.reset(new Context{.job = job_, .files = Files({In("out")})});
    AddFinished(router_, *context_);
    AddImage(router_, *context_);
    AddWork(router_, *context_);
    EXPECT_EQ(Ask("runs").body, R"([{"id":0,"name":"out"}])");
  }

  Response Ask(const std::string& name, const std::map<std::string, std::string>& query = {}) {
    return router_.Answer({.method = "GET", .path = Path(name), .query = query, .host = "localhost"});
  }
  Response Send(const std::string& name, const std::string& body) {
    return router_.Answer({.method = "POST", .path = Path(name), .host = "localhost", .body = body});
  }
  static std::string Path(const std::string& name) { return std::string("/") + kToken + "/" + name; }
  Json State() { return Json::parse(Ask("work").body); }
  Json WaitForWork() {
    while (State()["state"] == "working")
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return State();
  }

  Job job_;
  RunOptions options_;
  std::unique_ptr<Context> context_;
  Router router_{kToken};
};

TEST_F(RunsTest, PreviewsAreThePicturesThatTheLibraryMakes) {
  const FinishedRun run = OpenRun(In("out"));
  RegisteredFrames frames(run, {});
  const Shape shape = frames.Size();
  Image image(NewImage(CreateContiguousManager({}), shape.width, shape.height, shape.planes));
  frames.Read(2, image.Rows());
  const Levels levels = frames.StretchOf(2);
  for (const int side : {64, 150, 1600}) {
    std::string expected = JpegOf(job_, image.Pixels(), levels, ShrinkTo(shape, side));
    Previews previews(1);  // keeps one at a time
    EXPECT_TRUE(previews.Get(frames, run, 2, side) == expected);
    EXPECT_FALSE(previews.Get(frames, run, 1, side) == expected);
    EXPECT_TRUE(previews.Get(frames, run, 2, side) == expected) << "also when it is made again";
    const Response response =
        Ask("run/preview", {{"run", "0"}, {"frame", "2"}, {"side", std::to_string(side)}, {"v", "1"}});
    EXPECT_TRUE(response.body == expected);
  }
  EXPECT_THROW(Previews(1).Get(frames, run, 0, 100, [] { return true; }), Cancelled);
  // As tiles, the same frame has the same pixels.
  const Json frame = Json::parse(Ask("run/frame", {{"run", "0"}, {"frame", "2"}}).body);
  const auto open = context_->images.Get(frame["image"], false);
  BandBuffer buffer;
  const Band<float> row = buffer.Get(shape.planes, shape.width, 100, 1);
  open->pyramid->Read(row);
  for (int x = 0; x < shape.width; ++x) {
    const float expected = image.Rows().Row(1, 100)[x], found = row.Row(1, 100)[x];
    EXPECT_TRUE(found == expected || (std::isnan(found) && std::isnan(expected))) << x;
  }
  EXPECT_EQ(frame["levels"][0], levels.min[0]);
}

TEST_F(RunsTest, PreviewsLieAsTheStackDoes) {
  const auto writer = files::ImageWriter::Create(In("below.fits"),
                                                 {.width = 8, .height = 8, .header = files::SkyFromBelow()});
  files::WriteAll(*writer, {std::vector<float>(64)}, 8, 8, 8);
  fs::rename(In("below.fits"), In("out/stack.fits"));
  const FinishedRun run = OpenRun(In("out"));
  RegisteredFrames frames(run, {});
  ASSERT_TRUE(frames.IsOverturned());
  const Shape shape = frames.Size();
  Image image(NewImage(CreateContiguousManager({}), shape.width, shape.height, shape.planes));
  frames.Read(1, image.Rows());
  TurnOver(image.Pixels());
  EXPECT_TRUE(Previews(1).Get(frames, run, 1, 1600) == JpegOf(job_, image.Pixels(), frames.StretchOf(1), 1));
}

TEST_F(RunsTest, FlagsAreWhatTheToolReads) {
  const FinishedRun run = OpenRun(In("out"));
  const fs::path file = In("out/selection.json");
  Flags flags(run);
  flags.Set({0, 3}, true);
  flags.Set({3}, false);
  flags.Set({3}, false);  // changes nothing, and is nothing to undo
  EXPECT_EQ(flags.Now(), (std::vector<bool>{true, false, false, false, false}));
  flags.Undo();
  EXPECT_TRUE(flags.Now()[3]);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(flags.IsSaved());
  flags.Save(run);
  EXPECT_TRUE(flags.IsSaved());
  RunOptions selection;
  AddSelection(selection, file);
  EXPECT_EQ(LeftOutBy(run, selection), flags.Now());
  EXPECT_EQ(Flags(run).Now(), flags.Now());
  for (int i = 0; i < 3; ++i)
    flags.Undo();
  EXPECT_EQ(flags.Now(), std::vector<bool>(5));
  EXPECT_THROW(flags.Set({5}, true), UsageError);
  // What somebody else wrote stays.
  files::WriteBytes(file, "{\"exclude\": [\"light_*\"], \"reference\": \"light_0002.fits\"}");
  EXPECT_THROW(flags.Save(run), files::FileError);
  Flags theirs(run);
  EXPECT_EQ(std::ranges::count(theirs.Now(), true), 4);
  theirs.Set({0}, false);
  theirs.Save(run);
  selection = {};
  AddSelection(selection, file);
  EXPECT_EQ(selection.reference, "light_0002.fits");
  files::WriteBytes(file, "no selection");
  Flags none(run);
  EXPECT_FALSE(none.Problem().empty());
  EXPECT_THROW(none.Save(run), files::FileError);
  EXPECT_EQ(files::ReadBytes(file), "no selection");
}

TEST_F(RunsTest, FlaggedFramesAreLeftOutOfTheStackThatIsMadeAgain) {
  const Json before = Json::parse(Ask("run", {{"run", "0"}}).body);
  EXPECT_EQ(before["stacks"][0]["frames"], 4);
  EXPECT_EQ(before["frames"].size(), 5u);
  const int stack = before["stacks"][0]["image"];
  EXPECT_EQ(context_->files.Find(stack), fs::canonical(In("out/stack.fits")));
  const std::string bytes = files::ReadBytes(In("out/stack.fits"));
  EXPECT_EQ(Send("run/flag", R"({"run":0,"version":1,"frames":[1],"out":true})").status, 200);
  EXPECT_EQ(Send("run/again", R"({"run":0})").status, 400) << "results are not replaced unasked";
  EXPECT_TRUE(files::ReadBytes(In("out/stack.fits")) == bytes);
  EXPECT_EQ(Send("run/again", R"({"run":0,"version":1,"folder":"second"})").status, 200);
  Json state = WaitForWork();
  EXPECT_EQ(state["state"], "done") << state;
  EXPECT_TRUE(files::ReadBytes(In("out/stack.fits")) == bytes);
  EXPECT_EQ(OpenRun(In("out/second")).stacks[0].frames, 3);
  EXPECT_EQ(Json::parse(Ask("runs").body).size(), 2u);
  EXPECT_EQ(Send("run/again", R"({"run":0,"version":1,"folder":"second"})").status, 422) << "is there by now";
  EXPECT_EQ(Send("run/again", R"({"run":0,"version":1,"replace":true})").status, 200);
  state = WaitForWork();
  EXPECT_EQ(Send("run/flag", R"({"run":0,"version":1,"frames":[0],"out":true})").status, 400)
      << "frames are counted otherwise now";
  EXPECT_EQ(state["result"]["stacks"][0]["frames"], 3) << state;
  const Json after = Json::parse(Ask("run", {{"run", "0"}}).body);
  EXPECT_EQ(after["stacks"][0]["frames"], 3);
  EXPECT_NE(after["version"], before["version"]);
  const auto flagged = std::ranges::find_if(
      after["frames"], [&](const Json& frame) { return frame["name"] == before["frames"][1]["name"]; });
  EXPECT_EQ(after["flags"]["out"][flagged - after["frames"].begin()], true) << "wherever it is told of now";
  EXPECT_EQ(std::ranges::count(after["flags"]["out"].get<std::vector<bool>>(), true), 1);
  EXPECT_FALSE(files::ReadBytes(In("out/stack.fits")) == bytes);
  EXPECT_TRUE(files::ReadBytes(In("out/stack_float.tif")) ==
              files::ReadBytes(In("out/second/stack_float.tif")));
}

TEST_F(RunsTest, WhatIsNotThereIsRefused) {
  const std::vector<std::pair<std::string, std::string>> wrong{
      {"run", "1"},   {"run", ""},     {"run", "-1"},    {"run", "../out"}, {"run", "0.5"},
      {"frame", "5"}, {"frame", "-1"}, {"frame", "1e9"}, {"side", "1601"},  {"side", "nan"}};
  const std::map<std::string, std::string> good{{"run", "0"}, {"frame", "0"}, {"side", "100"}};
  for (const std::string name : {"run", "run/thumbnail", "run/preview", "run/frame"}) {
    EXPECT_EQ(Ask(name, good).status, 200) << name;
    for (const auto& [key, value] : wrong) {
      const bool isAsked = key == "run" || (key == "frame" && name != "run") || name == "run/preview";
      auto query = good;
      query[key] = value;
      EXPECT_EQ(Ask(name, query).status, isAsked ? 400 : 200) << name << " " << key << " " << value;
    }
  }
  EXPECT_EQ(Ask("run/thumbnail", {{"run", "0"}, {"frame", "4"}}).status, 400) << "it was never read";
  EXPECT_EQ(Ask("run/frame", {{"run", "0"}, {"frame", "4"}}).status, 400);
  EXPECT_EQ(Ask("image/info", {{"id", std::to_string((1 << 29) + 77)}}).status, 400);
  for (const char* body :
       {"", "[]", "{}", R"({"run":"0"})", R"({"run":-1})", R"({"run":1e30})",
        R"({"run":7,"frames":[0],"out":true})", R"({"run":0,"version":1,"frames":0,"out":true})",
        R"({"run":0,"version":1,"frames":[-1],"out":true})",
        R"({"run":0,"version":1,"frames":[5],"out":true})",
        R"({"run":0,"version":1,"frames":[0.5],"out":true})",
        R"({"run":0,"version":1,"frames":["0"],"out":true})",
        R"({"run":0,"version":1,"frames":[0],"out":1})"}) {
    EXPECT_EQ(Send("run/flag", body).status, 400) << body;
  }
  for (const char* folder : {"../x", "a/b", "/tmp/x", ".", "..", ".korimg", "a b", "ß"}) {
    EXPECT_EQ(
        Send("run/again", "{\"run\":0,\"version\":1,\"folder\":\"" + std::string(folder) + "\"}").status, 400)
        << folder;
  }
  EXPECT_EQ(Send("run/again", R"({"run":0,"version":1,"folder":5})").status, 400);
  EXPECT_EQ(Send("run/again", R"({"run":0,"version":1,"folder":"masters2","replace":5})").status, 200)
      << "a new folder";
  WaitForWork();
  EXPECT_EQ(Send("run/save", "x").status, 400);
  EXPECT_EQ(Send("run/undo", "null").status, 400);
}

}  // namespace
}  // namespace korimg::viewer
