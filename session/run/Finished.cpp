#include "session/run/Finished.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/LightRows.h"
#include "session/files/Formats.h"
#include "session/files/Geometry.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/Edge.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Kept.h"
#include "session/run/internal/OptionsJson.h"
#include "session/run/internal/Selection.h"
#include "session/run/internal/Telling.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

constexpr const char* kName = "finished";
constexpr const char* kDigest = "1";  // changes with what is kept

std::optional<double> NumberOf(const KeptJson& json, const char* name) {
  return json.contains(name) ? std::optional(json[name].get<double>()) : std::nullopt;
}

FinishedFrame FrameFrom(const KeptJson& json) {
  FinishedFrame made;
  made.frame.file = json.at("file").get<std::string>();
  made.frame.status = json.at("status").get<std::string>();
  made.isExcluded = json.value("excluded", false);
  made.filter = json.value("filter", "");
  made.stack = json.value("stack", "");
  made.start = NumberOf(json, "start");
  made.exposure = NumberOf(json, "exposure");
  made.stem = json.value("stem", "");
  made.digest = json.value("digest", "");
  made.isMeasured = json.contains("measure");
  if (!made.isMeasured) return made;
  made.frame.measure = json["measure"];
  made.frame.registration = json.at("registration");
  made.frame.registration.file = made.frame.file.string();
  made.frame.isStacked = json.at("stacked");
  made.frame.weight = json.at("weight");
  made.frame.weights = json.at("weights").get<std::vector<double>>();
  made.frame.rejected = json.at("rejected");
  return made;
}

std::optional<KeptJson> FindFinished(const fs::path& folder) {
  return RunState(folder).Find(kName, kDigest);
}

/// Patterns take these as they are.
std::string Escaped(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string_view("*?[\\").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

bool Fits(const fs::path& light, const std::vector<std::string>& patterns) {
  return std::ranges::any_of(patterns,
                             [&](const std::string& pattern) { return FitsPattern(light, pattern); });
}

}  // namespace

void KeepFinished(RunContext& run, const RunResult& result) {
  RunOptions options = run.options;
  KeptJson kept{{"version", Version()}, {"command", run.job.options.origin}, {"frames", KeptJson::array()}};
  for (size_t i = 0; i < result.frames.size(); ++i) {
    const RunFrame& told = result.frames[i];
    KeptJson json{{"file", fs::absolute(told.file).string()}, {"status", told.status}};
    if (i < run.frames.size()) {
      const RunLight& frame = run.frames[i];
      const files::Header& header = frame.light->frame.info.header;
      json["filter"] = FilterOf(header);
      for (const RunTarget& target : run.targets) {
        if (std::ranges::find(target.frames, &frame) != target.frames.end()) json["stack"] = target.name;
      }
      if (const auto start = frame.Start()) json["start"] = *start;
      if (const auto exposure = files::ExposureOf(header)) json["exposure"] = *exposure;
      json["stem"] = frame.light->stem;
      json["digest"] = frame.digest;
      if (frame.IsMeasured()) {
        json["measure"] = told.measure;
        json["measure"]["stars"] = KeptJson::array();
        json["registration"] = told.registration;
        json["stacked"] = told.isStacked;
        json["weight"] = told.weight;
        json["weights"] = told.weights;
        json["rejected"] = told.rejected;
        json["shape"] = frame.shape;
        json["levels"] = frame.levels;
        if (frame.border && !frame.border->IsEmpty()) json["border"] = *frame.border;
      }
    } else if (i < run.frames.size() + run.excluded.size()) {
      json["excluded"] = true;
      options.calibrate.lights.push_back(told.file);
    }
    kept["frames"].push_back(std::move(json));
  }
  kept["options"] = ToJson(options);
  kept["stacks"] = result.stacks;
  kept["colours"] = KeptJson::array();
  for (const fs::path& colour : result.colours) {
    kept["colours"].push_back(colour.string());
  }
  if (!run.fixed) kept["reference"] = run.reference;
  kept["grid"] = run.Grid().shape;
  run.state->Keep(kName, kDigest, std::move(kept));
}

std::vector<fs::path> FindRuns(const fs::path& folder) {
  const auto isRun = [](const fs::path& path) {
    return fs::is_regular_file(path / ".korimg" / (std::string(kName) + ".cbor"));
  };
  std::vector<fs::path> found;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) {
    // Links may lead anywhere.
    if (!entry.is_symlink() && entry.is_directory() && isRun(entry.path())) found.push_back(entry.path());
  }
  std::ranges::sort(found);
  if (isRun(folder)) found.insert(found.begin(), folder);
  return found;
}

FinishedRun OpenRun(const fs::path& folder) {
  return AtEdge([&] {
    const auto kept = FindFinished(folder);
    if (!kept) {
      throw files::FileError(folder, fs::exists(folder / ".korimg")
                                         ? "holds a run that was not finished, or by another version of "
                                           "korimg: call korimg run again with "
                                           "the same options, and it goes on from what is there"
                                         : "holds no results of korimg run");
    }
    try {
      FinishedRun run;
      run.folder = fs::absolute(folder);
      run.version = kept->at("version").get<std::string>();
      run.command = kept->at("command").get<std::string>();
      run.options = RunOptionsFrom(kept->at("options"));
      // The folder may have been moved, with the masters in it.
      CalibrateOptions& frames = run.options.calibrate;
      if (frames.masters == frames.out / "masters") frames.masters = run.folder / "masters";
      frames.out = run.folder;
      for (const KeptJson& json : kept->at("frames")) {
        run.frames.push_back(FrameFrom(json));
      }
      run.stacks = kept->at("stacks").get<std::vector<RunStack>>();
      for (RunStack& stack : run.stacks) {
        stack.file = run.folder / stack.file.filename();
        if (!stack.gradient.empty()) stack.gradient = run.folder / stack.gradient.filename();
      }
      for (const KeptJson& colour : kept->at("colours")) {
        run.colours.push_back(run.folder / fs::path(colour.get<std::string>()).filename());
      }
      if (kept->contains("reference")) run.reference = kept->at("reference").get<size_t>();
      if (run.reference.value_or(0) >= run.frames.size()) run.reference.reset();
      run.grid = kept->at("grid");
      return run;
    } catch (const KeptJson::exception& error) {
      throw files::FileError(folder / ".korimg",
                             fmt::format("is damaged; call korimg run again ({})", error.what()));
    }
  });
}

std::string ThumbnailOf(const FinishedRun& run, size_t number) {
  const FinishedFrame& frame = run.frames.at(number);
  if (!frame.isMeasured) return "";
  const auto kept = RunState(run.folder).Find("light_" + frame.stem, frame.digest);
  return kept && kept->contains("thumbnail") ? BytesOf(kept->at("thumbnail")) : "";
}

std::vector<bool> LeftOutBy(const FinishedRun& run, const RunOptions& selection) {
  std::vector<bool> leftOut;
  for (const FinishedFrame& frame : run.frames) {
    const bool isWanted = selection.include.empty() || Fits(frame.frame.file, selection.include);
    leftOut.push_back(!isWanted || Fits(frame.frame.file, selection.exclude));
  }
  return leftOut;
}

std::string PatternOf(const FinishedRun& run, size_t frame) {
  const fs::path& file = run.frames.at(frame).frame.file;
  const auto same = std::ranges::count_if(
      run.frames, [&](const FinishedFrame& other) { return other.frame.file.filename() == file.filename(); });
  return Escaped(same == 1 ? file.filename().string() : file.string());
}

RunOptions Again(const FinishedRun& run, const std::vector<bool>& leftOut) {
  RunOptions options = run.options;
  CalibrateOptions& frames = options.calibrate;
  // Those that the run keeps in its own folder.
  if (!frames.darks.empty() || !frames.flats.empty() || !frames.biases.empty()) {
    if (frames.masters == frames.out / "masters") frames.masters.clear();
  }
  options.include.clear();
  options.exclude.clear();
  for (size_t i = 0; i < leftOut.size(); ++i) {
    if (leftOut[i]) options.exclude.push_back(PatternOf(run, i));
  }
  return options;
}

struct RegisteredFrames::Kept {
  Kept(const FinishedRun& finished, const JobOptions& jobOptions)
      : run(finished), job(jobOptions), session(job, run.options.calibrate) {}

  /// What the run's stack of a frame was made of.
  StackInput InputOf(size_t number);

  FinishedRun run;
  Job job;
  Session session;
  struct Known {
    const Light* light = nullptr;
    Shape shape;
    FrameLevels levels;
    std::shared_ptr<const files::ConstantBorder> border;
  };
  std::vector<Known> known;  ///< by numbers of frames
};

StackInput RegisteredFrames::Kept::InputOf(size_t number) {
  const FinishedFrame& frame = run.frames.at(number);
  const Known& own = known.at(number);
  if (!frame.isMeasured || !own.light) {
    throw files::FileError(frame.frame.file, "cannot be shown: " + frame.frame.status);
  }
  const Registration& laid = frame.frame.registration;
  if (!laid.IsGood())
    throw files::FileError(frame.frame.file,
                           "is not registered: " + (laid.Text().empty() ? frame.frame.status : laid.Text()));
  if (session.DigestOf(*own.light) != frame.digest) {
    throw files::FileError(frame.frame.file,
                           "is not what the run saw, or its masters are not; call korimg run again");
  }
  StackInput input{frame.frame.file.filename().string(), own.shape, laid.dx, laid.dy, laid.degrees, laid.map};
  input.levels = own.levels;
  input.read = [this, &own](const Band<float>& to) { LightRows(session, *own.light, own.border).Read(to); };
  return input;
}

RegisteredFrames::RegisteredFrames(const FinishedRun& run, const JobOptions& jobOptions) {
  AtEdge([&] {
    FinishedRun own = run;
    CalibrateOptions& options = own.options.calibrate;
    std::vector<fs::path> lights;
    for (const FinishedFrame& frame : run.frames) {
      // All that the run had: hot pixels may be told by any of them.
      if (!frame.isExcluded && fs::exists(frame.frame.file)) lights.push_back(frame.frame.file);
    }
    if (lights.empty()) throw files::FileError(run.folder, "is of lights that are not there any more");
    options.lights = std::move(lights);
    options.maps = false;
    options.quality = {};
    kept_ = std::make_unique<Kept>(own, jobOptions);
    Session& session = kept_->session;
    if (!session.HasMasters()) {
      throw files::FileError(
          options.masters,
          "the masters of these frames are not there as the run made them; call korimg run again");
    }
    // Without masters none are written.
    if (session.NeededGroups().empty()) kept_->run.options.calibrate.masters.clear();
    session.Prepare();
    std::map<fs::path, const Light*> byFile;
    for (const Light& light : session.Lights()) {
      byFile[light.frame.path] = &light;
    }
    const KeptJson kept = FindFinished(run.folder).value();
    for (size_t i = 0; i < run.frames.size(); ++i) {
      const KeptJson& json = kept.at("frames").at(i);
      Kept::Known& known = kept_->known.emplace_back();
      if (!run.frames[i].isMeasured) continue;
      known.light = byFile[run.frames[i].frame.file];
      known.shape = json.at("shape");
      known.levels = json.at("levels");
      known.border = std::make_shared<files::ConstantBorder>(json.value("border", files::ConstantBorder()));
    }
    grid_ = run.grid;
    for (const RunStack& stack : run.stacks) {
      if (!fs::exists(stack.file)) continue;
      isOverturned_ = files::IsPictureOverturned(files::ImageReader::Open(stack.file)->Info().header);
      break;
    }
  });
}

RegisteredFrames::~RegisteredFrames() = default;

void RegisteredFrames::Read(size_t frame, const Band<float>& to) {
  AtEdge([&] {
    const std::lock_guard lock(mutex_);
    kept_->job.ForgetFailures();
    StackOptions options{.rejection = {.test = Rejection::None}, .normalisation = Normalisation::None};
    // As the run laid them.
    const StackOptions chosen = [&] {
      StackChoices choices = kept_->run.options.stack;
      choices.Settle(true);
      return choices.Options();
    }();
    options.kernel = chosen.kernel;
    options.clampUndershoot = chosen.clampUndershoot;
    options.shape = grid_;
    options.memory = DefaultStackMemory(kept_->job);
    Stack(kept_->job, {kept_->InputOf(frame)}, 0, options, {to.Top(), to.Bottom()},
          [&](const StackBand& band) {
            CopyPixels(band.result, to.Part(band.result.Top(), band.result.Rows()));
          });
    kept_->job.CheckComputed(kept_->run.frames.at(frame).frame.file);
  });
}

files::ImageInfo RegisteredFrames::InfoOf(size_t frame) const {
  return AtEdge([&] {
    files::ImageInfo info = files::ImageReader::Open(kept_->run.frames.at(frame).frame.file)->Info();
    files::RemoveMosaic(info.header);
    // A position that cannot be taken out is that of an undeveloped mosaic, of which none is left.
    [[maybe_unused]] const bool isOut = files::DropWorldCoordinates(
        info.header, {info.width, info.height, info.planes}, "the frame is laid on another one");
    info.width = grid_.width;
    info.height = grid_.height;
    info.planes = grid_.planes;
    info.type = "float32";
    return info;
  });
}

Levels RegisteredFrames::StretchOf(size_t frame) {
  return AtEdge([&] {
    const std::lock_guard lock(mutex_);
    const auto& frames = kept_->run.frames;
    const StackInput registered = kept_->InputOf(frame);  // or why it is not
    const std::string& stack = frames[frame].stack;
    auto stretched = stretched_.find(stack);
    if (stretched == stretched_.end()) {
      const auto isOurs = [&](const FinishedFrame& one) {
        return one.stack == stack && one.isMeasured && one.frame.registration.IsGood();
      };
      const auto& reference = kept_->run.reference;
      auto chosen = reference && isOurs(frames[*reference])
                        ? frames.begin() + *reference
                        : std::ranges::find_if(
                              frames, [&](const auto& one) { return isOurs(one) && one.frame.isStacked; });
      if (chosen == frames.end()) chosen = std::ranges::find_if(frames, isOurs);
      if (chosen == frames.end()) throw UsageError(fmt::format("no frame of {} is registered", stack));
      const size_t number = chosen - frames.begin();
      const Stretched made{number, StretchForPicture(*SampleInput(kept_->job, kept_->InputOf(number)))};
      stretched = stretched_.emplace(stack, made).first;
    }
    Levels levels = stretched->second.levels;
    const FrameLevels &own = kept_->known.at(frame).levels,
                      &from = kept_->known.at(stretched->second.frame).levels;
    for (int p = 0; p < std::min(grid_.planes, 3); ++p) {
      const double brighter = own.level[p] - from.level[p];
      if (!std::isfinite(brighter)) continue;
      levels.min[p] += brighter;
      levels.max[p] += brighter;
    }
    return levels;
  });
}

}  // namespace korimg::session
