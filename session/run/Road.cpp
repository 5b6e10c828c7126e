#include "session/run/internal/Road.h"

#include <algorithm>
#include <exception>
#include <map>
#include <numeric>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/Overwriting.h"
#include "session/run/internal/FolderLock.h"
#include "session/run/internal/Selection.h"

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

Road::Road(Job& job, const RunOptions& options, std::vector<RunFrame> excluded)
    : job_(job), options_(options), session_(job, options.calibrate), excluded_(std::move(excluded)) {
  for (const Light& light : session_.Lights()) {
    frames_.push_back({.light = &light});
  }
  // In the order of time, which is that of names where nothing else is known.
  std::stable_sort(frames_.begin(), frames_.end(),
                   [](const RunLight& a, const RunLight& b) { return StartOf(a) < StartOf(b); });
  std::map<std::string, RunTarget> byFilter;
  for (RunLight& frame : frames_) {
    const std::string filter = FilterOf(frame.light->frame.info.header);
    RunTarget& target = byFilter[FoldedName(filter)];
    if (target.frames.empty()) target.filter = filter;
    target.frames.push_back(&frame);
  }
  std::set<std::string> names;
  for (auto& [filter, target] : byFilter) {
    const std::string name = byFilter.size() == 1 ? "stack" : "stack_" + FileWord(target.filter);
    target.name = name;
    for (int n = 2; !names.insert(target.name).second; ++n) {
      target.name = fmt::format("{}_{}", name, n);
    }
    targets_.push_back(std::move(target));
  }
  std::vector<std::string> filters;
  for (const RunTarget& target : targets_) {
    filters.push_back(target.filter);
  }
  colours_ = PlanColours(options.palette, filters);
}

void Road::Show() {
  session_.Show();
  for (const RunTarget& target : targets_) {
    Plan(fmt::format("{}: {} light{}{}", target.name, target.frames.size(),
                     target.frames.size() == 1 ? "" : "s",
                     target.filter.empty() ? "" : ", filter " + target.filter));
  }
  if (colours_) {
    Plan(fmt::format("colour: {}", colours_->text));
  } else if (targets_.size() > 1 && options_.palette == Palette::Auto) {
    Plan("colour: none; there are no filters for red, green and blue, nor for SII, Ha and OIII");
  }
  if (frames_.empty()) {
    throw files::FileError(options_.calibrate.lights.front().parent_path(), "no light can be used");
  }
  cost_ = CostOf(job_, Work());
  Plan("the run " + cost_.Text());
}

void Road::TellPlan() const {
  for (const RunLight& frame : frames_) {
    job_.Tell(Dump(frame.light->Description()), "");
  }
  TellFailed();
  job_.Tell(Dump({{"plan", cost_.Description()}}), "");
  CheckRoom(Work(), cost_);
}

std::vector<fs::path> Road::Outputs() const {
  std::vector<fs::path> outputs = {Path("report.html")};
  for (const RunTarget& target : targets_) {
    const std::vector<fs::path> own = OutputsOf(target);
    outputs.insert(outputs.end(), own.begin(), own.end());
  }
  if (colours_) {
    for (const char* extension : {".fits", ".tif", ".png"}) {
      outputs.push_back(Path(std::string("colour") + extension));
    }
  }
  return outputs;
}

std::vector<fs::path> Road::Files() const {
  std::vector<fs::path> files;
  for (const RunLight& frame : frames_) {
    files.push_back(frame.light->frame.path);
  }
  return files;
}

std::vector<size_t> Road::All() const {
  std::vector<size_t> numbers(frames_.size());
  std::iota(numbers.begin(), numbers.end(), 0);
  return numbers;
}

/// Does what has the folder of results to itself.
template <class F>
void Road::WithFolder(F&& work) {
  const std::vector<fs::path> outputs = Outputs();
  const auto look = [&] {
    state_.emplace(options_.calibrate.out, Files(), job_.options.overwrite);
    return session_.CheckOutputs(outputs, [&](const fs::path& path) { return state_->Owns(path); });
  };
  look();  // refuses what is not ours before anything is written
  CheckRoom(Work(), cost_);
  const FolderLock lock(job_, state_->Folder());
  const std::vector<fs::path> made = look();  // as another run left it
  state_->Tidy();
  const Unfinished unfinished(job_, *state_, made, options_.calibrate);
  for (const fs::path& old : state_->Stale(outputs)) {
    job_.Warn(fmt::format("{}: is a result of an earlier call, and none of this one", old.string()));
  }
  state_->Begin(made);
  const Overwriting ours(job_);
  work();
}

void Road::PrepareSession() {
  session_.Prepare();
  for (RunLight& frame : frames_) {
    frame.digest = session_.DigestOf(*frame.light);
  }
}

RunResult Road::Do() {
  RunResult result;
  WithFolder([&] {
    PrepareSession();
    MeasureFrames(All());
    TellBorders();
    LeaveOutCopies();
    RegisterFrames();
    for (const RunTarget& target : targets_) {
      LeaveOutBad(target);
    }
    for (const RunTarget& target : targets_) {
      StackFrames(target);
    }
    const bool isColour = colours_ && ComposeColours();
    result = {Frames(), stacks_, {}, {Path("report.html")}};
    if (isColour) result.colours.push_back(Path("colour.fits"));
    TellFrames(result.frames);
    KeepFinished(result);
    WriteReport();  // last: who looks at the folder knows by it that there is another run
    CheckShares();
  });
  return result;
}

std::vector<std::string> Road::StacksInParts() const {
  std::vector<std::string> names;
  for (const RunTarget& target : targets_) {
    if (!options_.stack.drizzle) names.push_back(target.name);
  }
  return names;
}

void Road::TellDone(const std::string& task, bool isNew) {
  job_.Tell(Dump({{"task", task}, {"out", options_.calibrate.out.string()}, {"done_before", !isNew}}),
            fmt::format("{}: {}", task, isNew ? "done" : "is done already"));
}

void Road::MakeMasters() {
  Show();
  state_.emplace(options_.calibrate.out, Files(), false);
  const bool isNew = !state_->HasKept() || !session_.HasMasters() || options_.calibrate.maps;
  if (isNew) WithFolder([&] { session_.Prepare(); });
  TellDone("masters", isNew);
}

/// Goes on from the masters.
void Road::GoOn() {
  state_.emplace(options_.calibrate.out, Files(), false);
  if (!state_->HasKept() || !session_.HasMasters()) {
    throw files::FileError(options_.calibrate.out,
                           "the masters of these frames are not there; do the task masters, or do it again");
  }
  PrepareSession();
}

void Road::MeasurePart(int part, int parts) {
  GoOn();
  std::vector<size_t> own = All();
  std::erase_if(own, [&](size_t i) { return static_cast<int>(i % parts) != part - 1; });
  TellDone(fmt::format("measure, part {} of {}", part, parts), MeasureFrames(own) > 0);
}

void Road::Register() {
  GoOn();
  const FolderLock lock(job_, state_->Folder());
  MeasureFrames(All());
  for (const RunLight& frame : frames_) {
    if (!frame.IsMeasured()) Keep(frame);  // those who stack need not try it again
  }
  LeaveOutCopies();
  TellDone("register", RegisterFrames());
}

void Road::StackPart(const std::string& stack, int part, int parts) {
  GoOn();
  const auto target = std::ranges::find(targets_, stack, &RunTarget::name);
  if (target == targets_.end()) {
    throw files::FileError(Path(stack), "no light is for this stack any more; plan the run anew");
  }
  TakeKeptFrames(All());
  const bool areKept = std::ranges::all_of(frames_, &RunLight::isKept);
  if (areKept) LeaveOutCopies();
  std::optional<Laying> laying;
  if (areKept) laying = BeginLaying();
  const std::optional<LaidFrames> laid = laying ? FindLaid(*laying) : std::nullopt;
  if (!laid) {
    throw files::FileError(
        options_.calibrate.out,
        "the lights are not registered as they are now; do the task register, or do it again");
  }
  Apply(*laying, *laid);
  LeaveOutBad(*target);
  TellDone(fmt::format("stack {}, part {} of {}", stack, part, parts), StackRowsOf(*target, part, parts));
}

void Road::Plan(const std::string& line) {
  report_.plan.push_back(line);
  job_.Say(line);
}

void Road::LeaveOut(RunLight& frame, const std::string& reason) {
  frame.reason = reason;
  job_.Warn(fmt::format("{}: left out: {}", frame.light->Name(), reason));
}

Workload Road::Work() const {
  Workload work{.hasColour = colours_.has_value(),
                .hasGradients = options_.gradient,
                .qualityImages = options_.calibrate.quality.uncertainty + options_.calibrate.quality.mask +
                                 2 * options_.rejectionMaps,
                .out = options_.calibrate.out,
                .masterFolder = options_.calibrate.masters};
  for (const Group* group : session_.NeededGroups()) {
    const files::ImageInfo& info = group->frames.front().info;
    work.masters.push_back({group->frames.size(), {info.width, info.height, info.planes}});
  }
  for (const RunTarget& target : targets_) {
    const Light& light = *target.frames.front()->light;
    const files::ImageInfo& info = light.frame.info;
    const bool isMosaic = light.mosaic.cfa > 0;
    work.stacks.push_back({target.frames.size(),
                           {info.width, info.height, isMosaic ? 3 : info.planes},
                           isMosaic,
                           options_.stack.drizzle ? options_.stack.drizzle->scale : 0});
  }
  return work;
}

std::optional<double> Road::StartOf(const RunLight& frame) {
  return files::StartOf(frame.light->frame.info.header);
}

long long Road::BytesOfFrame() const {
  const Light& light = *frames_.front().light;
  return 2 * BytesOf(light.frame.info) * (light.mosaic.cfa > 0 ? 3 : 1);
}

}  // namespace korimg::session
