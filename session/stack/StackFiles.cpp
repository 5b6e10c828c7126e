#include "session/stack/StackFiles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/Frames.h"
#include "session/develop/Develop.h"
#include "session/files/Formats.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/Mosaic.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/Overwriting.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "session/register/Register.h"
#include "session/register/internal/MapJson.h"
#include "session/stack/internal/Canvas.h"
#include "session/stack/internal/Journal.h"
#include "session/stack/internal/RejectedPixels.h"
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
  files::Mosaic mosaic = {};  ///< that is drizzled
  bool hasMask = false;       ///< beside its pixels
};

/// Rows of a mosaic in colour, on its own scale: what outliers are told by where its sites are drizzled.
void ReadDeveloped(const Job& job, files::ImageReader& reader, const files::Mosaic& mosaic,
                   const Band<float>& to) {
  // As many rows at once as make the margins of development small; chosen.
  constexpr int kAtOnce = 128;
  const auto store = job.MakeStore();
  files::ImageInfo info = reader.Info();
  const auto row = NewImage(store, info.width, 1, 1);
  SetLevels(*row, info, false);
  Development development(MosaicSource(reader, Levels(*row), store), info, mosaic, {}, {});
  for (int top = to.Top(); top < to.Bottom(); top += kAtOnce) {
    const Band<float> part = to.Part(top, std::min(kAtOnce, to.Bottom() - top));
    const auto rows = development.Rows(part.Top(), part.Bottom());
    CopyPixels(Image::RowsOf(*rows, 0, part.Rows(), true), part);
  }
}

/// Makes rows blank where the file's mask says that there is no data, as programs say it that keep the
/// values.
void BlankNoData(files::ImageReader& reader, const Band<float>& rows) {
  BandBuffer buffer;
  const Band<float> mask = buffer.Get(rows.Planes(), rows.Width(), rows.Top(), rows.Rows());
  QualityReader(reader).ReadRows({.mask = mask});
  for (int p = 0; p < rows.Planes(); ++p) {
    for (int y = rows.Top(); y < rows.Bottom(); ++y) {
      const auto bits = mask.Row(p, y);
      const auto row = rows.Row(p, y);
      for (int x = 0; x < rows.Width(); ++x) {
        if (static_cast<int>(bits[x]) & MaskBit::NoData) row[x] = std::numeric_limits<float>::quiet_NaN();
      }
    }
  }
}

/// The files of a stack. The first ones stay open; opening others anew for each band costs little, and there
/// may be more of them than a process may open.
class Sources {
 public:
  static constexpr size_t kMostOpen = 100;  ///< chosen

  Sources(Job& job, const StackFilesOptions& options) : job_(job), uncertainty_(options.uncertainty) {
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
        source.hasMask = QualityReader(*reader).HasMask();
        if (used_.size() < kMostOpen) source.reader = std::move(reader);
        used_.push_back(std::move(source));
      } catch (const files::FileError& error) {
        leftOut_.emplace_back(path, error.what());
      }
    }
    const bool isUnion = options.frame == StackFrame::Union;
    if (!isUnion &&
        options.normalise.value_or(Normalisation::LevelAndScale) == Normalisation::LevelAndScale &&
        HaveFluxes()) {
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
    for (Source& source : used_) {
      if (options.drizzle) source.mosaic = files::FindMosaic(source.info);
    }
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
    const auto read = [&source](const Band<float>& to) {
      WithReader(source, [&](auto& reader) {
        reader.ReadRows(to);
        if (source.hasMask) BlankNoData(reader, to);
      });
    };
    input.read = read;
    input.readQuality = [&source, read](const Band<float>& to, const QualityRows& quality) {
      read(to);
      if (source.quality) return source.quality->ReadRows(quality);
      auto reader = std::make_unique<QualityReader>(ReaderOf(source));
      reader->ReadRows(quality);
      if (source.reader) source.quality = std::move(reader);
    };
    if (uncertainty_) input.correlation = ReaderOf(source).CorrelationOfNoise();
    if (source.mosaic.cfa == 0) return input;
    input.shape.planes = 3;
    input.read = [&job = job_, &source](const Band<float>& to) {
      WithReader(source, [&](auto& reader) { ReadDeveloped(job, reader, source.mosaic, to); });
    };
    mosaics_.push_back({PlanesOfSites(source.mosaic.cfa), read});
    return input;
  }

  /// The mosaics of the inputs, where these are developed.
  const std::vector<MosaicSites>& Mosaics() const { return mosaics_; }

 private:
  inline static const files::ReadOptions kRead = {.manyOpen = true};

  template <class Use>
  static void WithReader(const Source& source, Use&& use) {
    source.reader ? use(*source.reader) : use(*OpenAgain(source));
  }

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
    const auto& map = source.transform.map;
    const files::ImageInfo& size = source.info;
    if (map &&
        !(map->FrameDistortion().IsNone() || map->FrameDistortion().IsSound(size.width, size.height))) {
      throw files::FileError(source.path, "has a map whose lens folds the frame; register it again");
    }
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
    const bool isMoved = !source.transform.IsNone() || options.drizzle;
    if (isMoved && source.mosaic.cfa == 0 && !files::FindMosaic(own).name.empty()) {
      throw files::FileError(source.path,
                             "is an undeveloped mosaic, whose colours moving would mix; develop it first, or "
                             "drizzle it (Bayer patterns and honeycombs)");
    }
    if ((source.mosaic.cfa == 0) != (used_[reference_].mosaic.cfa == 0)) {
      throw files::FileError(source.path,
                             "and the reference are a mosaic and none; drizzle frames of one kind");
    }
    if (options.uncertainty && !ReaderOf(source).HasUncertainty()) {
      throw files::FileError(source.path,
                             "holds no uncertainty (UNCERT); calibrate the frames with --uncertainty");
    }
    if (options.weight == FrameWeights::Fwhm && !source.transform.fwhm) {
      throw files::FileError(source.path, "has no fwhm in the transforms; use --weight noise or none");
    }
  }

  Job& job_;
  bool uncertainty_;
  std::vector<Source> used_;
  std::vector<MosaicSites> mosaics_;
  std::vector<std::pair<fs::path, std::string>> leftOut_;
  int reference_ = 0;
};

/// What goes with what, before any file is opened.
const StackFilesOptions& Checked(const StackFilesOptions& options) {
  StackChoices choices = options;
  choices.Settle(true);
  choices.Options();
  if (std::isnan(options.feather)) throw UsageError("--feather is no number of pixels");
  if (options.part || options.join != 0) {
    if (options.drizzle) {
      throw UsageError("--drizzle makes a stack at once; leave --part and --join out, or --drizzle");
    }
    if (options.resume || (options.part && options.join != 0)) {
      throw UsageError(
          "--part, --join and --resume do not go together; a part that is missing is made again");
    }
    const bool isNone =
        options.part && (options.part->number < 1 || options.part->number > options.part->parts);
    if (isNone || options.join < 0) throw UsageError("parts count from 1 on, as in --part 2/3 and --join 3");
  }
  const bool isPlain = options.frame == StackFrame::Reference && !(options.feather > 0);
  if (options.drizzle && (options.maps || options.uncertainty || options.mask || !isPlain)) {
    throw UsageError(
        "--drizzle makes a grid of the reference's frame, without --rejection-maps, --uncertainty, --mask, "
        "--frame union and --feather; leave these out");
  }
  return options;
}

class StackRun {
  static constexpr double kFeather = 0.1;  // of the shorter side of panels; chosen

 public:
  StackRun(Job& job, const StackFilesOptions& options)
      : job_(job), options_(Checked(options)), sources_(job, options) {
    options_.Settle(sources_.HaveFluxes());
    stack_ = options_.Options();
    stack_.rejectionMaps = options.maps;
    stack_.uncertainty = options.uncertainty;
    stack_.mask = options.mask;
    stack_.memory = DefaultStackMemory(job);
    for (size_t i = 0; i < sources_.Used().size(); ++i) {
      inputs_.push_back(sources_.Input(i));
    }
    shape_ = out_ = inputs_[sources_.Reference()].shape;
    if (options.frame == StackFrame::Union) {
      isStraightened_ = Straighten(inputs_);
      canvas_ = CanvasOf(inputs_, shape_);
      const double shorter = std::min(shape_.width, shape_.height), feather = options.feather;
      stack_.feather = feather < 0 ? kFeather * shorter : feather;
      LayOn(*canvas_, inputs_);
      stack_.shape = shape_ = out_ = canvas_->shape;
    } else if (options.feather > 0) {
      stack_.feather = options.feather;
    }
    if (!options_.drizzle) return;
    const CImgDrizzle grid = GridOf(inputs_[sources_.Reference()], *options_.drizzle);
    out_.width = grid.Width();
    out_.height = grid.Height();
  }

  void Plan() {
    plan_ = PlanStack(inputs_, shape_, stack_);
    bands_ = plan_.bands;
    const Source& reference = sources_.Used()[sources_.Reference()];
    job_.Say(fmt::format("{} frames of {} x {}{}, reference {}: {}", inputs_.size(), shape_.width,
                         shape_.height, shape_.planes > 1 ? " in colour" : "",
                         reference.path.filename().string(), plan_.Text()));
    if (options_.drizzle) {
      const DrizzlePlan plan = PlanDrizzle(ToDrizzle(), *options_.drizzle, stack_.memory);
      bands_ = plan.bands;
      job_.Say(fmt::format("{} x {}: {}", out_.width, out_.height, plan.Text()));
    }
    if (options_.part) {
      const auto [first, end] = RowsOf(*options_.part);
      job_.Say(fmt::format("part {} of {}: rows {} to {} -> {}", options_.part->number, options_.part->parts,
                           first, end - 1, PathOf(*options_.part).string()));
    }
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
                    {"bands", bands_},
                    {"memory_bytes", plan_.totalBytes}}),
              "");
  }

  StackResult Work() {
    CheckOutputs();
    if (options_.part) return MakePart(*options_.part);
    if (options_.join > 0) return Join();
    const Journal::Use use = options_.resume ? Journal::Kept : Journal::Passing;
    Journal journal(options_.output.string() + ".resume", Digest(), out_, Images(), inputs_.size(), use);
    if (options_.drizzle && options_.Rejects()) {
      rejected_.emplace(options_.output, Digest(), shape_, inputs_.size(), use);
    }
    if (journal.WasOther()) {
      job_.Warn(fmt::format("{}.resume: made from other frames or options; beginning anew",
                            options_.output.string()));
    }
    std::optional<Overwriting> ours;
    if (journal.NextRow() > 0) {
      job_.Say(fmt::format("going on at row {} of {}", journal.NextRow(), out_.height));
      // What is there under the final names was written by the run that these bands are of.
      ours.emplace(job_);
    }
    TryOutputs();
    try {
      Measure();
      if (journal.NextRow() < out_.height) {
        const auto keep = [&](const StackBand& band) {
          job_.CheckComputed(options_.output);
          journal.Add(band);
        };
        if (options_.drizzle) {
          if (rejected_) FindRejected(job_, inputs_, sources_.Reference(), stack_, *rejected_);
          Drizzle(job_, ToDrizzle(), *options_.drizzle, stack_.memory, journal.NextRow(), keep);
        } else {
          Stack(job_, inputs_, sources_.Reference(), stack_, {journal.NextRow()}, keep);
        }
      }
      Save({&journal, 1});
    } catch (const Cancelled&) {
      if (!options_.resume) throw;
      throw Cancelled(fmt::format("cancelled at row {} of {}; the same call goes on from there",
                                  journal.NextRow(), out_.height));
    }
    journal.Remove();
    if (rejected_) rejected_->Remove();
    return Finish();
  }

 private:
  StackResult Finish() {
    const StackResult result = Result();
    Tell(result);
    const size_t used = inputs_.size(), all = used + sources_.LeftOut().size();
    if (2 * used >= all) return result;
    job_.Fail(fmt::format("{}: holds {} of {} frames, less than half; the others are not ok in {}",
                          options_.output.string(), used, all, options_.transforms.string()));
    return result;
  }

  StackRows RowsOf(const StackPart& part) const {
    return StackRows::Part(part.number, part.parts, out_.height);
  }
  fs::path PathOf(const StackPart& part) const {
    return options_.output.string() + fmt::format(".part-{}-of-{}", part.number, part.parts);
  }
  Journal OpenPart(const StackPart& part) const {
    return {PathOf(part), Digest(), out_, Images(), inputs_.size(), Journal::Finished, RowsOf(part)};
  }

  StackResult MakePart(const StackPart& part) {
    const fs::path path = PathOf(part);
    const StackRows rows = RowsOf(part);
    const Json told{{"part", path.string()}, {"first_row", rows.first}, {"rows", rows.end - rows.first}};
    if (fs::exists(path)) {
      const Journal found = OpenPart(part);
      if (found.IsWhole()) {
        job_.Tell(Dump(told), fmt::format("{}: is there already", path.string()));
        return {{path}};
      }
      if (found.WasOther()) job_.CheckOutput(path);
    }
    Measure();
    Journal made(files::UniquePartialName(path), Digest(), out_, Images(), inputs_.size(), Journal::Passing,
                 rows);
    Stack(job_, inputs_, sources_.Reference(), stack_, rows, [&](const StackBand& band) {
      job_.CheckComputed(path);
      made.Add(band);
    });
    made.KeepAs(path);
    job_.Tell(Dump(told),
              fmt::format("rows {} to {} of {} -> {}", rows.first, rows.end - 1, out_.height, path.string()));
    return {{path}};
  }

  StackResult Join() {
    std::vector<Journal> parts;
    for (StackPart part{1, options_.join}; part.number <= part.parts; ++part.number) {
      const auto refuse = [&](const char* wrong) {
        throw files::FileError(PathOf(part),
                               fmt::format("{}; make it by the same call with --part {}/{} in place "
                                           "of --join {}",
                                           wrong, part.number, part.parts, part.parts));
      };
      if (!fs::exists(PathOf(part))) refuse("is missing");
      parts.push_back(OpenPart(part));
      if (parts.back().WasOther()) refuse("is of other frames or options");
      if (!parts.back().IsWhole()) refuse("is damaged");
    }
    TryOutputs();
    Measure();
    Save(parts);
    for (StackPart part{1, options_.join}; part.number <= part.parts; ++part.number) {
      fs::remove(PathOf(part));
    }
    RemoveHalfParts();
    return Finish();
  }

  /// What was killed left some: they have names of their own.
  void RemoveHalfParts() const {
    const std::string start = options_.output.filename().string() + ".part-";
    for (const auto& entry : fs::directory_iterator(fs::absolute(options_.output).parent_path())) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with(start) && name.ends_with(".part")) fs::remove(entry.path());
    }
  }

  fs::path MapName(const char* end) const {
    fs::path name = options_.output.stem();
    name += end;
    name += options_.output.extension();
    return options_.output.parent_path() / name;
  }

  Journal::Images Images() const {
    if (options_.drizzle) return {&StackBand::result, &StackBand::weights};
    Journal::Images images = {&StackBand::result};
    if (options_.maps) images.insert(images.end(), {&StackBand::low, &StackBand::high});
    if (options_.uncertainty) images.push_back(&StackBand::variance);
    if (options_.mask) images.push_back(&StackBand::mask);
    return images;
  }

  DrizzleFrames ToDrizzle() const {
    return {inputs_, sources_.Reference(), stack_.normalisation, sources_.Mosaics(),
            rejected_ ? &*rejected_ : nullptr};
  }

  std::vector<fs::path> Outputs() const {
    if (options_.drizzle) return {options_.output, MapName("_weights")};
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
    const bool isWeights = options_.drizzle && path != options_.output;
    return std::make_unique<ImageSaver>(
        job_, path, out_, levels, header,
        SaveOptions{.integers = (options_.integers && !isWeights) || IsPng(path),
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
    const bool wantsLevels = options_.WantsLevels();
    struct Measured {
      std::string noData;
      FrameLevels levels;
    };
    if (canvas_ && stack_.normalisation != Normalisation::None) MatchPanels();
    SideBySide(
        job_, "measuring frame", inputs_.size(), 0,
        [&](size_t i) {
          const std::string noData = sources_.FindBorder(i).Text();
          return Measured{noData, wantsLevels ? MeasureInput(job_, inputs_[i]) : FrameLevels()};
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
    if (options_.drizzle) files::RemoveMosaic(start);
    if (!reference.transform.IsNone() &&
        !files::DropWorldCoordinates(start, {shape_.width, shape_.height, shape_.planes},
                                     "no frame lies on this grid")) {
      throw files::FileError(reference.path, "is an undeveloped mosaic; develop it first");
    }
    if (isStraightened_) files::DropSip(start, "its grid is that of a lens without distortion");
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
    if (options_.drizzle) {
      ToGrid(made, shape_, *options_.drizzle);
      // Each colour got its part of the light alone.
      if (!sources_.Mosaics().empty()) files::DropGain(made);
    }
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

  /// Calls visit for the bands of all parts, in order, or from the lowest up.
  static void ForBands(std::span<const Journal> parts, const std::function<void(const StackBand&)>& visit,
                       bool fromLowest = false) {
    for (size_t i = 0; i < parts.size(); ++i) {
      parts[fromLowest ? parts.size() - 1 - i : i].ForBands(visit, fromLowest);
    }
  }

  void Save(std::span<const Journal> parts) {
    counts_.assign(inputs_.size(), {});
    files::RangeOf16Bits range;
    std::optional<WeightSpread> spread;
    if (options_.drizzle) spread.emplace(inputs_, sources_.Reference(), *options_.drizzle);
    ForBands(parts, [&](const StackBand& band) {
      if (spread) spread->Add(band.weights);
      for (size_t i = 0; i < counts_.size(); ++i) {
        counts_[i] += band.counts[i];
      }
      if (options_.integers || IsPng(options_.output)) range.Add(band.result);
    });
    if (rejected_) counts_ = rejected_->Counts();
    if (spread) spread_ = spread->Get();
    const auto sample = SampleInput(job_, inputs_[sources_.Reference()]);
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
    const Journal::Images images = Images();
    ForBands(
        parts,
        [&](const StackBand& band) {
          job_.CheckCancelled();
          for (size_t i = 0; i < savers.size(); ++i) {
            const Band<const float>& image = band.*images[i];
            turns ? WriteOverturned(*savers[i], image) : savers[i]->Write(image);
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
    StackResult result{Outputs(), {}, sources_.LeftOut(), bands_};
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
          options_.weight != FrameWeights::None ? fmt::format(", weight {:.4g}", frame.weight) : "",
          frame.fluxRatio ? fmt::format(", light {:.3g} of the reference's", *frame.fluxRatio) : ""));
    }
    Json json{{"output", options_.output.string()},
              {"frames", frames},
              {"left_out", LeftOut(result.leftOut)},
              {"bands", result.bands}};
    if (options_.drizzle) {
      json["weights"] = Outputs()[1].string();
      TellDrizzle(job_, *options_.drizzle, spread_, json);
    }
    const long long peak = PeakMemory();
    json["peak_memory_bytes"] = peak;
    job_.Tell(Dump(json), fmt::format("stack {} -> {}; peak memory {} MiB", options_.Text(),
                                      options_.output.string(), peak >> 20));
  }

  Job& job_;
  StackFilesOptions options_;
  Sources sources_;
  StackOptions stack_;
  StackPlan plan_;
  int bands_ = 0;
  std::optional<RejectedPixels> rejected_;  ///< what is not drizzled
  std::optional<double> spread_;            ///< of the weights of what is
  std::vector<StackInput> inputs_;
  std::vector<CImgStack::Counts> counts_;
  Shape shape_, out_;             ///< of the grid that frames lie on, and of the result
  std::optional<Canvas> canvas_;  ///< of a union
  bool isStraightened_ = false;   ///< it is that of a lens without distortion
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
