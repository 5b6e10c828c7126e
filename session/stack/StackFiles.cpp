#include "session/stack/StackFiles.h"

#include <algorithm>
#include <cmath>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/files/Geometry.h"
#include "session/files/Mosaic.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/Overwriting.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/Images.h"
#include "session/register/Register.h"
#include "session/register/internal/MapJson.h"
#include "session/stack/internal/Canvas.h"
#include "session/stack/internal/Journal.h"
#include "session/stack/internal/StackHeader.h"
#include "session/stack/internal/Transforms.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

/// A frame's file, and what is to be done with it.
struct Source {
  fs::path path;
  files::ImageInfo info;
  Transform transform;
  std::unique_ptr<files::ImageReader> reader;  ///< while it is open
  std::unique_ptr<QualityReader> quality;      ///< likewise, once it was asked for
  std::shared_ptr<const files::ConstantBorder> border = nullptr;
};

/// The files of a stack. The first ones stay open; opening others anew for each band costs little, and there
/// may be more of them than a process may open.
class Sources {
 public:
  static constexpr size_t kMostOpen = 100;

  Sources(Job& job, const StackFilesOptions& options) : uncertainty_(options.uncertainty) {
    std::optional<Transforms> transforms;
    if (!options.transforms.empty()) transforms.emplace(options.transforms);
    for (const fs::path& path : ExpandFolders(job, options.frames)) {
      const Transform transform = transforms ? transforms->Of(path) : Transform();
      if (transform.status != "ok") {
        leftOut_.emplace_back(path, transform.Text());
        continue;
      }
      try {
        auto reader = files::ImageReader::Open(path, kRead);
        Source source{path, reader->Info(), transform};
        if (used_.size() < kMostOpen) source.reader = std::move(reader);
        used_.push_back(std::move(source));
      } catch (const files::FileError& error) {
        leftOut_.emplace_back(path, error.what());
      }
    }
    const bool isUnion = options.frame == StackFrame::Union;
    if (!isUnion && (options.normalise == "auto" || options.normalise == "level+scale") && HaveFluxes()) {
      const auto unknown = std::stable_partition(used_.begin(), used_.end(), [](const Source& source) {
        return source.transform.fluxRatio.has_value();
      });
      for (auto source = unknown; source != used_.end(); ++source) {
        leftOut_.emplace_back(source->path, kNoCommonLight);
      }
      used_.erase(unknown, used_.end());
    }
    if (used_.empty()) throw UsageError("no frame to stack: none of them is ok");
    FindReference(options);
    for (const Source& source : used_) {
      Check(source, options);
    }
  }

  const std::vector<Source>& Used() const { return used_; }
  const std::vector<std::pair<fs::path, std::string>>& LeftOut() const { return leftOut_; }
  int Reference() const { return reference_; }
  /// The light of stars was compared.
  bool HaveFluxes() const {
    return std::any_of(used_.begin(), used_.end(),
                       [](const Source& source) { return source.transform.fluxRatio.has_value(); });
  }

  /// Finds what of a frame's edges holds no data; its rows are read without that from now on.
  const files::ConstantBorder& FindBorder(size_t number) {
    Source& source = used_[number];
    auto reader = OpenAgain(source);
    source.border = reader->Border();
    if (source.reader) source.reader = std::move(reader);
    return *source.border;
  }

  StackInput Input(size_t number) {
    Source& source = used_[number];
    StackInput input{source.path.string(),     {source.info.width, source.info.height, source.info.planes},
                     source.transform.dx,      source.transform.dy,
                     source.transform.degrees, source.transform.map};
    input.read = [&source](const Band<float>& to) {
      if (source.reader) return source.reader->ReadRows(to);
      OpenAgain(source)->ReadRows(to);
    };
    input.readQuality = [&source, read = input.read](const Band<float>& to, const QualityRows& quality) {
      read(to);
      if (source.quality) return source.quality->ReadRows(quality);
      auto reader = std::make_unique<QualityReader>(ReaderOf(source));
      reader->ReadRows(quality);
      if (source.reader) source.quality = std::move(reader);
    };
    if (uncertainty_) input.correlation = ReaderOf(source).CorrelationOfNoise();
    return input;
  }

 private:
  inline static const files::ReadOptions kRead = {.manyOpen = true};

  static std::unique_ptr<files::ImageReader> OpenAgain(const Source& source) {
    auto reader = files::ImageReader::Open(source.path,
                                           {.manyOpen = true, .lessBorder = true, .border = source.border});
    const files::ImageInfo &now = reader->Info(), &then = source.info;
    if (now.width != then.width || now.height != then.height || now.planes != then.planes) {
      throw files::FileError(source.path, "has changed since the work began");
    }
    return reader;
  }

  static QualityReader ReaderOf(const Source& source) {
    return QualityReader(source.reader ? *source.reader : *OpenAgain(source));
  }

  /// The one that is told; else the first that lies still.
  void FindReference(const StackFilesOptions& options) {
    const auto found = std::find_if(used_.begin(), used_.end(), [&](const Source& source) {
      return options.reference.empty()
                 ? source.transform.IsNone()
                 : fs::weakly_canonical(source.path) == fs::weakly_canonical(options.reference);
    });
    if (found == used_.end() && !options.reference.empty()) {
      throw files::FileError(options.reference, "is none of the frames that are stacked");
    }
    reference_ = found == used_.end() ? 0 : static_cast<int>(found - used_.begin());
  }

  void Check(const Source& source, const StackFilesOptions& options) const {
    const files::ImageInfo &own = source.info, &wanted = used_[reference_].info;
    const bool isSize =
        options.frame == StackFrame::Union || (own.width == wanted.width && own.height == wanted.height);
    if (!isSize || own.planes != wanted.planes) {
      throw files::FileError(source.path,
                             fmt::format("is {} x {} x {}, but the reference is {} x {} x {} ({})", own.width,
                                         own.height, own.planes, wanted.width, wanted.height, wanted.planes,
                                         used_[reference_].path.filename().string()));
    }
    if (own.format != wanted.format) {
      throw files::FileError(
          source.path, fmt::format("is a {} file, but the reference is {} ({}): their scales differ; "
                                   "stack frames of one kind",
                                   own.format, wanted.format, used_[reference_].path.filename().string()));
    }
    if (!source.transform.IsNone() && !files::FindMosaic(own).name.empty()) {
      throw files::FileError(source.path,
                             "is an undeveloped mosaic, whose colours moving would mix; develop it first");
    }
    if (options.uncertainty && !ReaderOf(source).HasUncertainty()) {
      throw files::FileError(source.path,
                             "holds no uncertainty (UNCERT); calibrate the frames with --uncertainty");
    }
    if (options.weight == "fwhm" && !source.transform.fwhm) {
      throw files::FileError(source.path, "has no fwhm in the transforms; use --weight noise or none");
    }
  }

  bool uncertainty_;
  std::vector<Source> used_;
  std::vector<std::pair<fs::path, std::string>> leftOut_;
  int reference_ = 0;
};

class StackRun {
  static constexpr double kFeather = 0.1;  // of the shorter side of panels

 public:
  StackRun(Job& job, const StackFilesOptions& options)
      : job_(job), options_(options), sources_(job, options) {
    options_.Settle(sources_.HaveFluxes());
    stack_ = options_.Options();
    stack_.rejectionMaps = options.maps;
    stack_.uncertainty = options.uncertainty;
    stack_.mask = options.mask;
    stack_.memory = DefaultStackMemory(job);
    for (size_t i = 0; i < sources_.Used().size(); ++i) {
      inputs_.push_back(sources_.Input(i));
    }
    shape_ = inputs_[sources_.Reference()].shape;
    if (options.frame == StackFrame::Union) {
      canvas_ = CanvasOf(inputs_, shape_);
      const double shorter = std::min(shape_.width, shape_.height), feather = options.feather;
      stack_.feather = feather < 0 ? kFeather * shorter : feather;
      LayOn(*canvas_, inputs_);
      stack_.shape = shape_ = canvas_->shape;
    } else if (options.feather > 0) {
      stack_.feather = options.feather;
    }
  }

  void Plan() {
    plan_ = PlanStack(inputs_, shape_, stack_);
    const Source& reference = sources_.Used()[sources_.Reference()];
    job_.Say(fmt::format("{} frames of {} x {}{}, reference {}: {}", inputs_.size(), shape_.width,
                         shape_.height, shape_.planes > 1 ? " in colour" : "",
                         reference.path.filename().string(), plan_.Text()));
    for (const auto& [path, status] : sources_.LeftOut()) {
      job_.Warn(fmt::format("{}: left out: {}", path.string(), status));
    }
    if (!reference.transform.IsNone()) {
      job_.Warn(
          "the frame that gives header and sky is not the one that the transforms are of: the stack lies as "
          "that one, and has no world coordinates");
    }
  }

  /// The plan for programs.
  void TellPlan() {
    job_.Tell(Dump({{"output", options_.output.string()},
                    {"frames", inputs_.size()},
                    {"reference", sources_.Used()[sources_.Reference()].path.string()},
                    {"left_out", LeftOut(sources_.LeftOut())},
                    {"bands", plan_.bands},
                    {"memory_bytes", plan_.totalBytes}}),
              "");
  }

  StackResult Work() {
    CheckOutputs();
    Journal journal(options_.output, Digest(), shape_, Images(), inputs_.size(),
                    options_.resume ? Journal::Kept : Journal::Passing);
    if (journal.WasOther()) {
      job_.Warn(fmt::format("{}.resume: made from other frames or options; beginning anew",
                            options_.output.string()));
    }
    std::optional<Overwriting> ours;
    if (journal.Rows() > 0) {
      job_.Say(fmt::format("going on at row {} of {}", journal.Rows(), shape_.height));
      // What is there under the final names was written by the run that these bands are of.
      ours.emplace(job_);
    }
    TryOutputs();
    try {
      if (journal.Rows() < shape_.height) {
        Measure();
        Stack(job_, inputs_, sources_.Reference(), stack_, journal.Rows(), [&](const StackBand& band) {
          Job::CheckComputed(options_.output);
          journal.Add(band);
        });
      }
      Save(journal);
    } catch (const Cancelled&) {
      if (!options_.resume) throw;
      throw Cancelled(fmt::format("cancelled at row {} of {}; the same call goes on from there",
                                  journal.Rows(), shape_.height));
    }
    journal.Remove();
    const StackResult result = Result();
    Tell(result);
    const size_t used = inputs_.size(), all = used + sources_.LeftOut().size();
    if (2 * used >= all) return result;
    job_.Fail(fmt::format("{}: holds {} of {} frames, less than half; the others are not ok in {}",
                          options_.output.string(), used, all, options_.transforms.string()));
    return result;
  }

 private:
  fs::path MapName(const char* end) const {
    fs::path name = options_.output.stem();
    name += end;
    name += options_.output.extension();
    return options_.output.parent_path() / name;
  }

  Journal::Images Images() const {
    Journal::Images images = {&StackBand::result};
    if (options_.maps) images.insert(images.end(), {&StackBand::low, &StackBand::high});
    if (options_.uncertainty) images.push_back(&StackBand::variance);
    if (options_.mask) images.push_back(&StackBand::mask);
    return images;
  }

  std::vector<fs::path> Outputs() const {
    if (!options_.maps) return {options_.output};
    return {options_.output, MapName("_low"), MapName("_high")};
  }

  void CheckOutputs() const {
    for (const fs::path& output : Outputs()) {
      for (const Source& source : sources_.Used()) {
        if (fs::weakly_canonical(output) == fs::weakly_canonical(source.path)) {
          throw files::FileError(output, "is one of the frames; choose another name");
        }
      }
      const bool mayGoOn = options_.resume && fs::exists(options_.output.string() + ".resume");
      if (!mayGoOn) job_.CheckOutput(output);
    }
  }

  /// Finds out before the work whether the outputs can be written.
  void TryOutputs() const {
    for (const fs::path& output : Outputs()) {
      NewSaver(output, files::Header(), Levels());
    }
  }

  std::unique_ptr<ImageSaver> NewSaver(const fs::path& path, const files::Header& header,
                                       const Levels& levels, const files::Scale& scale = {}) const {
    return std::make_unique<ImageSaver>(
        job_, path, shape_, levels, header,
        SaveOptions{.integers = options_.bits == "16" || IsPng(path),
                    .scale = scale,
                    .uncertainty = options_.uncertainty && path == options_.output,
                    .mask = options_.mask && path == options_.output});
  }

  /// All that the pixels of the result depend on.
  std::string Digest() const {
    Json json{{"korimg", Version()},
              {"stack", options_.Text()},
              {"maps", options_.maps},
              {"quality", {options_.uncertainty, options_.mask}},
              {"union", canvas_.has_value()},
              {"feather", stack_.feather},
              {"reference", sources_.Reference()},
              {"frames", Json::array()}};
    for (const Source& source : sources_.Used()) {
      const Transform& t = source.transform;
      json["frames"].push_back({fs::weakly_canonical(source.path).string(), files::StampOf(source.path), t.dx,
                                t.dy, t.degrees, t.fwhm.value_or(0), t.fluxRatio.value_or(0),
                                t.map ? ToJson(*t.map) : Json()});
    }
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
  }

  /// Brings the panels of a union to one light, and their skies together where they overlap.
  void MatchPanels() {
    const bool scales = stack_.normalisation == Normalisation::LevelAndScale;
    std::vector<double> factors;
    for (size_t i = 0; i < inputs_.size(); ++i) {
      sources_.FindBorder(i);
      factors.push_back(scales ? 1 / sources_.Used()[i].transform.fluxRatio.value_or(1) : 1);
    }
    const auto skies = MatchSkies(job_, inputs_, *canvas_, sources_.Reference(), factors);
    for (size_t i = 0; i < inputs_.size(); ++i) {
      TakeOff(skies[i], inputs_[i]);
    }
    stack_.normalisation = Normalisation::None;
  }

  /// Edges, levels and weights.
  void Measure() {
    const bool wantsLevels =
        stack_.normalisation != Normalisation::None || options_.weight == "noise" || stack_.clampUndershoot;
    struct Measured {
      std::string noData;
      FrameLevels levels;
    };
    if (canvas_ && stack_.normalisation != Normalisation::None) MatchPanels();
    SideBySide(
        job_, "measuring frame", inputs_.size(), 0,
        [&](size_t i) {
          const std::string noData = sources_.FindBorder(i).Text();
          return Measured{noData, wantsLevels ? MeasureInput(inputs_[i]) : FrameLevels()};
        },
        [&](size_t i, const auto& result) {
          job_.CheckCancelled();
          const Measured measured = result();
          inputs_[i].levels = measured.levels;
          if (sources_.HaveFluxes() && !canvas_) {
            const double ratio = sources_.Used()[i].transform.fluxRatio.value_or(1);
            std::fill(std::begin(inputs_[i].levels.spread), std::end(inputs_[i].levels.spread), ratio);
          }
          if (!measured.noData.empty()) {
            job_.Say(fmt::format("{}: {}", inputs_[i].name, measured.noData));
          }
        });
    if (wantsLevels) CheckScales(inputs_, sources_.Reference());
    Weigh();
  }

  void Weigh() {
    std::vector<double> fwhms;
    for (const Source& source : sources_.Used()) {
      fwhms.push_back(source.transform.fwhm.value_or(0));
    }
    options_.Weigh(inputs_, fwhms, sources_.Reference());
  }

  files::Header MakeHeader() const {
    const Source& reference = sources_.Used()[sources_.Reference()];
    files::Header start = reference.info.header;
    if (!reference.transform.IsNone() &&
        !files::DropWorldCoordinates(start, {shape_.width, shape_.height, shape_.planes},
                                     "no frame lies on this grid")) {
      throw files::FileError(reference.path, "is an undeveloped mosaic; develop it first");
    }
    if (canvas_) {
      const Shape& before = inputs_[sources_.Reference()].shape;
      if (!files::MoveHeader(start, {before.width, before.height, before.planes},
                             {shape_.width, shape_.height, shape_.planes},
                             files::AffineMap::Shift(-canvas_->left, -canvas_->top))) {
        throw files::FileError(reference.path, "is an undeveloped mosaic; develop it first");
      }
    }
    StackHeader header(std::move(start));
    for (size_t i = 0; i < inputs_.size(); ++i) {
      header.Add(sources_.Used()[i].info.header, inputs_[i].Weight(),
                 ScaleOf(inputs_[i].levels, inputs_[sources_.Reference()].levels, stack_.normalisation));
    }
    files::Header made = header.Make(stack_.normalisation == Normalisation::LevelAndScale);
    made.AddHistory(fmt::format("korimg {} stack {}{}", Version(), options_.Text(),
                                canvas_ ? fmt::format(" --frame union --feather {:g}", stack_.feather) : ""));
    const auto [low, high] = std::ranges::minmax(inputs_, {}, &StackInput::Weight);
    made.AddHistory(fmt::format("{} frames stacked, {} left out; weights {:.4g} to {:.4g}", inputs_.size(),
                                sources_.LeftOut().size(), low.Weight(), high.Weight()));
    for (const auto& [path, status] : sources_.LeftOut()) {
      made.AddHistory(fmt::format("left out: {} ({})", path.filename().string(), status));
    }
    CImgStack::Counts all;
    for (const CImgStack::Counts& counts : counts_) {
      all += counts;
    }
    if (options_.Rejects()) {
      const double values = static_cast<double>(std::max(all.values, 1LL));
      made.AddHistory(fmt::format("rejected as too low {}, as too high {} of the pixels",
                                  Percent(static_cast<double>(all.low) / values),
                                  Percent(static_cast<double>(all.high) / values)));
    }
    return made;
  }

  void Save(const Journal& journal) {
    counts_.assign(inputs_.size(), {});
    files::RangeOf16Bits range;
    journal.ForBands([&](const StackBand& band) {
      for (size_t i = 0; i < counts_.size(); ++i) {
        counts_[i] += band.counts[i];
      }
      if (options_.bits == "16" || IsPng(options_.output)) range.Add(band.result);
    });
    const auto sample = SampleInput(inputs_[sources_.Reference()]);
    SetLevels(*sample, sources_.Used()[sources_.Reference()].info, false);
    Levels countLevels;
    std::fill_n(countLevels.max, 3, static_cast<double>(inputs_.size()));
    const files::Header header = MakeHeader();
    std::vector<std::unique_ptr<ImageSaver>> savers;
    for (const fs::path& output : Outputs()) {
      savers.push_back(savers.empty() ? NewSaver(output, header, Levels(*sample), range.Get())
                                      : NewSaver(output, header, countLevels));
    }
    // Pictures are upright, as the sky is; FITS files lie as their frames do.
    const bool turns = !IsFits(options_.output) && files::IsPictureOverturned(header);
    journal.ForBands(
        [&](const StackBand& band) {
          job_.CheckCancelled();
          const Band<const float>* images[] = {&band.result, &band.low, &band.high};
          for (size_t i = 0; i < savers.size(); ++i) {
            turns ? WriteOverturned(*savers[i], *images[i]) : savers[i]->Write(*images[i]);
          }
          if (options_.uncertainty || options_.mask) savers.front()->WriteQuality(band.variance, band.mask);
        },
        turns);
    for (size_t i = savers.size(); i-- > 0;) {
      savers[i]->Commit();
    }
  }

  /// Writes rows, the last one first.
  static void WriteOverturned(ImageSaver& saver, const Band<const float>& rows) {
    for (int y = rows.Bottom() - 1; y >= rows.Top(); --y) {
      saver.Write(rows.Part(y, 1));
    }
  }

  StackResult Result() const {
    StackResult result{Outputs(), {}, sources_.LeftOut(), plan_.bands};
    for (size_t i = 0; i < inputs_.size(); ++i) {
      const CImgStack::Counts& counts = counts_[i];
      const double values = static_cast<double>(std::max(counts.values, 1LL));
      result.frames.push_back(
          {sources_.Used()[i].path, inputs_[i].Weight(), inputs_[i].Weights(),
           sources_.Used()[i].transform.fluxRatio,
           static_cast<double>(counts.values) / shape_.width / shape_.height / shape_.planes,
           static_cast<double>(counts.low) / values, static_cast<double>(counts.high) / values});
    }
    return result;
  }

  static Json LeftOut(const std::vector<std::pair<fs::path, std::string>>& frames) {
    Json leftOut = Json::array();
    for (const auto& [path, status] : frames) {
      leftOut.push_back({{"file", path.string()}, {"status", status}});
    }
    return leftOut;
  }

  void Tell(const StackResult& result) {
    Json frames = Json::array();
    for (const StackedFrame& frame : result.frames) {
      frames.push_back({{"file", frame.file.string()},
                        {"weight", frame.weight},
                        {"flux_ratio", frame.fluxRatio ? Json(*frame.fluxRatio) : Json()},
                        {"covers", frame.covers},
                        {"rejected_low", frame.rejectedLow},
                        {"rejected_high", frame.rejectedHigh}});
      if (frame.weights.size() > 1) frames.back()["weights"] = frame.weights;
      job_.Say(fmt::format(
          "{}: covers {}{}{}{}", frame.file.filename().string(), Percent(frame.covers),
          options_.Rejects() ? fmt::format(", rejected {} low, {} high", Percent(frame.rejectedLow),
                                           Percent(frame.rejectedHigh))
                             : "",
          options_.weight != "none" ? fmt::format(", weight {:.4g}", frame.weight) : "",
          frame.fluxRatio ? fmt::format(", light {:.3g} of the reference's", *frame.fluxRatio) : ""));
    }
    const long long peak = PeakMemory();
    job_.Tell(Dump({{"output", options_.output.string()},
                    {"frames", frames},
                    {"left_out", LeftOut(result.leftOut)},
                    {"bands", result.bands},
                    {"peak_memory_bytes", peak}}),
              fmt::format("stack {} -> {}; peak memory {} MiB", options_.Text(), options_.output.string(),
                          peak >> 20));
  }

  Job& job_;
  StackFilesOptions options_;
  Sources sources_;
  StackOptions stack_;
  StackPlan plan_;
  std::vector<StackInput> inputs_;
  std::vector<CImgStack::Counts> counts_;
  Shape shape_;
  std::optional<Canvas> canvas_;  ///< of a union
};

}  // namespace

StackResult StackFiles(Job& job, const StackFilesOptions& options) {
  return AtEdge([&] {
    StackRun run(job, options);
    run.Plan();
    return run.Work();
  });
}

void PlanStackFiles(Job& job, const StackFilesOptions& options) {
  AtEdge([&] {
    StackRun run(job, options);
    run.Plan();
    run.TellPlan();
  });
}

}  // namespace korimg::session
