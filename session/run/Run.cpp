#include "session/run/Run.h"

#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "session/job/internal/Edge.h"
#include "session/run/internal/ObjectRun.h"
#include "session/run/internal/Objects.h"
#include "session/run/internal/Selection.h"

namespace korimg::session {

namespace {

/// What follows from the folders.
RunOptions Complete(RunOptions options) {
  if (options.calibrate.lights.empty())
    throw UsageError("there are no lights; name files or folders of them");
  options.stack.Settle(true);
  options.stack.Options();  // refuses what is wrong before any work
  if (options.stack.drizzle && options.calibrate.quality.Any())
    throw UsageError(
        "--uncertainty and --mask are not known of what is drizzled; leave them or --drizzle out");
  if (options.stack.drizzle && options.rejectionMaps)
    throw UsageError("--rejection-maps are not of the grid of what is drizzled; leave them or --drizzle out");
  const CalibrateOptions& frames = options.calibrate;
  if (!frames.darks.empty() || !frames.flats.empty() || !frames.biases.empty()) {
    options.calibrate.mastersAreLibrary = !frames.masters.empty();
    if (frames.masters.empty()) options.calibrate.masters = frames.out / "masters";
  }
  options.calibrate.misfitsMayBeMissing = true;
  return options;
}

}  // namespace

void ForObjects(
    Job& job, const RunOptions& options,
    const std::function<void(const std::string&, const RunOptions&, std::vector<RunFrame>)>& work) {
  RunOptions complete = Complete(options);
  std::vector<RunFrame> excluded = TakeExcluded(job, complete);
  for (const auto& [name, lights] : ByObject(complete.calibrate.lights)) {
    RunOptions own = complete;
    own.calibrate.lights = lights;
    if (!name.empty()) {
      own.calibrate.out /= name;
      job.Say(fmt::format("object {}: {} lights", name, lights.size()));
    }
    work(name, own, std::exchange(excluded, {}));
  }
}

RunResult Run(Job& job, const RunOptions& options) {
  return AtEdge([&] {
    RunResult all;
    ForObjects(job, options, [&](const std::string&, const RunOptions& own, auto excluded) {
      ObjectRun run(job, own, std::move(excluded));
      run.Show();
      RunResult result = run.Do();
      const auto add = [](auto& to, auto& from) {
        to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
      };
      add(all.frames, result.frames);
      add(all.stacks, result.stacks);
      add(all.colours, result.colours);
      add(all.reports, result.reports);
    });
    return all;
  });
}

void PlanRun(Job& job, const RunOptions& options) {
  AtEdge([&] {
    ForObjects(job, options, [&](const std::string&, const RunOptions& own, auto excluded) {
      ObjectRun run(job, own, std::move(excluded));
      run.Show();
      run.TellPlan();
    });
  });
}

}  // namespace korimg::session
