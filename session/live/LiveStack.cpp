#include "session/live/LiveStack.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <numeric>
#include <tuple>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/FindSession.h"
#include "session/calibrate/internal/FrameUse.h"
#include "session/calibrate/internal/LightRows.h"
#include "session/job/internal/Edge.h"
#include "session/live/internal/RunningMean.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/FrameBounds.h"
#include "session/stack/internal/StackHeader.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

constexpr int kFewestStars = 5;     // of a reference, chosen: fewer lie on any other few
constexpr int kPreviewSide = 1400;  // pixels that levels are found by; chosen

/// A frame is left out, and why.
struct LeftOut {
  std::string reason;
};

/// The folder of ready masters; none where calibration frames are named.
fs::path ReadyMasters(const CalibrateOptions& options) {
  const bool areNamed = !options.darks.empty() || !options.flats.empty() || !options.biases.empty();
  return areNamed ? fs::path() : options.masters;
}

void FindMasters(Job& job, CalibrateOptions& options) {
  const fs::path ready = ReadyMasters(options);
  if (ready.empty()) return;
  SessionFrames found = FindReady(job, ready);
  options.darks = std::move(found.darks);
  options.flats = std::move(found.flats);
  options.biases = std::move(found.biases);
  options.masters.clear();
}

std::string SizeText(const Shape& shape) {
  return fmt::format("{} x {} x {}", shape.width, shape.height, shape.planes);
}

/// A calibrated frame, and what is known of it.
struct Measured {
  std::shared_ptr<CVelImage> image;
  Shape shape;
  FrameMeasure measure;
  FrameLevels levels;
  files::ImageInfo info;  ///< as the file has it
  files::Header header;   ///< with what was done to it

  Measured(std::shared_ptr<CVelImage> pixels, const files::ImageInfo& found)
      : image(std::move(pixels)),
        shape{image->GetWidth(), image->GetHeight(), image->GetPlanes()},
        measure(MeasureFrame(*image)),
        levels(MeasureLevels(*image)),
        info(found),
        header(found.header) {
    std::fill(std::begin(levels.spread), std::end(levels.spread), 1.0);  // of its light, by that of its stars
  }
};

/// A frame as the mean takes it.
struct Laid {
  std::unique_ptr<CVelImage> image;
  RunningMean::PlaneValues weights{}, noise{};
  files::Header header;
  double scale;  ///< that its light was multiplied by
};

}  // namespace

class LiveStack::Impl {
 public:
  Impl(Job& job, LiveOptions options) : job_(job), options_(std::move(options)), store_(job.MakeStore()) {
    if (!(options_.kappa > 0)) throw UsageError("kappa has to be a number of deviations above 0");
    CalibrateOptions& calibrate = options_.calibrate;
    if (calibrate.keepMosaic)
      throw UsageError("mosaics are developed before they are stacked; do not keep them");
    FindMasters(job_, calibrate);
    calibrate.mastersAreLibrary = true;
    calibrate.misfitsMayBeMissing = true;
    calibrate.maps = false;
    calibrate.quality = {};
    if (!options_.reference.empty()) OpenReference();
  }

  LiveFrame Add(const fs::path& file) {
    job_.CheckCancelled();
    job_.ForgetFailures();  // of frames that were left out for them
    const auto start = std::chrono::steady_clock::now();
    LiveFrame frame{file};
    std::optional<Laid> laid;
    try {
      laid = Work(frame);
    } catch (const LeftOut& left) {
      frame.status = left.reason;
    } catch (const files::FileError& error) {
      if (error.Subject() != file.string()) throw;  // of calibration frames
      frame.status = error.Reason();
      laid.reset();
    }
    if (job_.HasMiscomputed()) {
      frame.status = "part of its computation failed, most likely for want of memory";
      laid.reset();
      session_.reset();  // its masters may be wrong too
    }
    if (!reference_ && session_ && session_->Lights().front().mosaic.cfa > 0) {
      session_.reset();  // its white balance is that of a bad frame
    }
    job_.CheckCancelled();
    const std::lock_guard lock(mutex_);
    if (laid) Count(std::move(*laid), frame);
    frame.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    frames_.push_back(frame);
    return frame;
  }

  std::optional<Image> Snapshot() const {
    std::unique_lock lock(mutex_);
    if (!mean_ || mean_->IsEmpty()) return std::nullopt;
    auto pixels = mean_->Mean();
    files::ImageInfo info = grid_;
    info.header = header_->Make(true);
    lock.unlock();
    info.header.AddHistory(
        fmt::format("korimg {} live stack: a running mean, weighted by noise; what lay more "
                    "than {:g} deviations from the mean before it was rejected",
                    Version(), options_.kappa));
    LevelForPreview(*pixels, kPreviewSide);
    return Image(std::move(pixels), std::move(info));
  }

  std::vector<LiveFrame> Frames() const {
    const std::lock_guard lock(mutex_);
    return frames_;
  }

 private:
  /// What frames that are added up have in common.
  struct Kind {
    std::string camera, mosaic, filter;
  };

  void OpenReference() {
    Image opened = Image::Open(job_, store_, options_.reference);
    Measured reference(std::move(opened.Pointer()), opened.Info());
    if (reference.measure.starCount < kFewestStars) {
      throw files::FileError(options_.reference, "cannot be the reference: hardly any stars are found in it");
    }
    job_.CheckComputed(options_.reference);
    SetReference(std::move(reference));
  }

  void SetReference(Measured reference) {
    const std::lock_guard lock(mutex_);
    reference_.emplace(std::move(reference));
    const Shape& shape = reference_->shape;
    const auto& sky = reference_->levels.level;
    mean_.emplace(store_, shape, options_.kappa, RunningMean::PlaneValues{sky[0], sky[1], sky[2]});
    header_.emplace(reference_->header);
    grid_.path = reference_->info.path;
    std::tie(grid_.width, grid_.height, grid_.planes) = std::tie(shape.width, shape.height, shape.planes);
    grid_.format = "FITS";
    grid_.type = "float32";
  }

  /// The light, with all that serves it.
  const Light& Serve(const fs::path& file) {
    if (session_ && session_->Exchange(file)) return session_->Lights().front();
    session_.reset();
    options_.calibrate.lights = {file};
    auto session = std::make_unique<Session>(job_, options_.calibrate);
    if (session->Lights().empty()) throw LeftOut{session->Failed().front().reason};
    session->Prepare();
    session_ = std::move(session);
    return session_->Lights().front();
  }

  Measured Measure(const fs::path& file, std::string& masters) {
    const Light& light = Serve(file);
    for (const Group* group : {light.dark, light.bias, light.flat}) {
      if (group) masters += (masters.empty() ? "" : ", ") + group->name;
    }
    LightRows rows(*session_, light);
    auto pixels = LoadWhole(rows, store_);
    job_.CheckCancelled();
    Measured measured(std::move(pixels), light.frame.info);
    measured.header = rows.Info().header;
    session_->Describe(measured.header, light, rows.Clipped());
    return measured;
  }

  void CheckStars(const FrameMeasure& measure) const {
    if (measure.starCount == 0) throw LeftOut{"no stars"};
    if (!reference_ && measure.starCount < kFewestStars) {
      throw LeftOut{fmt::format("{} stars are too few for the first frame", measure.starCount)};
    }
    std::vector<SeenStars> seen;
    for (const LiveFrame& frame : frames_) {
      if (frame.stars > 0) seen.emplace_back(frame.stars, frame.fwhm, frame.elongation);
    }
    const FrameBounds bounds(options_.limits, seen);
    if (bounds.starry < FrameBounds::kTelling) return;
    if (const std::string bad = bounds.WhyBad(measure); !bad.empty()) throw LeftOut{bad};
  }

  /// Refuses what cannot be added to the frames before it.
  void CheckLikeness(const fs::path& file, const Measured& frame, const Kind& kind) const {
    if (reference_) {
      const Shape &own = frame.shape, &wanted = reference_->shape;
      if (own.width != wanted.width || own.height != wanted.height || own.planes != wanted.planes) {
        throw LeftOut{fmt::format("is {}, the reference {}", SizeText(own), SizeText(wanted))};
      }
    }
    if (!kind_) return;
    for (const auto& [what, own, wanted] : {std::tuple("camera", &kind.camera, &kind_->camera),
                                            {"mosaic", &kind.mosaic, &kind_->mosaic},
                                            {"filter", &kind.filter, &kind_->filter}}) {
      if (*own != *wanted) {
        throw LeftOut{fmt::format("is of the {} '{}', the frames before it of '{}'", what, *own, *wanted)};
      }
    }
    const auto same = digests_.find(frame.measure.digest);
    if (!options_.countCopies && same != digests_.end()) {
      throw LeftOut{same->second == file ? "was written anew with the pixels that it had"
                                         : "is a copy of " + same->second.filename().string()};
    }
  }

  Registration Register(const fs::path& file, const Measured& frame) {
    const FramesToLay toLay{{file}, {frame.measure}, [&](size_t) { return frame.image; }};
    const auto reference = [this] { return reference_->image; };
    LaidFrames laid = LayFrames(job_, toLay, reference_->measure, reference, options_.lay);
    Registration& registration = laid.registrations.front();
    if (!registration.IsGood()) throw LeftOut{"not registered: " + registration.Text()};
    if (isLightCompared_ && !registration.fluxRatio) {
      throw LeftOut{"no star to compare its light with the reference's by"};
    }
    return std::move(registration);
  }

  /// The frame on the reference's grid, brought to its sky and light.
  Laid Lay(const fs::path& file, Measured& frame, const Registration& registration) const {
    const double ratio = registration.fluxRatio.value_or(1);
    std::fill(std::begin(frame.levels.spread), std::end(frame.levels.spread), ratio);
    const StackOptions how{.normalisation = Normalisation::LevelAndScale, .kernel = options_.kernel};
    const FrameLevels& to = reference_->levels;
    StackInput input{file.string(), frame.shape, registration.dx, registration.dy, registration.degrees};
    input.map = registration.map;
    input.levels = frame.levels;
    StackInput reference{reference_->info.path.string(), reference_->shape};
    reference.levels = to;
    const std::vector<StackInput> both{reference, input};
    CheckScales(both, 0);
    const auto weights = NoiseWeights(both, 0, how.normalisation);
    Laid laid{NewImage(store_, frame.shape.width, frame.shape.height, frame.shape.planes)};
    for (int p = 0; p < 3; ++p) {
      laid.weights[p] = weights[1][p] / weights[0][p];
      laid.noise[p] = frame.levels.noise[p] * ScaleOf(frame.levels, to, how.normalisation, p);
    }
    laid.scale = 1 / ratio;
    LayInput(input, *frame.image, to, how, *laid.image);
    return laid;
  }

  /// @throws LeftOut, FileError
  Laid Work(LiveFrame& told) {
    const fs::path& file = told.file;
    if (const std::string why = WhyNoLight(file); !why.empty()) throw LeftOut{why};
    Measured frame = Measure(file, told.masters);
    job_.CheckComputed(file);
    const FrameMeasure& measure = frame.measure;
    told.fwhm = measure.fwhm;
    told.elongation = measure.elongation;
    told.sky = measure.sky;
    told.noise = measure.noise;
    const Light& light = session_->Lights().front();
    const files::Header own = light.frame.info.header;
    const Kind kind{own.GetString("INSTRUME").value_or(""), light.mosaic.name, FilterOf(own)};
    CheckLikeness(file, frame, kind);
    told.stars = measure.starCount;
    CheckStars(measure);
    if (!reference_) SetReference(frame);
    const bool isReference = reference_->image == frame.image;
    Registration registration = isReference ? ReferenceRegistration(measure) : Register(file, frame);
    if (isReference) registration.fluxRatio = 1;
    Laid laid = Lay(file, frame, registration);
    job_.CheckComputed(file);
    laid.header = own;
    told.dx = registration.dx;
    told.dy = registration.dy;
    told.degrees = registration.degrees;
    told.fluxRatio = registration.fluxRatio;
    if (!kind_ && light.mosaic.cfa > 0) {
      // Sessions of lights that come later develop them with the same colours.
      options_.calibrate.develop.whiteBalance = {WhiteBalanceChoice::Gains, session_->BalanceOf(light).gains};
    }
    kind_ = kind;
    isLightCompared_ |= !isReference && registration.fluxRatio.has_value();
    digests_.emplace(measure.digest, file);
    return laid;
  }

  void Count(Laid laid, LiveFrame& frame) {
    frame.isAdded = true;
    frame.status = "added";
    const int planes = laid.image->GetPlanes();
    frame.weight = std::accumulate(laid.weights.begin(), laid.weights.begin() + planes, 0.0) / planes;
    header_->Add(laid.header, frame.weight, laid.scale);
    const std::vector<double> rejected = mean_->Add(std::move(laid.image), laid.weights, laid.noise);
    unjudged_.push_back(frames_.size());
    if (rejected.empty()) return;
    frame.rejected = rejected.back();
    for (size_t i = 0; i + 1 < rejected.size(); ++i) {
      frames_[unjudged_[i]].rejected = rejected[i];
    }
    unjudged_.clear();
  }

  Job& job_;
  LiveOptions options_;
  std::shared_ptr<CVmManager> store_;  // ends after its images
  std::unique_ptr<Session> session_;
  std::optional<Measured> reference_;
  std::optional<Kind> kind_;
  bool isLightCompared_ = false;               ///< a frame was brought to the reference's light
  std::map<std::uint64_t, fs::path> digests_;  ///< of the pixels of frames that were added

  mutable std::mutex mutex_;  ///< of what follows, which only Add changes
  files::ImageInfo grid_;     ///< of the mean, but for the header
  std::optional<StackHeader> header_;
  std::optional<RunningMean> mean_;
  std::vector<LiveFrame> frames_;
  std::vector<size_t> unjudged_;  ///< numbers of the frames added last whose values were not judged
};

LiveStack::LiveStack(Job& job, LiveOptions options)
    : impl_(AtEdge([&] { return std::make_unique<Impl>(job, std::move(options)); })) {}

LiveStack::~LiveStack() = default;

LiveFrame LiveStack::Add(const fs::path& file) {
  return AtEdge([&] { return impl_->Add(file); });
}

std::optional<Image> LiveStack::Snapshot() const {
  return AtEdge([&] { return impl_->Snapshot(); });
}

std::vector<LiveFrame> LiveStack::Frames() const {
  return impl_->Frames();
}

RunOptions ProperRun(Job& job, const fs::path& folder, const fs::path& out, const LiveOptions& options) {
  return AtEdge([&] {
    const CalibrateOptions& live = options.calibrate;
    const fs::path ready = ReadyMasters(live);
    RunOptions run;
    run.calibrate = live;
    run.calibrate.out = out;
    if (!ready.empty()) run.calibrate.masters.clear();
    TakeSession(job, folder, run.calibrate, ready);
    for (const auto& [own, from] : {std::pair(&run.calibrate.darks, &live.darks),
                                    {&run.calibrate.flats, &live.flats},
                                    {&run.calibrate.biases, &live.biases}}) {
      if (own->empty()) *own = *from;
    }
    run.reference = options.reference;
    run.limits = options.limits;
    run.lay = options.lay;
    return run;
  });
}

}  // namespace korimg::session
