// A folder that is stacked as it is filled, whatever happens to it meanwhile.
#include "viewer/live/Live.h"

#include <chrono>
#include <functional>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::viewer {
namespace {

using namespace session;

namespace fs = std::filesystem;

class LiveTest : public files::FolderTest {
 protected:
  LiveTest() {
    test::Simulated(In("night"), {.frames = 5, .width = 320, .height = 240});
    fs::create_directory(In("watched"));
  }

  fs::path Light(int number) const { return In("night") / fmt::format("lights/light_{:04}.fits", number); }
  void Put(int number) {
    const fs::path place = In("watched") / Light(number).filename();
    fs::copy(Light(number), place.string() + ".part");
    fs::rename(place.string() + ".part", place);
  }

  void Watch(const fs::path& masters = {}) {
    live_.reset();
    live_ = std::make_unique<Live>(job_, WatchedFolder{In("watched"), masters});
  }
  Json State() {
    return live_->State({.begun = -1}, [] { return false; });
  }
  /// The state, once it is as wanted, or what it is after long.
  Json Until(const std::function<bool(const Json&)>& isWanted) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    Json state = State();
    while (!isWanted(state) && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      state = State();
    }
    EXPECT_TRUE(isWanted(state)) << state.dump(1);
    return state;
  }
  Json UntilCount(int count) {
    return Until([count](const Json& state) { return state["count"] == count; });
  }

  Job job_;
  std::unique_ptr<Live> live_;
};

TEST_F(LiveTest, CalibrationFramesServeThatLieThereBeforeAnyLight) {
  for (const char* kind : {"darks", "flats", "biases"}) {
    fs::rename(In("night") / kind, In("watched") / kind);
  }
  Watch();
  Put(1);
  const Json first = UntilCount(1)["frames"][0];
  EXPECT_TRUE(first["added"]) << first;
  EXPECT_NE(first["masters"].get<std::string>().find("dark"), std::string::npos) << first;
  EXPECT_NE(first["masters"].get<std::string>().find("flat"), std::string::npos) << first;
}

TEST_F(LiveTest, AnyFrameIsTheFirstOneWhenItIsTold) {
  Watch();
  for (int i = 1; i <= 4; ++i) {
    Put(i);
    UntilCount(i);
  }
  Json state = State();
  EXPECT_EQ(state["added"], 4);
  EXPECT_EQ(state["frames"][0]["dx"], 0);
  EXPECT_NE(state["frames"][2]["dx"], 0);
  EXPECT_THROW(live_->BeginWith(4, 0), UsageError);
  EXPECT_THROW(live_->BeginWith(-1, 0), UsageError);
  const std::string name = state["frames"][2]["name"];
  EXPECT_THROW(live_->BeginWith(2, 1), UsageError);
  live_->BeginWith(2, 0);
  state = Until([](const Json& now) { return now["begun"] == 1 && now["count"] == 4; });
  EXPECT_EQ(state["added"], 4);
  EXPECT_EQ(state["frames"][0]["name"], name);
  EXPECT_EQ(state["frames"][0]["dx"], 0);
  EXPECT_NE(state["frames"][1]["dx"], 0);
  EXPECT_EQ(live_->Snapshot().Header().GetDouble("NCOMBINE"), 4);
  // A page that has seen all of it is told of what is new alone, one of the stack before of all.
  Put(5);
  UntilCount(5);
  const auto seen = [&](const Live::Seen& what) {
    return live_->State(what, [] { return true; })["frames"].size();
  };
  EXPECT_EQ(seen({.begun = 1, .frames = 4}), 1U);
  EXPECT_EQ(seen({.begun = 0, .frames = 4}), 5U);
}

TEST_F(LiveTest, WhatIsGoneForAWhileIsWaitedFor) {
  fs::create_directory(In("masters"));
  for (const char* kind : {"darks", "flats", "biases"}) {
    fs::rename(In("night") / kind, In("masters") / kind);
  }
  Watch(In("masters"));
  fs::rename(In("masters"), In("away"));
  Put(1);
  Json state = Until([](const Json& now) { return now["failure"] != ""; });
  EXPECT_FALSE(state["ended"]);
  fs::rename(In("away"), In("masters"));
  state = UntilCount(1);
  EXPECT_TRUE(state["frames"][0]["added"]) << state;
  Until([](const Json& now) { return now["failure"] == ""; });
  // Also when it is begun anew meanwhile.
  fs::rename(In("masters"), In("away"));
  live_->BeginWith(0, 0);
  Until([](const Json& now) { return now["failure"] != ""; });
  fs::rename(In("away"), In("masters"));
  Until([](const Json& now) { return now["begun"] == 1 && now["count"] == 1 && now["failure"] == ""; });
  // The folder itself.
  fs::rename(In("watched"), In("pulled out"));
  state = Until([](const Json& now) { return now["failure"] != ""; });
  EXPECT_EQ(state["failure"].get<std::string>().find(In("watched").string()), std::string::npos) << state;
  live_->BeginWith(0, 1);
  Until([](const Json& now) { return now["begun"] == 2 && now["failure"] != ""; });
  fs::rename(In("pulled out"), In("watched"));
  Put(2);
  state = Until([](const Json& now) { return now["added"] == 2; });
  EXPECT_EQ(state["failure"], "");
}

TEST_F(LiveTest, ABeginningWaitsForTheFolderWhereThatHasTheCalibrationFramesToo) {
  fs::rename(In("night/darks"), In("watched/darks"));
  Watch();
  Put(1);
  UntilCount(1);
  fs::rename(In("watched"), In("away"));
  live_->BeginWith(0, 0);
  EXPECT_FALSE(Until([](const Json& now) { return now["failure"] != ""; })["ended"]);
  fs::rename(In("away"), In("watched"));
  Until([](const Json& now) { return now["begun"] == 1 && now["added"] == 1 && now["failure"] == ""; });
}

TEST_F(LiveTest, PassesOverItsOwnResultsAndIsNotHeldUpByPipes) {
  Watch();
  Put(1);
  UntilCount(1);
  live_->PassOver(In("watched/live.fits"));
  live_->PassOver(In("watched/result"));
  fs::copy(Light(2), In("watched/live.fits"));
  fs::create_directory(In("watched/result"));
  fs::copy(Light(3), In("watched/result/stack.fits"));
  ASSERT_EQ(mkfifo(In("watched/pipe.fits").c_str(), 0600), 0);
  Json state = UntilCount(2);
  EXPECT_EQ(state["frames"][1]["name"], "pipe.fits");
  EXPECT_NE(state["frames"][1]["status"].get<std::string>().find("not a regular file"), std::string::npos);
  Put(4);
  state = UntilCount(3);
  EXPECT_EQ(state["frames"][2]["name"], Light(4).filename().string());
}

}  // namespace
}  // namespace korimg::viewer
