#include "session/register/LayFrames.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"

#include "session/job/internal/SideBySide.h"

namespace korimg::session {
namespace {

/// The reference, wherever it comes from.
struct Grid {
  std::optional<size_t> number;  ///< of a frame
  const FrameMeasure* measure;
  ImageSource image;
};

size_t GoodOnes(const LaidFrames& laid) {
  return static_cast<size_t>(std::count_if(laid.registrations.begin(), laid.registrations.end(),
                                           [](const Registration& r) { return r.IsGood(); }));
}

/// What is to be thought of shifts and turns, by the stars of all frames.
CFrameFitter FitterOf(const FrameMeasure& reference, const FramesToLay& frames,
                      const std::vector<Registration>& registrations, const LayOptions& options) {
  CFrameFitter fitter(reference.width, reference.height);
  if (options.lens) fitter.SetDistortion(*options.lens);
  for (size_t i = 0; i < registrations.size(); ++i) {
    const FrameMeasure& own = frames.measures[i];
    if (own.width != reference.width || own.height != reference.height) continue;
    if (!registrations[i].pairs.empty()) fitter.Add(registrations[i].pairs);
  }
  if (options.model == FrameModel::Auto || options.model == FrameModel::Distortion) {
    fitter.Choose(options.model == FrameModel::Distortion);
  } else {
    fitter.Choose(
        static_cast<CFrameMap::Model>(static_cast<int>(options.model) - static_cast<int>(FrameModel::Rigid)));
  }
  return fitter;
}

/// Says so where shift and turn leave stars farther apart than their errors explain: a lens that too few of
/// them tell shows most in the corners.
void DoubtRigid(const FrameMeasure& frame, Registration& registration) {
  constexpr double kApart = 0.5, kErrors = 3;  // pixels; deviations: chosen
  if (!registration.IsGood() || registration.method != "stars" || registration.map ||
      !registration.note.empty())
    return;
  double squares = 0, chances = 0;
  for (const CStarPair& pair : registration.pairs) {
    const auto [x, y] = PlaceOf(registration, frame, pair.frame.x, pair.frame.y);
    const double d2 =
        (x - pair.reference.x) * (x - pair.reference.x) + (y - pair.reference.y) * (y - pair.reference.y);
    squares += d2;
    chances += d2 * pair.weight / 2;
  }
  const double n = static_cast<double>(std::max<size_t>(registration.pairs.size(), 1)),
               apart = std::sqrt(squares / n), errors = std::sqrt(chances / n);
  if (apart < kApart || errors < kErrors) return;
  registration.note = fmt::format(
      "its {} stars lie {:.2f} px apart, {:.0f} times what their errors explain, and are too "
      "few to tell a distortion; corners may be off by more",
      registration.pairs.size(), apart, errors);
}

LaidFrames LayOn(Job& job, const FramesToLay& frames, const Grid& grid, const LayOptions& options) {
  const size_t count = frames.measures.size();
  LaidFrames laid{grid.number, std::vector<Registration>(count, {.status = "cannot be read"}), "", {}};
  std::vector<Registration>& registrations = laid.registrations;
  Registrar registrar(*grid.measure, grid.image, options.residual);
  SideBySide(
      job, "registering frame", count, frames.bytes,
      [&](size_t i) {
        if (i == grid.number) return ReferenceRegistration(*grid.measure);
        return registrar.Register(frames.measures[i], [&] { return frames.image(i); });
      },
      [&](size_t i, const auto& result) {
        job.ForEachFile(
            {frames.files[i]}, [&](const auto&) { registrations[i] = result(); }, frames.mayBeMissing);
        registrations[i].file = frames.files[i].string();
      });
  const CFrameFitter fitter = FitterOf(*grid.measure, frames, registrations, options);
  laid.model = fitter.Text();
  if (fitter.IsFitted()) laid.lens = fitter.GetDistortion();
  for (size_t i = 0; i < count; ++i) {
    LayByStars(fitter, frames.measures[i], *grid.measure, options.residual, options.model == FrameModel::Auto,
               registrations[i]);
  }
  RegisterThroughOthers(frames.measures, registrations, fitter, frames.image);
  for (size_t i = 0; i < count; ++i) {
    if (options.model == FrameModel::Auto) DoubtRigid(frames.measures[i], registrations[i]);
  }
  CompareFluxes(frames.measures, *grid.measure, registrations);
  for (Registration& registration : registrations) {
    registration.pairs = {};
  }
  return laid;
}

/// One of the sharper half nearer to the middle of the dithers than a reference that lies far off all others.
std::optional<size_t> NearerTheMiddle(const FramesToLay& frames, const LaidFrames& laid,
                                      const std::vector<char>& candidates) {
  constexpr double kFar = 3;        // times the usual distance from the middle; chosen
  constexpr double kMatters = 0.1;  // of the shorter side; chosen
  std::vector<double> xs, ys, fwhms;
  for (size_t i = 0; i < frames.measures.size(); ++i) {
    if (!laid.registrations[i].IsGood()) continue;
    xs.push_back(laid.registrations[i].dx);
    ys.push_back(laid.registrations[i].dy);
    fwhms.push_back(frames.measures[i].fwhm);
  }
  constexpr size_t kTelling = 4;  // chosen: of three the middle is one of them
  if (xs.size() < kTelling) return std::nullopt;
  const double x = UpperMedian(xs), y = UpperMedian(ys), sharper = UpperMedian(fwhms);
  const auto distance = [&](size_t i) {
    return std::hypot(laid.registrations[i].dx - x, laid.registrations[i].dy - y);
  };
  std::vector<double> distances;
  std::optional<size_t> nearest;
  for (size_t i = 0; i < frames.measures.size(); ++i) {
    if (!laid.registrations[i].IsGood()) continue;
    distances.push_back(distance(i));
    if (candidates[i] && frames.measures[i].fwhm <= sharper && (!nearest || distance(i) < distance(*nearest)))
      nearest = i;
  }
  const FrameMeasure& reference = frames.measures[*laid.reference];
  const double own = distance(*laid.reference), usual = UpperMedian(distances);
  const bool isFar = own > kFar * usual && own > kMatters * std::min(reference.width, reference.height);
  return isFar && nearest != laid.reference ? nearest : std::nullopt;
}

}  // namespace

LaidFrames LayFrames(Job& job, const FramesToLay& frames, const FrameMeasure& reference,
                     const ImageSource& image, const LayOptions& options) {
  return LayOn(job, frames, {std::nullopt, &reference, image}, options);
}

LaidFrames LayFrames(Job& job, const FramesToLay& frames, std::optional<size_t> reference,
                     const LayOptions& options) {
  const auto lay = [&](size_t i) {
    return LayOn(job, frames, {i, &frames.measures[i], [&frames, i] { return frames.image(i); }}, options);
  };
  if (reference) return lay(*reference);
  std::vector<char> candidates = frames.mayBeReference;
  candidates.resize(frames.measures.size(), frames.mayBeReference.empty());
  if (std::ranges::count(candidates, 0) == std::ssize(candidates)) std::ranges::fill(candidates, 1);
  LaidFrames best = lay(ChooseReference(frames.measures, candidates));
  constexpr int kOthers = 2;  // chosen: each lays all frames anew
  for (int other = 0; other < kOthers && 2 * GoodOnes(best) <= frames.measures.size(); ++other) {
    std::vector<char> left = candidates;
    for (size_t i = 0; i < left.size(); ++i) {
      const bool isOpen = !best.registrations[i].IsGood() && frames.measures[i].starCount > 0;
      if (!isOpen) left[i] = 0;
    }
    if (std::ranges::count(left, 0) == std::ssize(left)) break;
    const size_t next = ChooseReference(frames.measures, left);
    LaidFrames laid = lay(next);
    candidates[next] = 0;
    if (GoodOnes(laid) <= GoodOnes(best)) continue;
    job.Say(fmt::format("{} of {} frames lie on {}, and {} on {}: that is the reference", GoodOnes(best),
                        frames.measures.size(), frames.files[*best.reference].filename().string(),
                        GoodOnes(laid), frames.files[next].filename().string()));
    best = std::move(laid);
  }
  if (const auto nearer = NearerTheMiddle(frames, best, candidates)) {
    LaidFrames laid = lay(*nearer);
    if (GoodOnes(laid) >= GoodOnes(best)) {
      job.Say(fmt::format("{} lies far off the others; the reference is {}, nearer to their middle",
                          frames.files[*best.reference].filename().string(),
                          frames.files[*nearer].filename().string()));
      best = std::move(laid);
    }
  }
  return best;
}

}  // namespace korimg::session
