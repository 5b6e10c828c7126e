// A run and a stack in tasks that machines share: the same bytes as at once.
#include <algorithm>
#include <future>
#include <map>

#include <fitsio.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "session/run/internal/State.h"
#include "tests/app/Tool.h"
#include "tests/support/Simulated.h"

namespace korimg::files {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class ClusterTest : public ToolTest {
 protected:
  ClusterTest() { setenv("SOURCE_DATE_EPOCH", "1700000000", 1); }
  ~ClusterTest() override { unsetenv("SOURCE_DATE_EPOCH"); }

  /// The bytes of all results, but for what tells of the call and of when masters were written.
  std::map<std::string, std::string> Results(const std::string& out) const {
    std::map<std::string, std::string> results;
    for (const auto& entry : fs::recursive_directory_iterator(In(out))) {
      const std::string name = fs::relative(entry.path(), In(out)).string();
      if (!entry.is_regular_file() || name.find(".korimg/") != name.npos) continue;
      std::string bytes = ReadBytes(entry.path());
      const auto erase = [&](const std::string& from, const std::string& to) {
        for (size_t at = bytes.find(from); at < bytes.size(); at = bytes.find(from)) {
          bytes.erase(at, bytes.find(to, at) - at);
        }
      };
      if (name.ends_with("report.html")) erase("<code>", "</code>");
      if (name.ends_with("manifest.json")) erase("\"stamp\"", "\n");
      results[name] = std::move(bytes);
    }
    return results;
  }

  void ExpectSame(const std::string& out, const std::string& wanted, const std::string& what) const {
    const auto a = Results(out), b = Results(wanted);
    EXPECT_EQ(a.size(), b.size()) << what;
    for (const auto& [name, bytes] : b) {
      EXPECT_TRUE(a.contains(name) && a.at(name) == bytes) << what << ": " << name;
    }
  }

  /// Files of a run's state that end or begin so.
  std::vector<fs::path> State(const std::string& out, const std::string& part) const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(In(out + "/.korimg"))) {
      if (entry.path().filename().string().find(part) != std::string::npos) found.push_back(entry.path());
    }
    return found;
  }

  /// The numbers of the tasks of each stage, in the order of stages.
  std::vector<std::vector<int>> Stages(const std::string& plan) const {
    std::vector<std::vector<int>> stages;
    std::string last;
    const json read = json::parse(ReadBytes(In(plan)));
    for (const json& task : read["tasks"]) {
      if (task["stage"] != last) stages.emplace_back();
      last = task["stage"];
      stages.back().push_back(task["number"]);
    }
    return stages;
  }

  /// Two filters, hot pixels, a light with a constant border, a copy, and one that is damaged in its middle.
  void MakeNight(const std::string& folder) {
    test::Simulated(In(folder), {.frames = 5, .width = 300, .height = 200, .filters = {"L", "R"}, .seed = 3});
    const auto light = [&](int n) { return In(fmt::format("{}/lights/light_L_{:04}.fits", folder, n)); };
    const auto reader = ImageReader::Open(light(2));
    Planes pixels = ReadAll(*reader, 64);
    for (size_t i = 0; i < pixels[0].size(); ++i) {
      if (i % 300 < 17) pixels[0][i] = 0;
    }
    WriteAll(*ImageWriter::Create(light(2), {.width = 300,
                                             .height = 200,
                                             .type = "uint16",
                                             .header = reader->Info().header,
                                             .overwrite = true}),
             pixels, 300, 200, 64);
    fs::copy(light(3), In(folder + "/lights/light_L_0006.fits"));
    // Its header can be read, and its pixels cannot.
    const fs::path damaged = light(5), packed = In("packed.fits");
    fitsfile *from = nullptr, *to = nullptr;
    int status = 0;
    fits_open_diskfile(&from, damaged.c_str(), READONLY, &status);
    fits_create_diskfile(&to, packed.c_str(), &status);
    fits_set_compression_type(to, GZIP_1, &status);
    fits_img_compress(from, to, &status);
    fits_close_file(to, &status);
    fits_close_file(from, &status);
    ASSERT_EQ(status, 0);
    std::string bytes = ReadBytes(packed);
    std::fill(bytes.begin() + static_cast<long>(bytes.size()) / 2, bytes.end(), 'x');
    WriteBytes(damaged, bytes);
    fs::last_write_time(damaged, fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
};

TEST_F(ClusterTest, ARunInTasksHasTheBytesOfARun) {
  MakeNight("night");
  test::Simulated(In("colour"), {.frames = 4, .width = 260, .height = 201, .bayer = "GRBG", .seed = 5});
  test::Simulated(In("lens"),
                  {.frames = 7, .width = 640, .height = 480, .barrel = 0.02, .dither = 0.06, .seed = 8});
  enum Order { Straight, Backwards, Twice };
  const struct {
    const char *night, *options;
    std::vector<std::pair<int, Order>> ways;
  } cases[] = {{"night", "", {{1, Straight}, {2, Twice}, {5, Backwards}}},
               {"colour", "--uncertainty --mask --gradient --maps --min-stars 0", {{3, Backwards}}},
               {"lens", "--model distortion", {{2, Straight}}}};
  for (const auto& [night, options, ways] : cases) {
    const std::string whole = std::string("whole ") + night;
    const Result wanted = Shell(fmt::format("korimg run {} --out '{}' {} -q", night, whole, options));
    ASSERT_EQ(wanted.code, 0) << wanted.err;
    for (const auto& [parts, order] : ways) {
      const std::string what = fmt::format("{} in {} parts, order {}", night, parts, int{order});
      const Result plan = Shell(fmt::format(
          "korimg run {} --out out {} --plan-only plan.json --overwrite --parts {}", night, options, parts));
      ASSERT_EQ(plan.code, 0) << plan.err;
      EXPECT_NE(plan.out.find("masters: task 0\n"), plan.out.npos) << plan.out;
      EXPECT_FALSE(fs::exists(In("out"))) << "a plan writes nothing else";
      fs::create_directories(In("elsewhere"));
      auto stages = Stages("plan.json");
      ASSERT_EQ(stages.size(), 5u);
      const std::vector<int> finish = stages.back();
      stages.pop_back();
      for (std::vector<int>& stage : stages) {
        if (order == Backwards) std::ranges::reverse(stage);
        for (const int task : stage) {
          const std::string call = fmt::format("korimg run --plan ../plan.json --task {} -q", task);
          const Result r = Shell("cd elsewhere; " + call +
                                 (order == Twice ? " & first=$!; " + call + " && wait $first" : ""));
          ASSERT_EQ(r.code, 0) << what << ", task " << task << ": " << r.err;
        }
      }
      EXPECT_EQ(State("out", ".rows-").size(), stages.back().size()) << what;
      const auto laid = fs::last_write_time(In("out/.korimg/registration.cbor"));
      const std::string lenses = ReadBytes(In("out/masters/lenses.json"));
      const Result last = Shell(fmt::format("korimg run --plan plan.json --task {}", finish[0]));
      ASSERT_EQ(last.code, 0) << last.err;
      EXPECT_EQ(fs::last_write_time(In("out/.korimg/registration.cbor")), laid) << what << ": laid again";
      EXPECT_EQ(ReadBytes(In("out/masters/lenses.json")), lenses) << what;
      EXPECT_EQ(lenses.empty(), std::string(night) != "lens");
      EXPECT_NE(last.out.find(" rows were stacked before"), last.out.npos) << what;
      ExpectSame("out", whole, what);
      EXPECT_TRUE(State("out", ".rows-").empty() && State("out", ".part").empty()) << what;
      // All of it again: nothing is left to do.
      const Result again = Shell(fmt::format("korimg run --plan plan.json --task 0-{}", finish[0] - 1));
      EXPECT_EQ(again.code, 0) << again.err;
      if (std::string(night) == "lens") {
        size_t done = 0;
        for (size_t at = 0; (at = again.out.find("is done already", at)) < again.out.size(); ++at) {
          ++done;
        }
        EXPECT_EQ(done, finish[0]) << again.out;
      }
      ExpectSame("out", whole, what + ", again");
      fs::remove_all(In("out"));
    }
  }
}

TEST_F(ClusterTest, ManyAtOnceDoNoHarm) {
  test::Simulated(In("night"), {.frames = 4, .width = 400, .height = 300, .seed = 2});
  ASSERT_EQ(Shell("korimg run night --out whole -q --threads 1; korimg run night --out out --plan-only "
                  "p.json --parts 2")
                .code,
            0);
  for (const char* call :
       {"run --plan p.json --task 0", "run --plan p.json --task 1-2", "run --plan p.json --task 3",
        "run --plan p.json --task 4-5", "run --plan p.json --task 6", "run night --out fresh"}) {
    const Result r =
        Shell(fmt::format("for i in 1 2 3 4; do korimg {} -q --threads 1 & jobs[i]=$!; done; "
                          "for i in 1 2 3 4; do wait ${{jobs[i]}} || exit 1; done",
                          call));
    EXPECT_EQ(r.code, 0) << call << ": " << r.err;
    EXPECT_EQ(r.err.find("cannot"), r.err.npos) << call << ": " << r.err;
  }
  ExpectSame("out", "whole", "tasks");
  ExpectSame("fresh", "whole", "runs");
  EXPECT_TRUE(State("out", ".part").empty());
  // What two keep at the very same time is one of them.
  fs::create_directories(In("kept/.korimg"));
  session::RunState state(In("kept"), {}, false);
  state.Begin({});
  const auto keep = [&state] {
    for (int i = 0; i < 300; ++i) {
      state.Keep("same", "digest", {{"i", i}});
    }
  };
  auto other = std::async(std::launch::async, keep);
  EXPECT_NO_THROW(keep());
  EXPECT_NO_THROW(other.get());
  EXPECT_EQ(state.Find("same", "digest").value()["i"], 299);
}

TEST_F(ClusterTest, WhatIsMissingOrStaleIsMadeAgainOrRefused) {
  MakeNight("night");
  ASSERT_EQ(
      Shell("korimg run night --out whole -q; korimg run night --out out --plan-only p.json --parts 2").code,
      0);
  const auto stages = Stages("p.json");
  const auto task = [&](int stage, int n = 0) {
    return Shell(fmt::format("korimg run --plan p.json --task {} -q", stages[stage][n]));
  };
  const auto expectRefused = [](const Result& r, const std::string& text) {
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find(text), r.err.npos) << r.err;
  };
  for (const int stage : {1, 2, 3}) {
    expectRefused(task(stage), "do the task masters");
  }
  ASSERT_EQ(task(0).code, 0);
  expectRefused(task(3), "do the task register");
  // Killed at any moment, and repeated.
  const std::vector<std::string> call = {"korimg", "run", "--plan", "p.json", "--task", "1-2", "-q"};
  for (const size_t files : {0, 1, 4}) {
    RunAndKill(folder_, call, SIGKILL, [&] { return State("out", "light_").size() >= files; });
  }
  EXPECT_EQ(task(1).code, 0);
  EXPECT_EQ(task(1, 1).code, 0);
  fs::remove(State("out", "light_light_R_0002").at(0));
  expectRefused(task(3), "do the task register");
  // Register measures what is missing, and stacks go on with it.
  EXPECT_EQ(task(2).code, 0);
  ASSERT_EQ(stages[3].size(), 4u);
  EXPECT_EQ(task(3, 0).code, 0);
  EXPECT_EQ(task(3, 3).code, 0);
  // A part that is cut short is made again, and so is that of other pixels.
  const std::vector<fs::path> rows = State("out", ".rows-");
  ASSERT_EQ(rows.size(), 2u);
  const std::string part = ReadBytes(rows[0]);
  WriteBytes(rows[0], part.substr(0, part.size() / 2));
  EXPECT_EQ(task(3, 0).code, 0);
  EXPECT_EQ(task(3, 3).code, 0);
  EXPECT_EQ(ReadBytes(rows[0]), part);
  std::string broken = part;
  broken[broken.size() - 4000] ^= 0x10;
  WriteBytes(rows[0], broken);
  WriteBytes(In("out/.korimg/light_x.cbor.0123456789abcdef.part"), "left by one that was killed");
  EXPECT_EQ(task(4).code, 0) << "two parts are missing, and one is broken";
  ExpectSame("out", "whole", "after damage");
  EXPECT_TRUE(State("out", ".part").empty());
  // A light that changes after it was registered.
  fs::remove_all(In("out"));
  EXPECT_EQ(Shell("korimg run --plan p.json --task 0-3,5 -q").code, 0);
  ASSERT_EQ(Shell("korimg apply calculate op=add value=3 night/lights/light_R_0004.fits -o r.fits --bits "
                  "16 && mv r.fits "
                  "night/lights/light_R_0004.fits")
                .code,
            0);
  expectRefused(task(3), "do the task register");
  EXPECT_EQ(task(1).code + task(1, 1).code, 0);
  expectRefused(task(3), "do the task register");
  EXPECT_EQ(task(4).code, 0);
  fs::remove_all(In("whole"));
  ASSERT_EQ(Shell("korimg run night --out whole -q").code, 0);
  ExpectSame("out", "whole", "after a change");
  // Frames that the masters are of.
  fs::remove(In("night/darks/dark_0001.fits"));
  expectRefused(task(1), "do the task masters");
  ASSERT_EQ(task(0).code, 0);
  EXPECT_EQ(task(1).code, 0);
}

TEST_F(ClusterTest, PlansThatAreNone) {
  test::Simulated(In("night"), {.frames = 3, .width = 200, .height = 160, .seed = 1});
  ASSERT_EQ(Shell("korimg run night --out out --exclude '*_0009*' --drizzle 1.5 --plan-only p.json").code, 0);
  const json plan = json::parse(ReadBytes(In("p.json")));
  EXPECT_EQ(Stages("p.json").size(), 4u) << "nothing is stacked in parts where it is drizzled";
  EXPECT_EQ(Stages("p.json")[1].size(), 3u) << "no more parts than lights";
  EXPECT_EQ(plan["tasks"].back()["after"], json::array({4}));
  EXPECT_EQ(plan["tasks"][4]["after"], json::array({1, 2, 3}));
  EXPECT_EQ(plan["arguments"], json::array({"night", "--out=out", "--exclude=*_0009*", "--drizzle=1.5"}));
  const Result dry = Shell(
      "korimg run --plan p.json --task 0,2 --dry-run; korimg run night --out out --plan-only q.json "
      "--dry-run");
  EXPECT_NE(dry.out.find("task 2: measure, part 2 of 3"), dry.out.npos) << dry.out;
  EXPECT_FALSE(fs::exists(In("out")) || fs::exists(In("q.json")));
  json other = plan;
  other["korimg"] = "9.9";
  WriteBytes(In("other.json"), other.dump());
  WriteBytes(In("no.json"), "{}");
  const struct {
    const char* call;
    int code;
    const char* error;
  } cases[] = {{"--plan p.json --task 6", 2, "from 0 to 5"},
               {"--plan p.json --task 3-1", 2, "from 0 to 5"},
               {"--plan p.json --task x", 2, "from 0 to 5"},
               {"--plan p.json", 2, "--task"},
               {"night --out out --task 1", 2, "--plan"},
               {"night --plan p.json --task 1", 2, "the arguments of its call"},
               {"--plan p.json --task 0 --overwrite", 2, "leave --overwrite out"},
               {"--plan other.json --task 0", 1, "is the plan of another korimg (9.9"},
               {"--plan no.json --task 0", 1, "is no plan of a run"},
               {"--plan missing.json --task 0", 1, "cannot be opened"},
               {"night --out out --plan-only p.json", 1, "exists already"}};
  for (const auto& [call, code, error] : cases) {
    const Result r = Shell(std::string("korimg run ") + call);
    EXPECT_EQ(r.code, code) << call;
    EXPECT_NE(r.err.find(error), r.err.npos) << call << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(In("out")));
}

TEST_F(ClusterTest, AStackInPartsHasTheBytesOfAStack) {
  test::Simulated(In("night"), {.frames = 6, .width = 300, .height = 200, .seed = 4});
  ASSERT_EQ(
      Shell("korimg calibrate night/lights --dark night/darks --flat night/flats --bias night/biases --out c "
            "--uncertainty --mask -q && korimg register c --json > moves.jsonl")
          .code,
      0);
  const struct {
    const char *options, *output;
    int parts;
  } cases[] = {{"--rejection-maps --uncertainty --mask --reject sigma --kappa 2", "s.fits", 3},
               {"--frame union --feather 20", "s.fits", 2},
               {"--weight fwhm", "s.png", 5}};
  const auto same = [&](const std::string& a, const std::string& b) {
    return ReadBytes(In(a)) == ReadBytes(In(b));
  };
  for (const auto& one : cases) {
    const char *const options = one.options, *const output = one.output;
    const int parts = one.parts;
    const auto stack = [&](const std::string& out, const std::string& more) {
      return Shell(
          fmt::format("mkdir -p {0}; korimg stack c --transforms moves.jsonl -o {0}/{1} {2} {3} --json", out,
                      output, options, more));
    };
    const Result whole = stack("whole", "");
    ASSERT_EQ(whole.code, 0) << whole.err;
    for (int part = parts; part >= 1; --part) {
      const Result r = stack("parts", fmt::format("--part {}/{} --memory 900K", part, parts));
      ASSERT_EQ(r.code, 0) << r.err;
    }
    const std::string first = fmt::format("parts/{}.part-1-of-{}", output, parts);
    const auto made = fs::last_write_time(In(first));
    EXPECT_EQ(stack("parts", fmt::format("--part 1/{}", parts)).code, 0);
    EXPECT_EQ(fs::last_write_time(In(first)), made) << "it was there";
    // What is wrong with a part is told, and what to do.
    const std::string join = fmt::format("--join {}", parts), bytes = ReadBytes(In(first));
    const auto expectRefused = [&](const std::string& text) {
      const Result r = stack("parts", join);
      EXPECT_EQ(r.code, 1);
      EXPECT_NE(r.err.find(first + ": " + text), r.err.npos) << r.err;
      EXPECT_NE(r.err.find(fmt::format("--part 1/{} in place of --join {}", parts, parts)), r.err.npos)
          << r.err;
      EXPECT_FALSE(fs::exists(In(std::string("parts/") + output)));
    };
    WriteBytes(In(first), bytes.substr(0, bytes.size() - 9));
    expectRefused("is damaged");
    EXPECT_EQ(stack("parts", fmt::format("--part 1/{}", parts)).code, 0);
    fs::remove(In(first));
    expectRefused("is missing");
    stack("parts", fmt::format("--part 1/{} --iterations 3 --undershoot keep", parts));
    expectRefused("is of other frames or options");
    const Result foreign = stack("parts", fmt::format("--part 1/{}", parts));
    EXPECT_NE(foreign.err.find("exists already"), foreign.err.npos) << foreign.err;
    EXPECT_EQ(stack("parts", fmt::format("--part 1/{} --overwrite", parts)).code, 0);
    WriteBytes(In(first + ".0123456789abcdef.part"), "left by one that was killed");
    const Result joined = stack("parts", join);
    ASSERT_EQ(joined.code, 0) << joined.err;
    size_t outputs = 0;
    for (const auto& entry : fs::directory_iterator(In("parts"))) {
      const std::string name = entry.path().filename().string();
      EXPECT_TRUE(same("parts/" + name, "whole/" + name)) << options << ": " << name;
      ++outputs;
    }
    EXPECT_EQ(outputs, std::distance(fs::directory_iterator(In("whole")), fs::directory_iterator()));
    json a = JsonLines(whole.out).back(), b = JsonLines(joined.out).back();
    EXPECT_EQ(a["frames"], b["frames"]);
    fs::remove_all(In("parts")), fs::remove_all(In("whole"));
  }
  for (const char* wrong :
       {"--part 0/3", "--part 4/3", "--part 2", "--part 1/2 --join 2", "--part 1/2 --resume",
        "--part 1/2 --drizzle 2", "--join 2 --drizzle 2", "--join -1"}) {
    EXPECT_EQ(Shell(std::string("korimg stack c -o s.fits ") + wrong).code, 2) << wrong;
  }
}

TEST_F(ClusterTest, TheExampleForSlurm) {
  test::Simulated(In("night"), {.frames = 4, .width = 240, .height = 200, .seed = 6});
  ASSERT_EQ(Shell("korimg run night --out whole -q").code, 0);
  // A scheduler that runs each job at once, if the one it waits for was done.
  fs::create_directories(In("bin"));
  WriteBytes(In("bin/korimg"), "#!/bin/bash\nexec '" KORIMG_TOOL "' \"$@\"\n");
  WriteBytes(In("bin/sbatch"), R"(#!/bin/bash
jobs=$(dirname "$0")/../jobs
mkdir -p "$jobs"
for word; do
  case $word in
    --array=*) array=${word#*=} ;;
    --dependency=afterok:*) [[ -e $jobs/${word#*:}.done ]] || exit 0 ;;
    --*) ;;
    *) break ;;
  esac
  shift
done
job=$(ls "$jobs" | wc -l)
touch "$jobs/$job.begun"
for ((task = ${array%-*}; task <= ${array#*-}; ++task)); do
  echo "$task" >> tasks
  SLURM_ARRAY_TASK_ID=$task "$@" > /dev/null || failed=1
done
[[ ${failed-} ]] || touch "$jobs/$job.done"
echo "$job;cluster"
)");
  ASSERT_EQ(Shell("chmod +x bin/*").code, 0);
  const auto run = [&](const std::string& out, const std::string& mode) {
    return Shell("PATH=$PWD/bin:$PATH " + mode + " '" KORIMG_EXAMPLES "/slurm/run.sh' 2 night --out " + out);
  };
  const Result here = run("here", "KORIMG_HERE=1");
  EXPECT_EQ(here.code, 0) << here.err;
  ExpectSame("here", "whole", "in a loop");
  EXPECT_FALSE(fs::exists(In("tasks")));
  const Result there = run("there", "");
  EXPECT_EQ(there.code, 0) << there.err;
  ExpectSame("there", "whole", "by a scheduler");
  EXPECT_EQ(ReadBytes(In("tasks")), "0\n1\n2\n3\n4\n5\n6\n");
  // A failure ends the stages after it, and the same call goes on.
  fs::remove_all(In("there")), fs::remove_all(In("there.tasks")), fs::remove_all(In("jobs"));
  WriteBytes(In("bin/korimg"),
             "#!/bin/bash\n[[ -e broken && $5 == 2 ]] && exit 1\nexec '" KORIMG_TOOL "' \"$@\"\n");
  WriteBytes(In("broken"), "");
  run("there", "");
  EXPECT_FALSE(fs::exists(In("there/report.html")) || fs::exists(In("there/.korimg/registration.cbor")));
  fs::remove(In("broken")), fs::remove_all(In("jobs"));
  const Result again = run("there", "");
  EXPECT_EQ(again.code, 0) << again.err;
  ExpectSame("there", "whole", "after a failure");
}

}  // namespace
}  // namespace korimg::files
