// Runs small sessions through the installed session library: with progress, cancelled, and two side by side.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "session/run/Run.h"
#include "session/simulate/Simulate.h"
#include "session/stars/Stars.h"

using namespace korimg;
using namespace korimg::session;
namespace fs = std::filesystem;

namespace {

void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::exit(1);
}

RunOptions OptionsFor(const fs::path& night, const fs::path& out) {
  RunOptions options;
  options.calibrate.lights = {night / "lights"};
  options.calibrate.darks = {night / "darks"};
  options.calibrate.flats = {night / "flats"};
  options.calibrate.biases = {night / "biases"};
  options.calibrate.out = out;
  return options;
}

}  // namespace

int main(int, char** words) {
  const fs::path folder = words[1], night = folder / "night";
  fs::create_directories(folder);
  SimulateOptions simulated;
  simulated.frames = 6;
  simulated.width = 400;
  simulated.height = 300;
  Job simulates;
  Simulate(simulates, night, simulated);

  int steps = 0, results = 0, warnings = 0;
  Job job({.report = [&](const Event& event) {
    steps += event.kind == Event::Progress && event.total > 0;
    results += event.kind == Event::Result && event.data.starts_with("{");
    warnings += event.kind == Event::Warning;
  }});
  const RunResult one = Run(job, OptionsFor(night, folder / "one"));
  Expect(one.stacks.size() == 1 && one.stacks[0].frames == 6 && one.frames.size() == 6,
         "all frames are stacked");
  Expect(fs::exists(one.stacks[0].file) && fs::exists(one.reports[0]), "stack and report are there");
  const auto found = FindStars(job, {.files = {one.stacks[0].file}});
  Expect(found.size() == 1 && static_cast<int>(found[0].stars.size()) == one.stacks[0].stars &&
             found[0].fwhm == one.stacks[0].fwhm && found[0].gain.electrons > 0,
         "the stack has the stars that it was told to have");
  Expect(steps > 8 && results == 7 && warnings == 0 && !job.HasFailed(), "the events tell of it");

  JobOptions stopped;
  stopped.report = [&](const Event& event) {
    if (event.text == "registering frame" && event.step == 2) stopped.cancel->Cancel();
  };
  Job cancelled(stopped);
  bool wasCancelled = false;
  try {
    Run(cancelled, OptionsFor(night, folder / "cancelled"));
  } catch (const Error& error) {
    wasCancelled = error.Kind() == ErrorKind::Cancelled;
  }
  Expect(wasCancelled && !fs::exists(folder / "cancelled/stack.fits"), "a cancelled job leaves no stack");
  int again = 0;
  Job goesOn({.report = [&](const Event& event) {
    again += event.text.find("were measured before") != std::string::npos;
  }});
  const RunResult rest = Run(goesOn, OptionsFor(night, folder / "cancelled"));
  Expect(again == 1 && rest.stacks[0].noise == one.stacks[0].noise,
         "the same call goes on with what it measured");

  // Each in a thread of its own, with a budget of its own.
  std::vector<RunResult> both(2);
  std::vector<std::thread> threads;
  for (const int i : {0, 1}) {
    threads.emplace_back([&, i] {
      Job own({.memory = (64LL << 20) << i});
      both[i] = Run(own, OptionsFor(night, folder / std::to_string(i)));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const RunResult& result : both) {
    Expect(result.stacks.size() == 1 && result.stacks[0].noise == one.stacks[0].noise &&
               result.stacks[0].fwhm == one.stacks[0].fwhm,
           "jobs side by side give the same");
  }

  Job wrong;
  try {
    Run(wrong, OptionsFor(folder / "nowhere", folder / "out"));
    Expect(false, "a session that is not there is an error");
  } catch (const Error& error) {
    Expect(error.Kind() == ErrorKind::File, "the error is one of files");
  }
  std::printf("%d frames, FWHM %.2f\n", one.stacks[0].frames, one.stacks[0].fwhm);
}
