// Runs a night of frames to a stack, with progress, and ends cleanly on Ctrl-C: session NIGHT RESULT.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "session/run/Run.h"

using namespace korimg::session;

namespace {

CancelToken* g_cancel = nullptr;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "session NIGHT RESULT\n");
    return 2;
  }
  const std::filesystem::path night = argv[1];
  JobOptions world;
  world.memory = 1LL << 30;  // bytes for pixels: what does not fit goes to temporary files
  world.report = [](const Event& event) {
    if (event.kind == Event::Progress && event.total > 0) {
      std::fprintf(stderr, "\r%s %lld of %lld   ", event.text.c_str(), event.step, event.total);
    } else if (event.kind == Event::Warning || event.kind == Event::Failure) {
      std::fprintf(stderr, "\n%s\n", event.text.c_str());
    }
  };
  g_cancel = world.cancel.get();
  std::signal(SIGINT, [](int) { g_cancel->Cancel(); });

  RunOptions options;
  options.calibrate.lights = {night / "lights"};
  options.calibrate.darks = {night / "darks"};
  options.calibrate.flats = {night / "flats"};
  options.calibrate.biases = {night / "biases"};
  options.calibrate.out = argv[2];
  try {
    Job job(world);
    const RunResult result = Run(job, options);
    std::fprintf(stderr, "\n");
    for (const auto& stack : result.stacks) {
      std::printf("%s: %d frames, FWHM %.2f pixels, noise %.4g\n", stack.file.string().c_str(), stack.frames,
                  stack.fwhm, stack.noise);
    }
    return job.HasFailed() ? 1 : 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return error.Kind() == ErrorKind::Cancelled ? 130 : 1;
  }
}
