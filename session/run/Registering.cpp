#include <algorithm>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"

#include "session/files/Formats.h"
#include "session/register/LensLibrary.h"
#include "session/run/internal/Road.h"

namespace korimg::session {

namespace fs = std::filesystem;

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

void Road::RegisterFrames() {
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
    const RunLight& frame = frames_[numbers[k]];
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
  const RunLight& reference = Grid();
  const std::vector<Registration>& registrations = laid.registrations;
  const bool lightIsCompared = std::any_of(registrations.begin(), registrations.end(),
                                           [](const Registration& r) { return r.fluxRatio.has_value(); });
  for (size_t k = 0; k < numbers.size(); ++k) {
    RunLight& frame = frames_[numbers[k]];
    frame.registration = registrations[k];
    // Frames are brought to the reference by their sky and by the light of their stars.
    if (options_.stack.normalise == "level+scale" && lightIsCompared && frame.registration.IsGood() &&
        !frame.registration.fluxRatio) {
      LeaveOut(frame, kNoCommonLight);
    }
    std::fill(std::begin(frame.levels.spread), std::end(frame.levels.spread),
              frame.registration.fluxRatio.value_or(1));
  }
  Plan(fmt::format("reference: {}, {} stars, FWHM {:.2f} px", NameOf(reference), reference.measure.starCount,
                   reference.measure.fwhm));
  if (!laid.model.empty()) Plan("laid by: " + laid.model);
  KeepLens(job_, lenses, camera, laid);
}

/// Leaves out what cannot be stacked, and what is much worse than the others. A few stars tell nothing of
/// that.
void Road::LeaveOutBad(RunTarget& target) {
  constexpr int kEnough = 20;
  std::vector<double> stars, fwhms, elongations;
  for (const RunLight* frame : target.frames) {
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
  if (fewest > 0) text += fmt::format("; fewer than {:.0f} stars ({:g} of the median)", fewest, limits.stars);
  if (widest > 0) text += fmt::format("; FWHM above {:.2f} px ({:g} times the median)", widest, limits.fwhm);
  if (longest > 0)
    text += fmt::format("; elongation above {:.2f} ({:g} times the median)", longest, limits.elongation);
  Plan(text + "; are left out");
  TellLimitsThatSayLittle(target, stars.size(), fwhms.size());
  const Shape& shape = Grid().shape;
  for (RunLight* frame : target.frames) {
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
void Road::TellLimitsThatSayLittle(const RunTarget& target, size_t frames, size_t starry) {
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

}  // namespace korimg::session
