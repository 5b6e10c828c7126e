#include "viewer/server/Work.h"

#include <atomic>
#include <sstream>

#include <gtest/gtest.h>

namespace korimg::viewer {
namespace {

using session::Job;

class WorkTest : public testing::Test {
 protected:
  /// The events after a number, to the end of the job.
  std::vector<Json> Events(long long last = 0) {
    std::string all;
    work_.Follow(
        last, [&](const std::string& piece) { return all += piece, true; }, [] { return false; });
    std::istringstream lines(all);
    std::vector<Json> events;
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("data: ")) events.push_back(Json::parse(line.substr(6)));
    }
    return events;
  }

  Job job_;
  Work work_{job_};
};

TEST_F(WorkTest, TellsPagesThatComeLaterAll) {
  const auto doing = [](Job& job) {
    job.Say("begins");
    for (int i = 1; i <= 100; ++i)
      job.JobProgress("counting", i, 100);
    job.Tell("{\"file\":\"a.fits\"}", "made a.fits");
    job.Fail("half of it");
    return Json{{"made", 1}};
  };
  EXPECT_EQ(work_.State()["state"], "idle");
  EXPECT_TRUE(Events().empty()) << "who waits for nothing is sent home";
  EXPECT_EQ(work_.Start("counting", {.origin = "a test"}, doing), 1);
  const auto events = Events();
  ASSERT_GE(events.size(), 5u);
  EXPECT_EQ(events.front()["text"], "begins");
  EXPECT_EQ(events.back()["kind"], "end");
  EXPECT_EQ(events.back()["result"]["made"], 1);
  EXPECT_EQ(events.back()["failed"], true);
  const auto again = Events();
  ASSERT_EQ(again.size(), 5u) << "of progress the last word is kept";
  EXPECT_EQ(again[1]["step"], 100);
  EXPECT_EQ(again[2]["data"]["file"], "a.fits");
  EXPECT_EQ(again[3]["kind"], "failure");
  EXPECT_EQ(Events(work_.State()["last"].get<long long>() - 1).size(), 1u);
  EXPECT_EQ(work_.Start("again", {}, doing), 2);
  EXPECT_EQ(Events().back()["number"], 2) << "what was before is gone";
}

TEST_F(WorkTest, DoesOneThingAtATimeAndEndsItWhenTold) {
  std::atomic<bool> isAtWork = false;
  const auto forever = [&](Job& job) -> Json {
    for (isAtWork = true;; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
      job.CheckCancelled();
  };
  work_.Start("the first", {}, forever);
  EXPECT_THROW(work_.Start("the second", {}, forever), session::UsageError);
  work_.Cancel();
  EXPECT_EQ(Events().back()["state"], "cancelled");
  work_.Start("what fails", {}, [](Job&) -> Json { throw session::UsageError("no such thing"); });
  EXPECT_EQ(Events().back()["error"], "no such thing");
  EXPECT_EQ(work_.State()["state"], "failed");
  work_.Start("with the viewer", {}, forever);
  job_.options.cancel->Cancel();
  EXPECT_EQ(Events().back()["state"], "cancelled");
}

TEST_F(WorkTest, LetsGoOfPagesThatAreClosed) {
  work_.Start("long", {}, [](Job& job) -> Json {
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      job.CheckCancelled();
      job.Say("a line");
    }
  });
  int sent = 0;
  work_.Follow(
      0, [&](const std::string&) { return ++sent < 2; }, [] { return false; });
  EXPECT_EQ(sent, 2);
  work_.Follow(
      0, [&](const std::string&) { return true; }, [] { return true; });
}  // the end of the object ends the job

}  // namespace
}  // namespace korimg::viewer
