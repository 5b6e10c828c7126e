#include "session/run/internal/ObjectRun.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <utility>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/job/internal/Overwriting.h"
#include "session/run/internal/FolderLock.h"
#include "session/run/internal/Measuring.h"
#include "session/run/internal/Registering.h"
#include "session/run/internal/TargetStack.h"
#include "session/run/internal/Telling.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// Takes what a run has written away when it ends by an exception before there is anything to go on with.
class Unfinished {
 public:
  Unfinished(const Job& job, const RunState& state, std::vector<fs::path> outputs,
             const CalibrateOptions& options)
      : state_(state),
        outputs_(job.options.overwrite ? std::vector<fs::path>() : std::move(outputs)),
        folders_{options.masters, options.out} {}
  ~Unfinished() {
    if (std::uncaught_exceptions() == exceptions_ || state_.HasKept()) return;
    std::error_code ignored;
    if (!outputs_.empty()) state_.Forget();
    for (const fs::path& output : outputs_) {
      fs::remove(output, ignored);
    }
    for (const fs::path& folder : folders_) {
      if (!outputs_.empty() && fs::is_directory(folder, ignored) && fs::is_empty(folder, ignored))
        fs::remove(folder, ignored);
    }
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

 private:
  const RunState& state_;
  int exceptions_ = std::uncaught_exceptions();
  std::vector<fs::path> outputs_, folders_;
};

}  // namespace

void ObjectRun::Show() {
  run_.session.Show();
  for (const RunTarget& target : run_.targets) {
    run_.Plan(fmt::format("{}: {} light{}{}", target.name, target.frames.size(),
                          target.frames.size() == 1 ? "" : "s",
                          target.filter.empty() ? "" : ", filter " + target.filter));
  }
  if (run_.colours) {
    run_.Plan(fmt::format("colour: {}", run_.colours->text));
  } else if (run_.targets.size() > 1 && run_.options.palette == Palette::Auto) {
    run_.Plan("colour: none; there are no filters for red, green and blue, nor for SII, Ha and OIII");
  }
  if (run_.frames.empty()) {
    throw files::FileError(run_.options.calibrate.lights.front().parent_path(), "no light can be used");
  }
  CheckReference(run_);
  cost_ = CostOf(run_.job, Work());
  run_.Plan("the run " + cost_.Text());
}

void ObjectRun::TellPlan() const {
  for (const RunLight& frame : run_.frames) {
    run_.job.Tell(Dump(frame.light->Description()), "");
  }
  TellFailed(run_);
  run_.job.Tell(Dump({{"plan", cost_.Description()}}), "");
  CheckRoom(Work(), cost_);
}

std::vector<fs::path> ObjectRun::Outputs() const {
  std::vector<fs::path> outputs = {run_.Path("report.html")};
  for (const RunTarget& target : run_.targets) {
    const std::vector<fs::path> own = OutputsOf(run_, target);
    outputs.insert(outputs.end(), own.begin(), own.end());
  }
  if (run_.colours) {
    for (const char* extension : {".fits", ".tif", ".png"}) {
      outputs.push_back(run_.Path(std::string("colour") + extension));
    }
  }
  return outputs;
}

void ObjectRun::OpenState(bool overwrite) {
  std::vector<fs::path> files;
  for (const RunLight& frame : run_.frames) {
    files.push_back(frame.light->frame.path);
  }
  run_.state.emplace(run_.options.calibrate.out, files, overwrite);
}

std::vector<size_t> ObjectRun::All() const {
  std::vector<size_t> numbers(run_.frames.size());
  std::iota(numbers.begin(), numbers.end(), 0);
  return numbers;
}

/// Does what has the folder of results to itself.
template <class F>
void ObjectRun::WithFolder(F&& work) {
  const std::vector<fs::path> outputs = Outputs();
  const auto look = [&] {
    OpenState(run_.job.options.overwrite);
    return run_.session.CheckOutputs(outputs, [&](const fs::path& path) { return run_.state->Owns(path); });
  };
  look();  // refuses what is not ours before anything is written
  CheckRoom(Work(), cost_);
  const FolderLock lock(run_.job, run_.state->Folder());
  const std::vector<fs::path> made = look();  // as another run left it
  run_.state->Tidy();
  const Unfinished unfinished(run_.job, *run_.state, made, run_.options.calibrate);
  for (const fs::path& old : run_.state->Stale(outputs)) {
    run_.job.Warn(fmt::format("{}: is a result of an earlier call, and none of this one", old.string()));
  }
  run_.state->Begin(made);
  const Overwriting ours(run_.job);
  work();
}

void ObjectRun::PrepareSession() {
  run_.session.Prepare();
  for (RunLight& frame : run_.frames) {
    frame.digest = run_.session.DigestOf(*frame.light);
  }
}

RunResult ObjectRun::Do() {
  RunResult result;
  WithFolder([&] {
    PrepareSession();
    MeasureFrames(run_, All());
    TellBorders(run_);
    LeaveOutCopies(run_);
    RegisterFrames(run_);
    for (const RunTarget& target : run_.targets) {
      LeaveOutBad(run_, target);
    }
    for (const RunTarget& target : run_.targets) {
      TargetStack(run_, target).Make();
    }
    const bool isColour = run_.colours && ComposeColours(run_);
    result = {FramesOf(run_), run_.stacks, {}, {run_.Path("report.html")}};
    if (isColour) result.colours.push_back(run_.Path("colour.fits"));
    TellFrames(run_, result.frames);
    KeepFinished(run_, result);
    WriteReport(run_);  // last: who looks at the folder knows by it that there is another run
    CheckShares(run_);
  });
  return result;
}

std::vector<std::string> ObjectRun::StacksInParts() const {
  std::vector<std::string> names;
  for (const RunTarget& target : run_.targets) {
    if (!run_.options.stack.drizzle) names.push_back(target.name);
  }
  return names;
}

void ObjectRun::TellDone(const std::string& task, bool isNew) {
  run_.job.Tell(Dump({{"task", task}, {"out", run_.options.calibrate.out.string()}, {"done_before", !isNew}}),
                fmt::format("{}: {}", task, isNew ? "done" : "is done already"));
}

void ObjectRun::MakeMasters() {
  Show();
  OpenState(false);
  const bool isNew = !run_.state->HasKept() || !run_.session.HasMasters() || run_.options.calibrate.maps;
  if (isNew) WithFolder([&] { run_.session.Prepare(); });
  TellDone("masters", isNew);
}

/// Goes on from the masters.
void ObjectRun::GoOn() {
  OpenState(false);
  if (!run_.state->HasKept() || !run_.session.HasMasters()) {
    throw files::FileError(run_.options.calibrate.out,
                           "the masters of these frames are not there; do the task masters, or do it again");
  }
  PrepareSession();
}

void ObjectRun::MeasurePart(int part, int parts) {
  GoOn();
  std::vector<size_t> own = All();
  std::erase_if(own, [&](size_t i) { return static_cast<int>(i % parts) != part - 1; });
  TellDone(fmt::format("measure, part {} of {}", part, parts), MeasureFrames(run_, own) > 0);
}

void ObjectRun::Register() {
  GoOn();
  const FolderLock lock(run_.job, run_.state->Folder());
  MeasureFrames(run_, All());
  for (const RunLight& frame : run_.frames) {
    if (!frame.IsMeasured()) KeepFrame(run_, frame);  // those who stack need not try it again
  }
  LeaveOutCopies(run_);
  TellDone("register", RegisterFrames(run_));
}

void ObjectRun::StackPart(const std::string& stack, int part, int parts) {
  GoOn();
  const auto target = std::ranges::find(run_.targets, stack, &RunTarget::name);
  if (target == run_.targets.end()) {
    throw files::FileError(run_.Path(stack), "no light is for this stack any more; plan the run anew");
  }
  TakeKeptFrames(run_, All());
  bool areRegistered = std::ranges::all_of(run_.frames, &RunLight::isKept);
  if (areRegistered) {
    LeaveOutCopies(run_);
    areRegistered = TakeRegistrations(run_);
  }
  if (!areRegistered) {
    throw files::FileError(
        run_.options.calibrate.out,
        "the lights are not registered as they are now; do the task register, or do it again");
  }
  LeaveOutBad(run_, *target);
  TellDone(fmt::format("stack {}, part {} of {}", stack, part, parts),
           TargetStack(run_, *target).MakeRows(part, parts));
}

Workload ObjectRun::Work() const {
  Workload work{.hasColour = run_.colours.has_value(),
                .hasGradients = run_.options.gradient,
                .qualityImages = run_.options.calibrate.quality.uncertainty +
                                 run_.options.calibrate.quality.mask + 2 * run_.options.rejectionMaps,
                .out = run_.options.calibrate.out,
                .masterFolder = run_.options.calibrate.masters};
  for (const Group* group : run_.session.NeededGroups()) {
    const files::ImageInfo& info = group->frames.front().info;
    work.masters.push_back({group->frames.size(), {info.width, info.height, info.planes}});
  }
  for (const RunTarget& target : run_.targets) {
    const Light& light = *target.frames.front()->light;
    const files::ImageInfo& info = light.frame.info;
    const bool isMosaic = light.mosaic.cfa > 0;
    work.stacks.push_back({target.frames.size(),
                           {info.width, info.height, isMosaic ? 3 : info.planes},
                           isMosaic,
                           run_.options.stack.drizzle ? run_.options.stack.drizzle->scale : 0});
  }
  return work;
}

}  // namespace korimg::session
