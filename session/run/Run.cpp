#include "session/run/Run.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <functional>
#include <map>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/Session.h"
#include "session/files/Formats.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/Overwriting.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/register/LayFrames.h"
#include "session/register/LensLibrary.h"
#include "session/register/internal/MapJson.h"
#include "session/run/internal/Cost.h"
#include "session/run/internal/Gradient.h"
#include "session/run/internal/Kept.h"
#include "session/run/internal/Report.h"
#include "session/run/internal/Selection.h"
#include "session/run/internal/State.h"
#include "session/stack/internal/RejectedPixels.h"
#include "session/stack/internal/StackHeader.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr int kThumbnailSide = 300, kPictureSide = 1400;  // pixels

/// A light on its way.
struct Progress {
  const Light* light = nullptr;
  std::string digest = {};               ///< of all that its pixels depend on
  std::string error = "cannot be read";  ///< it could not be done at all
  bool isUnfinished = false;             ///< since it is still being written
  Shape shape;
  double clipped = 0;
  std::shared_ptr<const files::ConstantBorder> border;  ///< of its file
  FrameMeasure measure;
  FrameLevels levels;
  std::string thumbnail;
  Registration registration;
  std::string reason;  ///< why it is left out
  double weight = 0;
  std::vector<double> weights;  ///< by planes
  CImgStack::Counts counts;
  bool isKept = false;  ///< it was measured by an earlier call

  bool IsMeasured() const { return error.empty(); }
  bool IsUsed() const { return error.empty() && reason.empty(); }
};

/// Lights that make one image.
struct Target {
  std::string filter;
  std::string name;  ///< of its files
  std::vector<Progress*> frames = {};
};

/// Share of the values that were rejected.
double Rejected(const CImgStack::Counts& c) {
  return c.values > 0 ? static_cast<double>(c.low + c.high) / static_cast<double>(c.values) : 0;
}

/// All of a light, calibrated and developed.
std::shared_ptr<CVelImage> LoadWhole(LightRows& rows, const std::shared_ptr<CVmManager>& store) {
  const Shape shape = rows.Size();
  // The image does not keep its store alive.
  auto image = std::shared_ptr<CVelImage>(
      new CVelImage(store, CImage::Float, shape.width, shape.height, shape.planes, 1.0, 0.0, 1, nullptr),
      [store](CVelImage* p) { delete p; });
  rows.Read(Image::RowsOf(*image, 0, shape.height));
  return image;
}

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
      if (!outputs_.empty() && fs::is_empty(folder, ignored)) fs::remove(folder, ignored);
    }
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

 private:
  const RunState& state_;
  int exceptions_ = std::uncaught_exceptions();
  std::vector<fs::path> outputs_, folders_;
};

class Road {
 public:
  Road(Job& job, const RunOptions& options, std::vector<RunFrame> excluded = {})
      : job_(job), options_(options), session_(job, options.calibrate), excluded_(std::move(excluded)) {
    for (const Light& light : session_.Lights()) {
      frames_.push_back({.light = &light});
    }
    // In the order of time, which is that of names where nothing else is known.
    std::stable_sort(frames_.begin(), frames_.end(),
                     [](const Progress& a, const Progress& b) { return StartOf(a) < StartOf(b); });
    std::map<std::string, Target> byFilter;
    for (Progress& frame : frames_) {
      const std::string filter = FilterOf(frame.light->frame.info.header);
      Target& target = byFilter[FoldedName(filter)];
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
    for (const Target& target : targets_) {
      filters.push_back(target.filter);
    }
    colours_ = PlanColours(options.palette, filters);
  }

  /// Tells of the work; throws FileError when there is none.
  void Show() {
    session_.Show();
    for (const Target& target : targets_) {
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

  /// The plan of each light, for programs.
  void TellPlan() const {
    for (const Progress& frame : frames_) {
      job_.Tell(Dump(frame.light->Description()), "");
    }
    TellFailed();
    job_.Tell(Dump({{"plan", cost_.Description()}}), "");
    CheckRoom(Work(), cost_);
  }

  RunResult Do() {
    std::vector<fs::path> outputs = {Path("report.html")};
    for (const Target& target : targets_) {
      const std::vector<fs::path> own = OutputsOf(target);
      outputs.insert(outputs.end(), own.begin(), own.end());
    }
    if (colours_) {
      for (const char* extension : {".fits", ".tif", ".png"}) {
        outputs.push_back(Path(std::string("colour") + extension));
      }
    }
    std::vector<fs::path> lights;
    for (const Progress& frame : frames_) {
      lights.push_back(frame.light->frame.path);
    }
    state_.emplace(options_.calibrate.out, lights, job_.options.overwrite);
    const std::vector<fs::path> made =
        session_.CheckOutputs(outputs, [&](const fs::path& path) { return state_->Owns(path); });
    CheckRoom(Work(), cost_);
    const Unfinished unfinished(job_, *state_, made, options_.calibrate);
    for (const fs::path& old : state_->Stale(outputs)) {
      job_.Warn(fmt::format("{}: is a result of an earlier call, and none of this one", old.string()));
    }
    state_->Begin(made);
    const Overwriting ours(job_);
    session_.Prepare();
    for (Progress& frame : frames_) {
      frame.digest = session_.DigestOf(*frame.light);
    }
    MeasureFrames();
    LeaveOutCopies();
    RegisterFrames();
    for (Target& target : targets_) {
      LeaveOutBad(target);
    }
    for (Target& target : targets_) {
      StackFrames(target);
    }
    const bool isColour = colours_ && ComposeColours();
    RunResult result{Frames(), stacks_, {}, {Path("report.html")}};
    if (isColour) result.colours.push_back(Path("colour.fits"));
    TellFrames(result.frames);
    WriteReport();
    CheckShares();
    return result;
  }

 private:
  fs::path Path(const std::string& name) const { return options_.calibrate.out / name; }

  void Plan(const std::string& line) {
    report_.plan.push_back(line);
    job_.Say(line);
  }

  void LeaveOut(Progress& frame, const std::string& reason) {
    frame.reason = reason;
    job_.Warn(fmt::format("{}: left out: {}", frame.light->Name(), reason));
  }

  Workload Work() const {
    Workload work{.hasColour = colours_.has_value(),
                  .hasGradients = options_.gradient,
                  .qualityImages = options_.calibrate.quality.uncertainty + options_.calibrate.quality.mask,
                  .out = options_.calibrate.out,
                  .masterFolder = options_.calibrate.masters};
    for (const Group* group : session_.NeededGroups()) {
      const files::ImageInfo& info = group->frames.front().info;
      work.masters.push_back({group->frames.size(), {info.width, info.height, info.planes}});
    }
    for (const Target& target : targets_) {
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

  /// What a light takes once it is developed, and while its stars are found.
  long long BytesOfFrame() const {
    const Light& light = *frames_.front().light;
    return 2 * BytesOf(light.frame.info) * (light.mosaic.cfa > 0 ? 3 : 1);
  }

  /// What all frames of a target are shown by, so that they compare: that of the first one that can be read.
  Levels StretchOfFrames(const Target& target) const {
    for (const Progress* frame : target.frames) {
      try {
        LightRows rows(session_, *frame->light);
        StackInput input{frame->light->Name(), rows.Size()};
        input.read = [&rows](const Band<float>& to) { rows.Read(to); };
        return StretchForPicture(*SampleInput(input));
      } catch (const files::FileError&) {  // it is told of when the frame is measured
      }
    }
    return {};
  }

  void MeasureFrames() {
    std::map<const Light*, Levels> shown;
    for (const Target& target : targets_) {
      const Levels levels = StretchOfFrames(target);
      for (const Progress* frame : target.frames) {
        shown[frame->light] = levels;
      }
    }
    SideBySide(
        job_, "measuring frame", frames_.size(), BytesOfFrame(),
        [&](size_t i) {
          if (const auto kept = state_->Find("light_" + frames_[i].light->stem, frames_[i].digest)) {
            return FromKept(frames_[i], *kept);
          }
          Progress frame{frames_[i].light, frames_[i].digest, ""};
          LightRows rows(session_, *frame.light);
          const auto image = LoadWhole(rows, job_.MakeStore());
          frame.shape = rows.Size();
          frame.clipped = rows.Clipped();
          frame.border = rows.Border();
          frame.measure = MeasureFrame(*image);
          frame.levels = MeasureLevels(*image);
          frame.thumbnail =
              JpegOf(job_, *image, shown.at(frame.light), ShrinkTo(frame.shape, kThumbnailSide));
          return frame;
        },
        [&](size_t i, const auto& result) {
          const auto take = [&](const fs::path&) {
            try {
              frames_[i] = result();
              Keep(frames_[i]);
            } catch (const files::FileError& error) {
              frames_[i].error = error.Reason();
              frames_[i].isUnfinished = dynamic_cast<const files::UnfinishedError*>(&error);
              throw;
            } catch (const std::exception& error) {
              frames_[i].error = error.what();
              throw;
            }
          };
          job_.ForEachFile({frames_[i].light->frame.path}, take, true);
        });
    const auto kept =
        std::count_if(frames_.begin(), frames_.end(), [](const Progress& f) { return f.isKept; });
    if (kept > 0) job_.Say(fmt::format("{} of {} lights were measured before", kept, frames_.size()));
    for (const Progress& frame : frames_) {
      if (frame.border && !frame.border->IsEmpty()) {
        Plan(fmt::format("{}: {}", frame.light->Name(), frame.border->Text()));
      }
    }
  }

  /// A light as an earlier call measured it. Borders are looked for again: few frames have one.
  static Progress FromKept(const Progress& frame, const KeptJson& kept) {
    Progress found{frame.light, frame.digest, ""};
    found.isKept = true;
    found.shape = kept.at("shape");
    found.clipped = kept.at("clipped");
    found.border = std::make_shared<files::ConstantBorder>();
    found.measure = kept.at("measure");
    found.levels = kept.at("levels");
    found.thumbnail = BytesOf(kept.at("thumbnail"));
    return found;
  }

  void Keep(const Progress& frame) {
    if (frame.isKept || !frame.border || !frame.border->IsEmpty()) return;
    state_->Keep("light_" + frame.light->stem, frame.digest,
                 {{"shape", frame.shape},
                  {"clipped", frame.clipped},
                  {"measure", frame.measure},
                  {"levels", frame.levels},
                  {"thumbnail", Binary(frame.thumbnail)}});
  }

  /// Frames with the same pixels count once.
  void LeaveOutCopies() {
    std::map<std::uint64_t, const Progress*> first;
    for (Progress& frame : frames_) {
      if (!frame.IsMeasured() || !(frame.levels.noise[0] > 0)) continue;
      const auto [same, isNew] = first.emplace(frame.measure.digest, &frame);
      if (!isNew) LeaveOut(frame, "is a copy of " + same->second->light->Name());
    }
  }

  /// A result that holds less than half of its lights is no success.
  void CheckShares() {
    const auto isAwaited = [](const auto& light) { return !light.isUnfinished; };
    const auto lights = static_cast<size_t>(std::ranges::count_if(frames_, isAwaited) +
                                            std::ranges::count_if(session_.Failed(), isAwaited));
    const auto used = static_cast<size_t>(
        std::count_if(frames_.begin(), frames_.end(), [](const Progress& frame) { return frame.IsUsed(); }));
    const auto tell = [&](const std::string& name, size_t part, size_t all) {
      if (2 * part >= all) return;
      job_.Fail(
          fmt::format("{}: holds {} of {} lights, less than half; the report says why", name, part, all));
    };
    std::map<std::string, size_t> failed;  // by filter
    for (const Session::FailedLight& light : session_.Failed()) {
      if (light.filter && isAwaited(light)) ++failed[FoldedName(*light.filter)];
    }
    for (const Target& target : targets_) {
      const auto own = failed.extract(FoldedName(target.filter));
      const auto stacked = std::count_if(target.frames.begin(), target.frames.end(),
                                         [](const Progress* frame) { return frame->IsUsed(); });
      const auto wanted =
          std::ranges::count_if(target.frames, [&](const Progress* frame) { return isAwaited(*frame); });
      if (targets_.size() > 1 && stacked > 0) {
        tell(target.name, static_cast<size_t>(stacked),
             static_cast<size_t>(wanted) + (own ? own.mapped() : 0));
      }
    }
    for (const auto& [filter, count] : failed) {
      job_.Fail(fmt::format("none of the {} light{} of filter {} could be used: there is no stack of them",
                            count, count == 1 ? "" : "s", filter.empty() ? "none" : filter));
    }
    tell(targets_.size() == 1 ? targets_[0].name : "the session", used, lights);
  }

  /// What is known of lenses lies beside the masters.
  fs::path Lenses() const {
    const fs::path& masters = options_.calibrate.masters;
    return (masters.empty() ? options_.calibrate.out : masters) / "lenses.json";
  }

  /// The frame that others lie on.
  const Progress& Grid() const { return fixed_ ? *fixed_ : frames_[reference_]; }
  std::string NameOf(const Progress& frame) const {
    return frame.light ? frame.light->Name() : options_.reference.filename().string();
  }

  /// Takes the light that is asked for as the reference, or an image that is none of them. Answers such a
  /// one.
  std::shared_ptr<CVelImage> FindReference() {
    const fs::path wanted = fs::weakly_canonical(options_.reference);
    for (size_t i = 0; i < frames_.size(); ++i) {
      if (fs::weakly_canonical(frames_[i].light->frame.path) != wanted) continue;
      if (!frames_[i].IsUsed())
        throw files::FileError(options_.reference, "cannot be the reference: it cannot be used");
      reference_ = i;
      return nullptr;
    }
    const auto store = job_.MakeStore();
    Image opened = Image::Open(job_, store, options_.reference);
    // As in LoadWhole.
    auto image = std::shared_ptr<CVelImage>(opened.Pointer().release(), [store](CVelImage* p) { delete p; });
    fixed_.emplace();
    fixed_->error.clear();
    fixed_->digest = fmt::format("{} {}", wanted.string(), files::StampOf(wanted));
    fixed_->shape = {image->GetWidth(), image->GetHeight(), image->GetPlanes()};
    fixed_->measure = MeasureFrame(*image);
    if (fixed_->measure.starCount == 0) {
      throw files::FileError(options_.reference, "cannot be the reference: no stars are found in it");
    }
    return image;
  }

  void RegisterFrames() {
    std::vector<FrameMeasure> measures;
    std::vector<size_t> numbers;
    for (size_t i = 0; i < frames_.size(); ++i) {
      if (!frames_[i].IsUsed()) continue;
      measures.push_back(frames_[i].measure);
      numbers.push_back(i);
    }
    if (measures.empty()) throw files::FileError(options_.calibrate.out, "no light could be read");
    reference_ = numbers.front();
    std::shared_ptr<CVelImage> whole;
    if (!options_.reference.empty()) whole = FindReference();
    FramesToLay toLay{{}, std::move(measures), {}, BytesOfFrame(), true};
    for (const size_t i : numbers) {
      toLay.files.push_back(frames_[i].light->frame.path);
    }
    toLay.image = [&](size_t k) {
      const Progress& frame = frames_[numbers[k]];
      LightRows rows(session_, *frame.light, frame.border);
      return LoadWhole(rows, job_.MakeStore());
    };
    const files::ImageInfo& first = frames_[numbers.front()].light->frame.info;
    const std::string camera = LensLibrary::KeyOf(first.header, first.width, first.height);
    const LensLibrary lenses(Lenses());
    LayOptions how = options_.lay;
    how.lens = lenses.Find(camera);
    LaidFrames laid;
    if (whole) {
      laid = LayFrames(
          job_, toLay, fixed_->measure, [whole] { return whole; }, how);
    } else {
      std::optional<size_t> number;
      if (!options_.reference.empty()) number = std::ranges::find(numbers, reference_) - numbers.begin();
      laid = LayFrames(job_, toLay, number, how);
      reference_ = numbers[*laid.reference];
    }
    const Progress& reference = Grid();
    const std::vector<Registration>& registrations = laid.registrations;
    const bool lightIsCompared = std::any_of(registrations.begin(), registrations.end(),
                                             [](const Registration& r) { return r.fluxRatio.has_value(); });
    for (size_t k = 0; k < numbers.size(); ++k) {
      Progress& frame = frames_[numbers[k]];
      frame.registration = registrations[k];
      // Frames are brought to the reference by their sky and by the light of their stars.
      if (options_.stack.normalise == "level+scale" && lightIsCompared && frame.registration.IsGood() &&
          !frame.registration.fluxRatio) {
        LeaveOut(frame, kNoCommonLight);
      }
      std::fill(std::begin(frame.levels.spread), std::end(frame.levels.spread),
                frame.registration.fluxRatio.value_or(1));
    }
    Plan(fmt::format("reference: {}, {} stars, FWHM {:.2f} px", NameOf(reference),
                     reference.measure.starCount, reference.measure.fwhm));
    if (!laid.model.empty()) Plan("laid by: " + laid.model);
    KeepLens(job_, lenses, camera, laid);
  }

  /// Leaves out what cannot be stacked, and what is much worse than the others. A few stars tell nothing of
  /// that.
  void LeaveOutBad(Target& target) {
    constexpr int kEnough = 20;
    std::vector<double> stars, fwhms, elongations;
    for (const Progress* frame : target.frames) {
      if (!frame->IsUsed()) continue;
      stars.push_back(frame->measure.starCount);
      if (frame->measure.starCount < kEnough) continue;
      fwhms.push_back(frame->measure.fwhm);
      elongations.push_back(frame->measure.elongation);
    }
    const FrameLimits& limits = options_.limits;
    const double usual = UpperMedian(stars), fewest = usual < kEnough ? 0 : limits.stars * usual,
                 widest = limits.fwhm * UpperMedian(fwhms),
                 longest = limits.elongation * UpperMedian(elongations);
    std::string text = target.name + ": what could not be registered";
    if (fewest > 0)
      text += fmt::format("; fewer than {:.0f} stars ({:g} of the median)", fewest, limits.stars);
    if (widest > 0)
      text += fmt::format("; FWHM above {:.2f} px ({:g} times the median)", widest, limits.fwhm);
    if (longest > 0)
      text += fmt::format("; elongation above {:.2f} ({:g} times the median)", longest, limits.elongation);
    Plan(text + "; are left out");
    TellLimitsThatSayLittle(target, stars.size(), fwhms.size());
    const Shape& shape = Grid().shape;
    for (Progress* frame : target.frames) {
      if (!frame->IsUsed()) continue;
      const FrameMeasure& m = frame->measure;
      const bool tells = m.starCount >= kEnough;
      const Shape& own = frame->shape;
      if (own.width != shape.width || own.height != shape.height || own.planes != shape.planes) {
        LeaveOut(*frame, fmt::format("is {} x {} x {}, the reference {} x {} x {}", own.width, own.height,
                                     own.planes, shape.width, shape.height, shape.planes));
      } else if (m.starCount < fewest) {
        LeaveOut(*frame, fmt::format("{} stars, fewer than {:.0f}", m.starCount, fewest));
      } else if (tells && widest > 0 && m.fwhm > widest) {
        LeaveOut(*frame, fmt::format("FWHM {:.2f} px, above {:.2f}", m.fwhm, widest));
      } else if (tells && longest > 0 && m.elongation > longest) {
        LeaveOut(*frame, fmt::format("elongation {:.2f}, above {:.2f}", m.elongation, longest));
      } else if (!frame->registration.IsGood()) {
        LeaveOut(*frame, "not registered: " + frame->registration.Text());
      }
    }
  }

  /// Limits compare frames with each other: spoiled alike, they pass.
  void TellLimitsThatSayLittle(const Target& target, size_t frames, size_t starry) {
    constexpr size_t kTelling = 3;
    const FrameLimits& limits = options_.limits;
    const bool hasLimits = limits.stars > 0 || limits.fwhm > 0 || limits.elongation > 0;
    if (frames == 0 || !hasLimits || starry >= kTelling) return;
    const std::string line = fmt::format(
        "{}: frames are told to be bad by the median of their like, and {}; look at them, whether clouds, "
        "focus or trails spoiled them",
        target.name,
        frames < kTelling
            ? fmt::format("there {} only {}", frames == 1 ? "is" : "are", frames)
            : fmt::format("only {} of {} have the stars for FWHM and elongation", starry, frames));
    report_.plan.push_back(line);
    job_.Warn(line);
  }

  std::vector<StackInput> Inputs(const std::vector<Progress*>& used) const {
    std::vector<StackInput> inputs;
    for (const Progress* frame : used) {
      StackInput input{frame->light->Name(), frame->shape};
      input.dx = frame->registration.dx;
      input.dy = frame->registration.dy;
      input.degrees = frame->registration.degrees;
      input.map = frame->registration.map;
      input.levels = frame->levels;
      input.read = [this, frame](const Band<float>& to) {
        LightRows(session_, *frame->light, frame->border).Read(to);
      };
      input.readQuality = [this, frame](const Band<float>& to, const QualityRows& quality) {
        LightRows(session_, *frame->light, frame->border).Read(to, quality);
      };
      if (const DevelopedNoise* noise = session_.NoiseOfDevelopment(*frame->light)) {
        input.correlation = noise->CorrelationOfNoise();
      }
      inputs.push_back(std::move(input));
    }
    return inputs;
  }

  void StackFrames(Target& target) {
    std::vector<Progress*> used;
    size_t reference = 0;
    for (Progress* frame : target.frames) {
      if (!frame->IsUsed()) continue;
      used.push_back(frame);
    }
    // The light of a filter is that of its clearest frame, unless it is the reference's own.
    for (size_t i = 1; i < used.size(); ++i) {
      const auto light = [&](size_t k) { return used[k]->registration.fluxRatio.value_or(0); };
      if (light(i) > light(reference)) reference = i;
    }
    for (size_t i = 0; i < used.size(); ++i) {
      if (used[i] == &Grid()) reference = i;
    }
    if (used.empty()) {
      job_.Fail(fmt::format("{}: no frame is left to stack", target.name));
      return;
    }
    std::vector<StackInput> inputs = Inputs(used);
    const QualityOptions& wanted = options_.calibrate.quality;
    StackOptions options = options_.stack.Options();
    options.memory = DefaultStackMemory(job_);
    options.uncertainty = wanted.uncertainty;
    options.mask = wanted.mask;
    std::vector<double> fwhms;
    for (const Progress* frame : used) {
      fwhms.push_back(frame->measure.fwhm);
    }
    CheckScales(inputs, static_cast<int>(reference));
    options_.stack.Weigh(inputs, fwhms, static_cast<int>(reference));
    const Shape shape = Grid().shape;
    Plan(fmt::format("{}: {} of {} frames, {}", target.name, used.size(), target.frames.size(),
                     PlanStack(inputs, shape, options).Text()));
    for (size_t i = 0; i < used.size(); ++i) {
      used[i]->weight = inputs[i].Weight();
      used[i]->weights = inputs[i].Weights();
    }
    const std::string digest = DigestOf(target, used, *used[reference]);
    if (TakeKeptStack(target, used, digest)) return;

    const auto store = job_.MakeStore();
    if (options_.stack.drizzle) {
      const Drizzled drizzled =
          DrizzleFrames(target, used, inputs, static_cast<int>(reference), options, store);
      KeepStack(target, used, digest,
                SaveStack(target, used, *used[reference], *drizzled.image, {}, &drizzled));
      return;
    }
    const auto image = NewImage(store, shape.width, shape.height, shape.planes);
    const Quality quality = NewQuality(store, wanted, shape.width, shape.height, shape.planes);
    const auto take = [&](const StackBand& band) {
      for (size_t i = 0; i < band.counts.size(); ++i) {
        used[i]->counts += band.counts[i];
      }
      const QualityRows rows = quality.Rows(band.result.Top(), band.result.Rows());
      if (quality.variance) CopyPixels(band.variance, rows.variance);
      if (quality.mask) CopyPixels(band.mask, rows.mask);
    };
    Stack(job_, inputs, static_cast<int>(reference), options, 0, take, image.get());
    KeepStack(target, used, digest, SaveStack(target, used, *used[reference], *image, quality));
  }

  /// A stack on a finer grid.
  struct Drizzled {
    std::unique_ptr<CVelImage> image, weights;
    std::optional<double> spread;  ///< of the weights
  };

  /// Lights of a colour camera are drizzled by the sites of their mosaics; what is rejected of these was told
  /// by the developed ones.
  Drizzled DrizzleFrames(const Target& target, const std::vector<Progress*>& used,
                         const std::vector<StackInput>& inputs, int reference, const StackOptions& options,
                         const std::shared_ptr<CVmManager>& store) {
    const CImgDrizzle::Options& grid = *options_.stack.drizzle;
    session::DrizzleFrames frames{inputs, reference, options.normalisation};
    for (const Progress* frame : used) {
      if (frame->light->mosaic.cfa == 0) continue;
      frames.mosaics.push_back(
          {PlanesOfSites(frame->light->mosaic.cfa), [this, frame](const Band<float>& to) {
             LightRows(session_, *frame->light, frame->border).ReadSites(to);
           }});
    }
    std::optional<RejectedPixels> rejected;
    if (options_.stack.Rejects()) {
      rejected.emplace(Path(target.name + ".fits"), "", inputs[reference].shape, inputs.size(),
                       Journal::Passing);
      FindRejected(job_, inputs, reference, options, *rejected);
      frames.rejected = &*rejected;
    }
    const CImgDrizzle made = GridOf(inputs[reference], grid);
    const int planes = inputs[reference].shape.planes;
    Drizzled drizzled{NewImage(store, made.Width(), made.Height(), planes),
                      NewImage(store, made.Width(), made.Height(), planes), std::nullopt};
    WeightSpread spread(inputs, reference, grid);
    Plan(fmt::format("{}: {} x {}, {}", target.name, made.Width(), made.Height(),
                     PlanDrizzle(frames, grid, options.memory).Text()));
    Drizzle(job_, frames, grid, options.memory, 0, [&](const StackBand& band) {
      CopyPixels(band.result, Image::RowsOf(*drizzled.image, band.result.Top(), band.result.Rows()));
      CopyPixels(band.weights, Image::RowsOf(*drizzled.weights, band.weights.Top(), band.weights.Rows()));
      spread.Add(band.weights);
      for (size_t i = 0; i < used.size() && !rejected; ++i) {
        used[i]->counts += band.counts[i];
      }
    });
    for (size_t i = 0; i < used.size() && rejected; ++i) {
      used[i]->counts = rejected->Counts()[i];
    }
    drizzled.spread = spread.Get();
    return drizzled;
  }

  /// All that a stack and its files depend on.
  std::string DigestOf(const Target& target, const std::vector<Progress*>& used,
                       const Progress& reference) const {
    KeptJson made{{"korimg", Version()},           {"stack", options_.stack.Text()},
                  {"gradient", options_.gradient}, {"lights", target.frames.size()},
                  {"reference", reference.digest}, {"grid", Grid().digest}};
    const QualityOptions& quality = options_.calibrate.quality;
    made["quality"] = {quality.uncertainty, quality.mask, quality.gain.value_or(0),
                       quality.readNoise.value_or(0)};
    for (const Progress* frame : used) {
      const Registration& r = frame->registration;
      made["frames"].push_back({frame->digest, frame->weights, r.dx, r.dy, r.degrees, r.fluxRatio.value_or(0),
                                r.map ? KeptJson(ToJson(*r.map)) : KeptJson()});
    }
    return made.dump();
  }

  std::vector<fs::path> OutputsOf(const Target& target) const {
    std::vector<fs::path> outputs;
    for (const char* extension : {".fits", "_float.tif", "_16bit.tif", ".png"}) {
      outputs.push_back(Path(target.name + extension));
    }
    if (options_.gradient) outputs.push_back(Path(target.name + "_gradient.fits"));
    if (options_.stack.drizzle) outputs.push_back(Path(target.name + "_weights.fits"));
    return outputs;
  }

  /// States of a stack's files, so that what somebody changed is made again.
  KeptJson StampsOf(const Target& target) const {
    KeptJson stamps = KeptJson::array();
    for (const fs::path& output : OutputsOf(target)) {
      stamps.push_back(fs::exists(output) ? files::StampOf(output) : "");
    }
    return stamps;
  }

  void KeepStack(const Target& target, const std::vector<Progress*>& used, const std::string& digest,
                 const Json& told) {
    KeptJson counts = KeptJson::array();
    for (const Progress* frame : used) {
      counts.push_back(frame->counts);
    }
    state_->Keep(target.name, digest,
                 {{"files", StampsOf(target)},
                  {"counts", std::move(counts)},
                  {"told", KeptJson(told)},
                  {"stack", stacks_.back()},
                  {"report", report_.stacks.back()}});
  }

  /// A stack that an earlier call has made of the same frames is as good as a new one.
  bool TakeKeptStack(const Target& target, const std::vector<Progress*>& used, const std::string& digest) {
    const auto kept = state_->Find(target.name, digest);
    if (!kept || kept->at("files") != StampsOf(target)) return false;
    for (size_t i = 0; i < used.size(); ++i) {
      used[i]->counts = kept->at("counts").at(i);
    }
    report_.stacks.push_back(kept->at("report"));
    stacks_.push_back(kept->at("stack"));
    stacks_.back().file = Path(target.name + ".fits");
    if (!stacks_.back().gradient.empty()) stacks_.back().gradient = Path(target.name + "_gradient.fits");
    TellStack(stacks_.back(), Json(kept->at("told")), "as it was made before");
    return true;
  }

  /// What became of a stack, for people and programs.
  void TellStack(const RunStack& made, const Json& more, const std::string& how) const {
    Json json{{"stack", made.file.string()}, {"filter", made.filter}};
    json.update(more);
    json.update({{"frames", made.frames},
                 {"lights", made.lights},
                 {"exposure", made.exposure},
                 {"stars", made.stars},
                 {"fwhm", made.fwhm},
                 {"noise", made.noise},
                 {"peak_memory_bytes", PeakMemory()}});
    job_.Tell(Dump(json), fmt::format("{} -> {}: FWHM {:.2f} px, noise {:.4g} {}", made.file.stem().string(),
                                      made.file.string(), made.fwhm, made.noise, how));
  }

  /// Calls what takes one thread each.
  void Together(const std::string& title, const std::vector<std::function<void()>>& parts) {
    SideBySide(
        job_, title, parts.size(), BytesOfFrame(), [&](size_t i) { parts[i](); },
        [](size_t, const auto& result) { result(); });
  }

  /// Answers what is told of it beside the numbers of all stacks.
  Json SaveStack(const Target& target, const std::vector<Progress*>& used, const Progress& reference,
                 CVelImage& image, const Quality& quality, const Drizzled* drizzled = nullptr) {
    LightRows source(session_, *reference.light);
    files::Header first = source.Info().header;
    session_.Describe(first, *reference.light, reference.clipped);
    const Shape shape = reference.shape, size{image.GetWidth(), image.GetHeight(), image.GetPlanes()};
    if (&reference != &Grid() &&
        !files::DropWorldCoordinates(first, {shape.width, shape.height, shape.planes},
                                     "the grid is that of a frame of another stack")) {
      throw files::FileError(reference.light->frame.path, "is an undeveloped mosaic, which cannot be moved");
    }
    StackHeader collected(first);
    const Normalisation normalisation = options_.stack.Options().normalisation;
    for (const Progress* frame : used) {
      collected.Add(frame->light->frame.info.header, frame->weight,
                    ScaleOf(frame->levels, reference.levels, normalisation));
    }
    files::Header header = collected.Make(normalisation == Normalisation::LevelAndScale);
    for (const std::string& line : History(used, target)) {
      header.AddHistory(line);
    }
    ReportStack stack{target.name};
    RunStack made{Path(target.name + ".fits"), target.filter};
    Json more = Json::object();
    if (drizzled) {
      ToGrid(header, shape, *options_.stack.drizzle);
      // Each colour of a mosaic got its part of the light alone.
      if (reference.light->mosaic.cfa > 0) files::DropGain(header);
      const fs::path file = Path(target.name + "_weights.fits");
      SaveImage(job_, *drizzled->weights, header, file);
      more["weights"] = file.string();
      TellDrizzle(job_, *options_.stack.drizzle, drizzled->spread, more);
    }
    if (options_.gradient) {
      if (const auto taken = TakeGradientOff(image)) {
        made.gradient = Path(target.name + "_gradient.fits");
        SaveImage(job_, *taken->surface, header, made.gradient);
        header.AddHistory("gradient subtracted: " + taken->Text());
        files::DropGain(header);  // the sky's photons are no longer in the values
        Levels shown(*taken->surface);
        if (files::IsPictureOverturned(header)) TurnOver(*taken->surface);
        stack.gradient = JpegOf(job_, *taken->surface, shown, ShrinkTo(size, kThumbnailSide));
        stack.facts.emplace_back("gradient taken off", taken->Text());
        more["gradient"] = taken->Description();
        job_.Say(fmt::format("{}: gradient taken off: {} -> {}", target.name, taken->Text(),
                             made.gradient.string()));
      } else {
        job_.Warn(target.name + ": its gradient stays: there are too few boxes of sky to tell it by");
      }
    }
    LevelForPreview(image, kPictureSide);
    FrameMeasure measure;
    Levels shown;
    const std::vector<std::function<void()>> own{
        [&] { SaveImage(job_, image, header, made.file, {}, quality); },
        [&] { SaveImage(job_, image, header, Path(target.name + "_16bit.tif"), {.integers = true}); },
        [&] { SaveImage(job_, image, header, Path(target.name + "_float.tif")); },
        [&] { measure = MeasureFrame(image); }};
    std::vector<std::function<void()>> all{
        // the longest first
        [&] { SavePicture(job_, image, shown, Path(target.name + ".png"), 1); },
        [&] { stack.picture = JpegOf(job_, image, shown, ShrinkTo(size, kPictureSide)); }};
    if (files::IsPictureOverturned(header)) {
      Together("writing " + target.name, own);
      TurnOver(image);
    } else {
      all.insert(all.begin() + 1, own.begin(), own.end());
    }
    shown = StretchForPicture(image);
    Together("writing " + target.name, all);

    double exposure = 0;
    CImgStack::Counts counts;
    for (const Progress* frame : used) {
      exposure += files::ExposureOf(frame->light->frame.info.header).value_or(0);
      counts += frame->counts;
    }
    stack.facts.insert(
        stack.facts.begin(),
        {{"frames", fmt::format("{} of {}", used.size(), target.frames.size())},
         {"exposure", fmt::format("{:g} s", exposure)},
         {"size", fmt::format("{} x {}", size.width, size.height)},
         {"stars", fmt::format("{}", measure.starCount)},
         {"FWHM", fmt::format("{:.2f} px; of the reference {:.2f}", measure.fwhm, reference.measure.fwhm)},
         {"noise of the sky",
          fmt::format("{:.4g}; of the reference {:.4g}", measure.noise, reference.measure.noise)},
         {"rejected", Percent(Rejected(counts))}});
    if (!target.filter.empty()) stack.facts.insert(stack.facts.begin(), {"filter", target.filter});
    report_.stacks.push_back(std::move(stack));
    made.frames = static_cast<int>(used.size()), made.lights = static_cast<int>(target.frames.size());
    made.exposure = exposure;
    made.stars = measure.starCount, made.fwhm = measure.fwhm, made.noise = measure.noise;
    TellStack(made, more, fmt::format("(reference {:.4g})", reference.measure.noise));
    stacks_.push_back(std::move(made));
    return more;
  }

  /// Makes the colour image of the stacks, which lie on one grid. False when one of them is missing, or has
  /// colours itself.
  bool ComposeColours() {
    const auto store = job_.MakeStore();
    std::vector<Image> sources;
    for (const size_t i : colours_->filters) {
      const fs::path file = Path(targets_[i].name + ".fits");
      const bool isMade =
          std::any_of(stacks_.begin(), stacks_.end(), [&](const RunStack& s) { return s.file == file; });
      if (isMade) sources.push_back(Image::Open(job_, store, file));
      if (!isMade || sources.back().Planes() != 1) {
        job_.Warn(fmt::format("there is no colour image: {} {}", targets_[i].name,
                              isMade ? "has colours itself" : "is missing"));
        return false;
      }
    }
    ComposeOptions options;
    options.composition = colours_->composition;
    options.registers = options.crops = false;
    const Image image = Compose(job_, std::move(sources), options);
    const Levels shown = StretchForPicture(image.Pixels());
    SaveImage(job_, image.Pixels(), image.Header(), Path("colour.fits"));
    SaveImage(job_, image.Pixels(), image.Header(), Path("colour.tif"), {.integers = true});
    if (files::IsPictureOverturned(image.Header())) TurnOver(image.Pixels());
    SavePicture(job_, image.Pixels(), shown, Path("colour.png"), 1);
    const Shape shape{image.Width(), image.Height(), image.Planes()};
    report_.stacks.insert(
        report_.stacks.begin(),
        {"colour",
         JpegOf(job_, image.Pixels(), shown, ShrinkTo(shape, kPictureSide)),
         {{"made of", colours_->text}, {"size", fmt::format("{} x {}", shape.width, shape.height)}}});
    job_.Tell(Dump({{"colour", Path("colour.fits").string()}, {"made_of", colours_->text}}),
              fmt::format("colour: {} -> {}", colours_->text, Path("colour.fits").string()));
    return true;
  }

  std::vector<std::string> History(const std::vector<Progress*>& used, const Target& target) const {
    return {fmt::format("korimg {} run {}", Version(), options_.stack.Text()),
            fmt::format("{} frames stacked, {} left out; on the grid of {}", used.size(),
                        target.frames.size() - used.size(), NameOf(Grid()))};
  }

  /// What has become of each light.
  std::vector<RunFrame> Frames() const {
    std::vector<RunFrame> frames;
    for (const Progress& frame : frames_) {
      RunFrame told{frame.light->frame.path, frame.measure, frame.registration};
      told.status = frame.IsUsed() ? "stacked" : frame.IsMeasured() ? frame.reason : frame.error;
      told.isStacked = frame.IsUsed();
      told.weight = frame.weight;
      told.weights = frame.weights;
      told.rejected = Rejected(frame.counts);
      frames.push_back(std::move(told));
    }
    frames.insert(frames.end(), excluded_.begin(), excluded_.end());
    for (const Session::FailedLight& light : session_.Failed()) {
      RunFrame told{light.path};
      told.status = light.reason;
      frames.push_back(std::move(told));
    }
    return frames;
  }

  void TellFrames(const std::vector<RunFrame>& frames) const {
    for (size_t i = 0; i < frames_.size(); ++i) {
      const RunFrame& frame = frames[i];
      const FrameMeasure& m = frame.measure;
      const Registration& r = frame.registration;
      Json json = frames_[i].light->Description();
      const auto start = StartOf(frames_[i]);
      json.update({{"date_obs", start ? Json(files::FitsDate(*start)) : Json()},
                   {"stars", m.starCount},
                   {"fwhm", m.fwhm},
                   {"elongation", m.elongation},
                   {"guide_error", m.guideError ? Json(*m.guideError) : Json()},
                   {"sky", m.sky},
                   {"noise", m.noise},
                   {"dx", r.dx},
                   {"dy", r.dy},
                   {"degrees", r.degrees},
                   {"residual_px", r.residual},
                   {"method", r.method},
                   {"status", frame.status},
                   {"note", frame.isStacked ? r.note : ""},
                   {"weight", frame.weight},
                   {"rejected", frame.rejected},
                   {"flux_ratio", r.fluxRatio ? Json(*r.fluxRatio) : Json()}});
      if (r.map) json["map"] = ToJson(*r.map);
      if (frame.weights.size() > 1) json["weights"] = frame.weights;
      if (const DefectMap* defects = session_.DefectsOf(*frames_[i].light)) {
        json["hot_pixels"] = defects->Hot();
        json["cold_pixels"] = defects->Cold();
      }
      const std::string line = fmt::format(
          "{}: {} stars, FWHM {:.2f} px, dx {:.2f}, dy {:.2f}, {:.3f} degrees by {}; light {:.3g} of the "
          "reference's, weight {:.2f}, rejected {}{}",
          frames_[i].light->Name(), m.starCount, m.fwhm, r.dx, r.dy, r.degrees, r.method,
          r.fluxRatio.value_or(1), frame.weight, Percent(frame.rejected),
          r.note.empty() ? "" : "; " + r.note);
      job_.Tell(Dump(json), frame.isStacked ? line : "");
    }
    TellFailed();
  }

  /// Lights that were left out before any work, for programs.
  void TellFailed() const {
    for (const Session::FailedLight& light : session_.Failed()) {
      job_.Tell(Dump({{"file", light.path.string()}, {"status", light.reason}}), "");
    }
  }

  static std::optional<double> StartOf(const Progress& frame) {
    return files::StartOf(frame.light->frame.info.header);
  }

  void WriteReport() {
    report_.command = job_.options.origin;
    report_.plan.insert(report_.plan.begin(), session_.MasterLines().begin(), session_.MasterLines().end());
    for (const Progress& frame : frames_) {
      ReportFrame row{frame.light->Name(), frame.light->Served(),
                      frame.IsMeasured() ? frame.reason : frame.error};
      row.start = StartOf(frame);
      if (frame.IsMeasured()) {
        row.thumbnail = frame.thumbnail;
        row.clipped = frame.clipped;
        row.stars = frame.measure.starCount;
        row.sky = frame.measure.sky;
        row.light = frame.registration.fluxRatio;
        row.noise = frame.measure.noise;
        if (frame.measure.starCount > 0) {
          row.fwhm = frame.measure.fwhm;
          row.elongation = frame.measure.elongation;
          row.guideError = frame.measure.guideError;
        }
        if (frame.registration.IsGood()) {
          row.method = frame.registration.method;
          row.dx = frame.registration.dx;
          row.dy = frame.registration.dy;
          row.degrees = frame.registration.degrees;
          row.residual = frame.registration.residual;
          row.note = frame.registration.note;
        }
      }
      if (frame.IsUsed()) {
        row.weight = frame.weight;
        row.rejected = 100 * Rejected(frame.counts);
      }
      report_.frames.push_back(std::move(row));
    }
    for (const Session::FailedLight& light : session_.Failed()) {
      report_.frames.push_back({light.path.filename().string(), "", light.reason});
    }
    for (const RunFrame& frame : excluded_) {
      report_.frames.push_back({frame.file.filename().string(), "", frame.status});
    }
    session::WriteReport(report_, Path("report.html"));
    job_.Say("report: " + Path("report.html").string());
  }

  Job& job_;
  const RunOptions& options_;
  Session session_;
  std::vector<Progress> frames_;
  std::vector<Target> targets_;
  std::optional<ColourPlan> colours_;  ///< their numbers are those of targets
  size_t reference_ = 0;
  std::optional<Progress> fixed_;  ///< a reference that is none of the lights
  std::optional<RunState> state_;
  std::vector<RunFrame> excluded_;
  Cost cost_;
  Report report_;
  std::vector<RunStack> stacks_;
};

/// What follows from the folders.
RunOptions Complete(RunOptions options) {
  if (options.calibrate.lights.empty())
    throw UsageError("there are no lights; name files or folders of them");
  options.stack.Settle(true);
  options.stack.Options();  // refuses what is wrong before any work
  if (options.stack.drizzle && options.calibrate.quality.Any())
    throw UsageError(
        "--uncertainty and --mask are not known of what is drizzled; leave them or --drizzle out");
  const CalibrateOptions& frames = options.calibrate;
  if (!frames.darks.empty() || !frames.flats.empty() || !frames.biases.empty()) {
    options.calibrate.mastersAreLibrary = !frames.masters.empty();
    if (frames.masters.empty()) options.calibrate.masters = frames.out / "masters";
  }
  options.calibrate.misfitsMayBeMissing = true;
  return options;
}

/// Calls road(options, excluded lights) for each object.
template <class F>
void ForObjects(Job& job, const RunOptions& options, F&& road) {
  RunOptions complete = Complete(options);
  std::vector<RunFrame> excluded = TakeExcluded(job, complete);
  for (const auto& [name, lights] : ByObject(complete.calibrate.lights)) {
    RunOptions own = complete;
    own.calibrate.lights = lights;
    if (!name.empty()) {
      own.calibrate.out /= name;
      job.Say(fmt::format("object {}: {} lights", name, lights.size()));
    }
    road(own, std::exchange(excluded, {}));
  }
}

}  // namespace

RunResult Run(Job& job, const RunOptions& options) {
  return AtEdge([&] {
    RunResult all;
    ForObjects(job, options, [&](const RunOptions& own, std::vector<RunFrame> excluded) {
      Road road(job, own, std::move(excluded));
      road.Show();
      RunResult result = road.Do();
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
    ForObjects(job, options, [&](const RunOptions& own, std::vector<RunFrame> excluded) {
      Road road(job, own, std::move(excluded));
      road.Show();
      road.TellPlan();
    });
  });
}

}  // namespace korimg::session
