#include "session/run/internal/Registering.h"

#include <algorithm>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/LightRows.h"
#include "session/files/Formats.h"
#include "session/register/LensLibrary.h"
#include "session/run/internal/FrameBounds.h"
#include "session/run/internal/Kept.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// A lens, to tell it from others; empty for none.
std::string TextOf(const std::optional<CLensDistortion>& lens) {
  return lens ? ToJson(*lens).dump() : "";
}

/// Holds the frames that are laid, and on what.
struct Laying {
  std::vector<size_t> numbers;
  std::shared_ptr<CVelImage> whole;  ///< of a reference that is none of them
  std::string digest;                ///< of all that they lie by, but for the lens
  std::string camera;                ///< and lens
};

/// Tells where lenses are kept: what is known of them lies beside the masters.
fs::path LensesOf(const RunContext& run) {
  const fs::path& masters = run.options.calibrate.masters;
  return (masters.empty() ? run.options.calibrate.out : masters) / "lenses.json";
}

/// Answers the number of the light in a file.
std::optional<size_t> FindLight(const RunContext& run, const fs::path& canonical) {
  for (size_t i = 0; i < run.frames.size(); ++i) {
    if (fs::weakly_canonical(run.frames[i].light->frame.path) == canonical) return i;
  }
  return std::nullopt;
}

/// Takes the light that is asked for as the reference, or an image that is none of them. Answers such a
/// one.
std::shared_ptr<CVelImage> FindReference(RunContext& run) {
  const fs::path wanted = fs::weakly_canonical(run.options.reference);
  if (const auto number = FindLight(run, wanted)) {
    if (!run.frames[*number].IsUsed())
      throw files::FileError(run.options.reference, "cannot be the reference: it cannot be used");
    run.reference = *number;
    return nullptr;
  }
  const auto store = run.job.MakeStore();
  Image opened = Image::Open(run.job, store, run.options.reference);
  // As in LoadWhole.
  auto image = std::shared_ptr<CVelImage>(opened.Pointer().release(), [store](CVelImage* p) { delete p; });
  run.fixed.emplace();
  run.fixed->error.clear();
  run.fixed->digest = fmt::format("{} {}", wanted.string(), files::StampOf(wanted));
  run.fixed->shape = {image->GetWidth(), image->GetHeight(), image->GetPlanes()};
  run.fixed->measure = MeasureFrame(*image);
  if (run.fixed->measure.starCount == 0) {
    throw files::FileError(run.options.reference, "cannot be the reference: no stars are found in it");
  }
  return image;
}

Laying BeginLaying(RunContext& run) {
  Laying laying;
  for (size_t i = 0; i < run.frames.size(); ++i) {
    if (run.frames[i].IsUsed()) laying.numbers.push_back(i);
  }
  if (laying.numbers.empty()) throw files::FileError(run.options.calibrate.out, "no light could be read");
  run.reference = laying.numbers.front();
  if (!run.options.reference.empty()) laying.whole = FindReference(run);
  KeptJson made{{"korimg", Version()},
                {"model", NameOf(kFrameModels, run.options.lay.model)},
                {"residual", run.options.lay.residual},
                {"reference", run.options.reference.empty() ? "" : run.Grid().digest}};
  for (const size_t i : laying.numbers) {
    made["frames"].push_back(run.frames[i].digest);
  }
  laying.digest = made.dump();
  const files::ImageInfo& first = run.frames[laying.numbers.front()].light->frame.info;
  laying.camera = LensLibrary::KeyOf(first.header, first.width, first.height);
  return laying;
}

/// How the frames were laid before, if it was by the same lens, or is what this one was learnt from. The lens
/// is there where it has not been written.
std::optional<LaidFrames> FindLaid(const RunContext& run, const Laying& laying) {
  const auto kept = run.state->Find("registration", laying.digest);
  if (!kept) return std::nullopt;
  const std::string now = TextOf(LensLibrary(LensesOf(run)).Find(laying.camera)), learnt = kept->at("learnt");
  if (now != kept->at("lens") && now != learnt) return std::nullopt;
  LaidFrames laid{std::nullopt, kept->at("frames").get<std::vector<Registration>>(),
                  kept->at("model").get<std::string>(), std::nullopt};
  if (kept->contains("reference")) laid.reference = kept->at("reference").get<size_t>();
  if (!learnt.empty() && now != learnt) laid.lens = LensFromJson(KeptJson::parse(learnt));
  for (size_t k = 0; k < laying.numbers.size(); ++k) {
    laid.registrations[k].file = run.frames[laying.numbers[k]].light->frame.path.string();
  }
  return laid;
}

LaidFrames Lay(RunContext& run, const Laying& laying) {
  FramesToLay toLay{.bytes = run.BytesOfFrame(), .mayBeMissing = true};
  for (const size_t i : laying.numbers) {
    toLay.files.push_back(run.frames[i].light->frame.path);
    toLay.measures.push_back(run.frames[i].measure);
  }
  toLay.image = [&](size_t k) {
    const RunLight& frame = run.frames[laying.numbers[k]];
    LightRows rows(run.session, *frame.light, frame.border);
    return LoadWhole(rows, run.job.MakeStore());
  };
  LayOptions how = run.options.lay;
  how.lens = LensLibrary(LensesOf(run)).Find(laying.camera);
  LaidFrames laid;
  if (laying.whole) {
    laid = LayFrames(
        run.job, toLay, run.fixed->measure, [&] { return laying.whole; }, how);
  } else {
    std::optional<size_t> number;
    if (!run.options.reference.empty()) {
      number = std::ranges::find(laying.numbers, run.reference) - laying.numbers.begin();
    }
    laid = LayFrames(run.job, toLay, number, how);
  }
  // Before the lens: who goes on after it was learnt must not lay the frames by it once more.
  KeptJson kept{{"lens", TextOf(how.lens)},
                {"learnt", TextOf(laid.lens)},
                {"model", laid.model},
                {"frames", laid.registrations}};
  if (laid.reference) kept["reference"] = *laid.reference;
  run.state->Keep("registration", laying.digest, std::move(kept));
  return laid;
}

void Apply(RunContext& run, const Laying& laying, const LaidFrames& laid) {
  if (laid.reference) run.reference = laying.numbers[*laid.reference];
  const std::vector<Registration>& registrations = laid.registrations;
  const bool lightIsCompared = std::any_of(registrations.begin(), registrations.end(),
                                           [](const Registration& r) { return r.fluxRatio.has_value(); });
  for (size_t k = 0; k < laying.numbers.size(); ++k) {
    RunLight& frame = run.frames[laying.numbers[k]];
    frame.registration = registrations[k];
    // Frames are brought to the reference by their sky and by the light of their stars.
    if (run.options.stack.normalise == Normalisation::LevelAndScale && lightIsCompared &&
        frame.registration.IsGood() && !frame.registration.fluxRatio) {
      run.LeaveOut(frame, kNoCommonLight);
    }
    std::fill(std::begin(frame.levels.spread), std::end(frame.levels.spread),
              frame.registration.fluxRatio.value_or(1));
  }
  const RunLight& reference = run.Grid();
  run.Plan(fmt::format("reference: {}, {} stars, FWHM {:.2f} px", run.GridName(), reference.measure.starCount,
                       reference.measure.fwhm));
  if (!laid.model.empty()) run.Plan("laid by: " + laid.model);
}

/// Limits compare frames with each other: spoiled alike, they pass.
void TellLimitsThatSayLittle(RunContext& run, const RunTarget& target, size_t frames, size_t starry) {
  constexpr size_t kTelling = FrameBounds::kTelling;
  const FrameLimits& limits = run.options.limits;
  const bool hasLimits = limits.stars > 0 || limits.fwhm > 0 || limits.elongation > 0;
  if (frames == 0 || !hasLimits || starry >= kTelling) return;
  const std::string line = fmt::format(
      "{}: frames are told to be bad by the median of their like, and {}; look at them, whether clouds, "
      "focus or trails spoiled them",
      target.name,
      frames < kTelling
          ? fmt::format("there {} only {}", frames == 1 ? "is" : "are", frames)
          : fmt::format("only {} of {} have the stars for FWHM and elongation", starry, frames));
  run.report.plan.push_back(line);
  run.job.Warn(line);
}

}  // namespace

FrameBounds::FrameBounds(const FrameLimits& limits, const std::vector<SeenStars>& frames) {
  std::vector<double> counts, fwhms, elongations;
  for (const SeenStars& frame : frames) {
    counts.push_back(frame.count);
    if (frame.count < kEnough) continue;
    fwhms.push_back(frame.fwhm);
    elongations.push_back(frame.elongation);
  }
  const double usual = UpperMedian(counts);
  fewest = usual < kEnough ? 0 : limits.stars * usual;
  widest = limits.fwhm * UpperMedian(fwhms);
  longest = limits.elongation * UpperMedian(elongations);
  starry = fwhms.size();
}

std::string FrameBounds::WhyBad(const SeenStars& frame) const {
  const bool tells = frame.count >= kEnough;
  if (frame.count < fewest) return fmt::format("{} stars, fewer than {:.0f}", frame.count, fewest);
  if (tells && widest > 0 && frame.fwhm > widest) {
    return fmt::format("FWHM {:.2f} px, above {:.2f}", frame.fwhm, widest);
  }
  if (tells && longest > 0 && frame.elongation > longest) {
    return fmt::format("elongation {:.2f}, above {:.2f}", frame.elongation, longest);
  }
  return "";
}

void CheckReference(const RunContext& run) {
  const fs::path& file = run.options.reference;
  if (!file.empty() && !FindLight(run, fs::weakly_canonical(file))) files::ImageReader::Open(file);
}

bool RegisterFrames(RunContext& run) {
  const Laying laying = BeginLaying(run);
  std::optional<LaidFrames> laid = FindLaid(run, laying);
  const bool isKept = laid.has_value();
  if (!isKept) laid = Lay(run, laying);
  Apply(run, laying, *laid);
  KeepLens(run.job, LensLibrary(LensesOf(run)), laying.camera, *laid);
  return !isKept;
}

bool TakeRegistrations(RunContext& run) {
  const Laying laying = BeginLaying(run);
  const std::optional<LaidFrames> laid = FindLaid(run, laying);
  if (laid) Apply(run, laying, *laid);
  return laid.has_value();
}

void LeaveOutBad(RunContext& run, const RunTarget& target) {
  std::vector<SeenStars> seen;
  for (const RunLight* frame : target.frames) {
    if (frame->IsUsed()) seen.emplace_back(frame->measure);
  }
  const FrameLimits& limits = run.options.limits;
  const FrameBounds bounds(limits, seen);
  const auto& [fewest, widest, longest, starry] = bounds;
  std::string text = target.name + ": what could not be registered";
  if (fewest > 0) text += fmt::format("; fewer than {:.0f} stars ({:g} of the median)", fewest, limits.stars);
  if (widest > 0) text += fmt::format("; FWHM above {:.2f} px ({:g} times the median)", widest, limits.fwhm);
  if (longest > 0)
    text += fmt::format("; elongation above {:.2f} ({:g} times the median)", longest, limits.elongation);
  run.Plan(text + "; are left out");
  TellLimitsThatSayLittle(run, target, seen.size(), starry);
  const Shape& shape = run.Grid().shape;
  for (RunLight* frame : target.frames) {
    if (!frame->IsUsed()) continue;
    const Shape& own = frame->shape;
    const std::string bad = bounds.WhyBad(frame->measure);
    if (own.width != shape.width || own.height != shape.height || own.planes != shape.planes) {
      run.LeaveOut(*frame, fmt::format("is {} x {} x {}, the reference {} x {} x {}", own.width, own.height,
                                       own.planes, shape.width, shape.height, shape.planes));
    } else if (!bad.empty()) {
      run.LeaveOut(*frame, bad);
    } else if (!frame->registration.IsGood()) {
      run.LeaveOut(*frame, "not registered: " + frame->registration.Text());
    }
  }
}

}  // namespace korimg::session
