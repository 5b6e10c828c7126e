#include <algorithm>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/register/LensLibrary.h"
#include "session/run/internal/FrameBounds.h"
#include "session/run/internal/Road.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// A lens, to tell it from others; empty for none.
std::string TextOf(const std::optional<CLensDistortion>& lens) {
  return lens ? ToJson(*lens).dump() : "";
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

fs::path Road::Lenses() const {
  const fs::path& masters = options_.calibrate.masters;
  return (masters.empty() ? options_.calibrate.out : masters) / "lenses.json";
}

std::string Road::NameOf(const RunLight& frame) const {
  return frame.light ? frame.light->Name() : options_.reference.filename().string();
}

/// Takes the light that is asked for as the reference, or an image that is none of them. Answers such a
/// one.
std::shared_ptr<CVelImage> Road::FindReference() {
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

Road::Laying Road::BeginLaying() {
  Laying laying;
  for (size_t i = 0; i < frames_.size(); ++i) {
    if (frames_[i].IsUsed()) laying.numbers.push_back(i);
  }
  if (laying.numbers.empty()) throw files::FileError(options_.calibrate.out, "no light could be read");
  reference_ = laying.numbers.front();
  if (!options_.reference.empty()) laying.whole = FindReference();
  KeptJson made{{"korimg", Version()},
                {"model", session::NameOf(kFrameModels, options_.lay.model)},
                {"residual", options_.lay.residual},
                {"reference", options_.reference.empty() ? "" : Grid().digest}};
  for (const size_t i : laying.numbers) {
    made["frames"].push_back(frames_[i].digest);
  }
  laying.digest = made.dump();
  const files::ImageInfo& first = frames_[laying.numbers.front()].light->frame.info;
  laying.camera = LensLibrary::KeyOf(first.header, first.width, first.height);
  return laying;
}

/// How the frames were laid before, if it was by the same lens, or is what this one was learnt from. The lens
/// is there where it has not been written.
std::optional<LaidFrames> Road::FindLaid(const Laying& laying) const {
  const auto kept = state_->Find("registration", laying.digest);
  if (!kept) return std::nullopt;
  const std::string now = TextOf(LensLibrary(Lenses()).Find(laying.camera)), learnt = kept->at("learnt");
  if (now != kept->at("lens") && now != learnt) return std::nullopt;
  LaidFrames laid{std::nullopt, kept->at("frames").get<std::vector<Registration>>(),
                  kept->at("model").get<std::string>(), std::nullopt};
  if (kept->contains("reference")) laid.reference = kept->at("reference").get<size_t>();
  if (!learnt.empty() && now != learnt) laid.lens = LensFromJson(KeptJson::parse(learnt));
  for (size_t k = 0; k < laying.numbers.size(); ++k) {
    laid.registrations[k].file = frames_[laying.numbers[k]].light->frame.path.string();
  }
  return laid;
}

LaidFrames Road::Lay(const Laying& laying) {
  FramesToLay toLay{.bytes = BytesOfFrame(), .mayBeMissing = true};
  for (const size_t i : laying.numbers) {
    toLay.files.push_back(frames_[i].light->frame.path);
    toLay.measures.push_back(frames_[i].measure);
  }
  toLay.image = [&](size_t k) {
    const RunLight& frame = frames_[laying.numbers[k]];
    LightRows rows(session_, *frame.light, frame.border);
    return LoadWhole(rows, job_.MakeStore());
  };
  LayOptions how = options_.lay;
  how.lens = LensLibrary(Lenses()).Find(laying.camera);
  LaidFrames laid;
  if (laying.whole) {
    laid = LayFrames(
        job_, toLay, fixed_->measure, [&] { return laying.whole; }, how);
  } else {
    std::optional<size_t> number;
    if (!options_.reference.empty()) {
      number = std::ranges::find(laying.numbers, reference_) - laying.numbers.begin();
    }
    laid = LayFrames(job_, toLay, number, how);
  }
  // Before the lens: who goes on after it was learnt must not lay the frames by it once more.
  KeptJson kept{{"lens", TextOf(how.lens)},
                {"learnt", TextOf(laid.lens)},
                {"model", laid.model},
                {"frames", laid.registrations}};
  if (laid.reference) kept["reference"] = *laid.reference;
  state_->Keep("registration", laying.digest, std::move(kept));
  return laid;
}

void Road::Apply(const Laying& laying, const LaidFrames& laid) {
  if (laid.reference) reference_ = laying.numbers[*laid.reference];
  const std::vector<Registration>& registrations = laid.registrations;
  const bool lightIsCompared = std::any_of(registrations.begin(), registrations.end(),
                                           [](const Registration& r) { return r.fluxRatio.has_value(); });
  for (size_t k = 0; k < laying.numbers.size(); ++k) {
    RunLight& frame = frames_[laying.numbers[k]];
    frame.registration = registrations[k];
    // Frames are brought to the reference by their sky and by the light of their stars.
    if (options_.stack.normalise == "level+scale" && lightIsCompared && frame.registration.IsGood() &&
        !frame.registration.fluxRatio) {
      LeaveOut(frame, kNoCommonLight);
    }
    std::fill(std::begin(frame.levels.spread), std::end(frame.levels.spread),
              frame.registration.fluxRatio.value_or(1));
  }
  const RunLight& reference = Grid();
  Plan(fmt::format("reference: {}, {} stars, FWHM {:.2f} px", NameOf(reference), reference.measure.starCount,
                   reference.measure.fwhm));
  if (!laid.model.empty()) Plan("laid by: " + laid.model);
}

bool Road::RegisterFrames() {
  const Laying laying = BeginLaying();
  std::optional<LaidFrames> laid = FindLaid(laying);
  const bool isKept = laid.has_value();
  if (!isKept) laid = Lay(laying);
  Apply(laying, *laid);
  KeepLens(job_, LensLibrary(Lenses()), laying.camera, *laid);
  return !isKept;
}

/// Leaves out what cannot be stacked, and what is much worse than the others. A few stars tell nothing of
/// that.
void Road::LeaveOutBad(const RunTarget& target) {
  std::vector<SeenStars> seen;
  for (const RunLight* frame : target.frames) {
    if (frame->IsUsed()) seen.emplace_back(frame->measure);
  }
  const FrameLimits& limits = options_.limits;
  const FrameBounds bounds(limits, seen);
  const auto& [fewest, widest, longest, starry] = bounds;
  std::string text = target.name + ": what could not be registered";
  if (fewest > 0) text += fmt::format("; fewer than {:.0f} stars ({:g} of the median)", fewest, limits.stars);
  if (widest > 0) text += fmt::format("; FWHM above {:.2f} px ({:g} times the median)", widest, limits.fwhm);
  if (longest > 0)
    text += fmt::format("; elongation above {:.2f} ({:g} times the median)", longest, limits.elongation);
  Plan(text + "; are left out");
  TellLimitsThatSayLittle(target, seen.size(), starry);
  const Shape& shape = Grid().shape;
  for (RunLight* frame : target.frames) {
    if (!frame->IsUsed()) continue;
    const Shape& own = frame->shape;
    const std::string bad = bounds.WhyBad(frame->measure);
    if (own.width != shape.width || own.height != shape.height || own.planes != shape.planes) {
      LeaveOut(*frame, fmt::format("is {} x {} x {}, the reference {} x {} x {}", own.width, own.height,
                                   own.planes, shape.width, shape.height, shape.planes));
    } else if (!bad.empty()) {
      LeaveOut(*frame, bad);
    } else if (!frame->registration.IsGood()) {
      LeaveOut(*frame, "not registered: " + frame->registration.Text());
    }
  }
}

/// Limits compare frames with each other: spoiled alike, they pass.
void Road::TellLimitsThatSayLittle(const RunTarget& target, size_t frames, size_t starry) {
  constexpr size_t kTelling = FrameBounds::kTelling;
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

}  // namespace korimg::session
