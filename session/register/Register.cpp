#include "session/register/Register.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <limits>
#include <numbers>
#include <optional>
#include <tuple>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"

#include "session/focus/Focus.h"
#include "session/register/internal/MapJson.h"

namespace korimg::session {
namespace {

using Json = nlohmann::ordered_json;

/// What few stars leave open.
std::string Doubt(int stars, double cornerError) {
  constexpr double kSure = 1;  // pixels; chosen
  std::string text = stars == 2 ? "by two stars alone, so that a half turn or another pair of stars is "
                                  "not excluded; "
                                : "";
  if (text.empty() && cornerError <= kSure) return "";
  return text + fmt::format("corners may be off by {:.1f} px", cornerError);
}

/// Why a frame does not lie on the reference, by the stars of both.
std::string Refusal(const CStarMatch& match, size_t stars, size_t reference, double limit) {
  switch (match.status) {
    case CStarMatch::NoStars:
      return fmt::format("{} of them, the reference {}; two of each are needed", stars, reference);
    case CStarMatch::ResidualTooLarge: {
      constexpr double kSame = 0.002;  // chosen: two pixels of a thousand
      return fmt::format("{:.3f} px of {} stars, more than {:g}{}", match.residual, match.stars, limit,
                         std::abs(match.scale - 1) > kSame
                             ? fmt::format("; the reference is {:.4f} times as large", match.scale)
                             : "");
    }
    case CStarMatch::Mirrored:
      return fmt::format("its {} stars are the reference's turned over; flip it", stars);
    default:
      return fmt::format("{} stars, the reference {}: they share no pattern that chance would not make",
                         stars, reference);
  }
}

Registration FromMatch(const CStarMatch& match, const FrameMeasure& frame, const char* method) {
  const char* const names[] = {"ok", "no stars", "no match", "mirrored", "residual too large"};
  Registration registration{
      {},         match.dx, match.dy,           match.degrees, match.stars, match.residual,
      frame.fwhm, method,   names[match.status]};
  registration.pairs = match.pairs;
  return registration;
}

Registration FromStars(const CStarMatch& match, const FrameMeasure& frame, size_t reference, double limit) {
  Registration registration = FromMatch(match, frame, "stars");
  registration.note = match.status == CStarMatch::Ok ? Doubt(match.stars, match.cornerError)
                                                     : Refusal(match, frame.stars.size(), reference, limit);
  return registration;
}

/// A frame that lies on another one, which lies on the reference, on that.
Registration Joined(const Registration& first, const FrameMeasure& frame, const Registration& second,
                    const FrameMeasure& between) {
  Registration joined = first;
  const double x = frame.width * 0.5, y = frame.height * 0.5;  // the frame's middle
  const auto [toX, toY] = PlaceOf(second, between, x + first.dx, y + first.dy);
  joined.dx = toX - x;
  joined.dy = toY - y;
  joined.degrees = std::remainder(first.degrees + second.degrees, 360);
  joined.residual = std::hypot(first.residual, second.residual);
  if (joined.note.empty()) joined.note = second.note;
  return joined;
}

void TakeFit(const CFrameFitter::Fit& fit, const FrameMeasure& frame, Registration& registration) {
  const CFrameMap::Pose pose = fit.map.PoseOf(frame.width, frame.height);
  registration.dx = pose.dx;
  registration.dy = pose.dy;
  registration.degrees = pose.degrees;
  registration.map = fit.map;
  registration.stars = fit.stars;
  registration.residual = fit.residual;
  registration.status = "ok";
  registration.note = Doubt(fit.stars, fit.cornerError);
}

using FrameImage = std::function<std::shared_ptr<CVelImage>(size_t)>;

Registration RegisterOn(size_t reference, size_t frame, const std::vector<FrameMeasure>& frames,
                        const FrameImage& image) {
  return Registrar(frames[reference], [&] { return image(reference); }).Register(frames[frame], [&] {
    return image(frame);
  });
}

/// Frame i lies on the reference as on frame k. False when that is no good.
bool LayThrough(const Registration& between, size_t i, size_t k, const std::vector<FrameMeasure>& frames,
                const CFrameFitter& fitter, std::vector<Registration>& registrations) {
  Registration laid = between;
  for (CStarPair& pair : laid.pairs) {
    const auto [x, y] = PlaceOf(registrations[k], frames[k], pair.reference.x, pair.reference.y);
    pair.reference = {x, y};
  }
  const bool isRigid = fitter.IsRigid() && !registrations[k].map;
  if (!isRigid && !laid.pairs.empty()) {
    const auto fit = fitter.FitFrame(laid.pairs);
    if (!fit || fit->residual > 1) return false;
    TakeFit(*fit, frames[i], laid);
  } else if (between.IsGood()) {
    laid = Joined(laid, frames[i], registrations[k], frames[k]);
  } else {
    return false;
  }
  laid.file = registrations[i].file;
  registrations[i] = std::move(laid);
  return true;
}

bool IsTurnedOver(const Registration& registration) {
  return std::abs(std::remainder(registration.degrees, 360)) > 90;
}

/// True when one was found to be wrong.
bool CheckHalfTurns(const std::vector<FrameMeasure>& frames, std::vector<Registration>& registrations,
                    const CFrameFitter& fitter, const FrameImage& image) {
  const auto good = [&](size_t i, int step) -> std::optional<size_t> {
    for (i += step; i < frames.size(); i += step) {  // beyond the first one lies the largest number
      if (registrations[i].IsGood()) return i;
    }
    return std::nullopt;
  };
  bool any = false;
  for (size_t i = 0; i < frames.size(); ++i) {
    const Registration& r = registrations[i];
    const bool byLight = r.method == "phase" || r.method == "disc";
    if (!r.IsGood() || !byLight || !IsTurnedOver(r)) continue;
    const auto before = good(i, -1), after = good(i, 1);
    const auto agrees = [&](const std::optional<size_t>& k) { return k && IsTurnedOver(registrations[*k]); };
    if (agrees(before) || agrees(after) || !(before || after)) continue;
    const size_t k = !before || (after && *after - i < i - *before) ? *after : *before;
    const Registration between = RegisterOn(k, i, frames, image);
    if (between.IsGood() && IsTurnedOver(between)) continue;
    any = true;
    if (!LayThrough(between, i, k, frames, fitter, registrations)) {
      registrations[i].status = "no match";
      registrations[i].note =
          "its light is laid on the reference's by half a turn, but not on that of the frame beside it";
    }
  }
  return any;
}

/// A number that images of other pixels hardly share (FNV-1a, by lines, every eighth of their pixels
/// together, so that no product waits for the one before).
std::uint64_t DigestOf(CVelImage& image) {
  constexpr std::uint64_t kStart = 14695981039346656037ULL, kFactor = 1099511628211ULL;
  std::uint64_t digest = kStart;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (const std::uint64_t line : MapLines(0, image.GetHeight(), [&](int y) {
           constexpr int kLanes = 8;
           const float* row = image.GetLine(0, y, p);
           std::uint64_t lanes[kLanes];
           std::fill(std::begin(lanes), std::end(lanes), kStart);
           const int whole = image.GetWidth() / kLanes * kLanes;
           for (int x = 0; x < whole; x += kLanes) {
             for (int k = 0; k < kLanes; ++k) {
               lanes[k] = (lanes[k] ^ std::bit_cast<std::uint32_t>(row[x + k])) * kFactor;
             }
           }
           for (int x = whole; x < image.GetWidth(); ++x) {
             lanes[0] = (lanes[0] ^ std::bit_cast<std::uint32_t>(row[x])) * kFactor;
           }
           std::uint64_t sum = kStart;
           for (const std::uint64_t lane : lanes) {
             sum = (sum ^ lane) * kFactor;
           }
           return sum;
         })) {
      digest = (digest ^ line) * kFactor;
    }
  }
  return digest;
}

}  // namespace

FrameMeasure MeasureFrame(CVelImage& image, double sigmas) {
  CStarFinder finder(&image);
  finder.SetThreshold(sigmas);
  const int count = finder.Find();
  return {image.GetWidth(),
          image.GetHeight(),
          finder.GetSky(),
          finder.GetNoise(),
          finder.GetFwhm(),
          finder.GetElongation(),
          GuideErrorOf(image, finder.GetStars()),
          count,
          CStarMatcher::Select(finder.GetStars()),
          {},
          DigestOf(image)};
}

std::pair<double, double> PlaceOf(const Registration& r, const FrameMeasure& frame, double x, double y) {
  if (r.map) {
    constexpr double kNowhere = std::numeric_limits<double>::quiet_NaN();
    const Point p = (*r.map)({x, y}).value_or(Point{kNowhere, kNowhere});
    return {p.x, p.y};
  }
  const double a = r.degrees * std::numbers::pi / 180, c = std::cos(a), s = std::sin(a);
  const double cx = frame.width * 0.5, cy = frame.height * 0.5, u = x - cx, v = y - cy;
  return {c * u - s * v + cx + r.dx, s * u + c * v + cy + r.dy};
}

size_t ChooseReference(const std::vector<FrameMeasure>& frames, const std::vector<char>& candidates) {
  constexpr double kBright = 3;  // times the usual sky; chosen
  const auto isCandidate = [&](size_t i) { return candidates.empty() || candidates[i]; };
  int most = 0;
  std::vector<double> skies;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (!isCandidate(i)) continue;
    most = std::max(most, frames[i].starCount);
    skies.push_back(frames[i].sky);
  }
  const double sky = UpperMedian(skies);
  const auto isRich = [&](const FrameMeasure& frame) {
    return frame.starCount > 0 && 2LL * frame.starCount >= most && !(sky > 0 && frame.sky > kBright * sky);
  };
  std::optional<size_t> best;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (!isCandidate(i)) continue;
    if (!best || (isRich(frames[i]) && (!isRich(frames[*best]) || frames[i].fwhm < frames[*best].fwhm)))
      best = i;
  }
  return best.value_or(0);
}

void LayByStars(const CFrameFitter& fitter, const FrameMeasure& frame, const FrameMeasure& reference,
                double limit, bool mayDiffer, Registration& registration) {
  const bool isMatched = registration.IsGood() || registration.status == "residual too large";
  if (registration.method != "stars" || !isMatched || registration.pairs.empty()) return;
  const bool isAlike = frame.width == reference.width && frame.height == reference.height;
  auto fit = isAlike && !fitter.IsRigid() ? fitter.FitFrame(registration.pairs) : std::nullopt;
  const bool isOff = fit ? fit->residual > limit : !registration.IsGood();
  if (isOff && mayDiffer) {
    if (auto own = fitter.FitAlone(registration.pairs, limit)) fit = std::move(own);
  }
  if (!fit) return;
  TakeFit(*fit, frame, registration);
  if (fit->residual <= limit) return;
  registration.status = "residual too large";
  registration.note = fmt::format("{:.3f} px of {} stars, more than {:g}", fit->residual, fit->stars, limit);
}

Registration ReferenceRegistration(const FrameMeasure& reference) {
  Registration registration;
  registration.stars = static_cast<int>(reference.stars.size());
  registration.fwhm = reference.fwhm;
  registration.method = "reference";
  registration.status = "ok";
  return registration;
}

Registrar::Registrar(const FrameMeasure& reference, ImageSource image, double residual)
    : stars_(reference.stars),
      starCount_(reference.stars.size()),
      residual_(residual),
      loadReference_(std::move(image)) {
  stars_.SetResidualLimit(residual);
}

Registration Registrar::Register(const FrameMeasure& frame, const ImageSource& image) {
  const CStarMatch match = stars_.Match(frame.stars, frame.width, frame.height);
  const bool isSure = match.status != CStarMatch::NoStars && match.status != CStarMatch::NoMatch &&
                      !(match.status == CStarMatch::Ok && match.stars == 2);
  if (!isSure) {
    Registration byLight = RegisterByLight(frame, image);
    if (byLight.IsGood()) return byLight;
  }
  return FromStars(match, frame, starCount_, residual_);
}

Registration Registrar::RegisterByLight(const FrameMeasure& frame, const ImageSource& image) {
  const std::lock_guard lock(mutex_);
  if (!phase_) {
    reference_ = loadReference_();
    disc_ = std::make_unique<CDiscMatcher>(*reference_);
    phase_ = std::make_unique<CPhaseMatcher>(reference_.get());
  }
  const auto own = image();
  const CStarMatch disc = disc_->Match(*own);
  if (disc.status != CStarMatch::Ok) {
    const Registration phase = FromMatch(phase_->Match(*own), frame, "phase");
    return phase.IsGood() ? phase : RegisterByPlace(frame, *own);
  }
  Registration registration = FromMatch(disc, frame, "disc");
  registration.note = "by the middle of its disc; turns other than half ones are not looked for";
  return registration;
}

Registration Registrar::RegisterByPlace(const FrameMeasure& frame, CVelImage& image) {
  constexpr size_t kFew = 5;  // chosen: of as many, stars would have matched
  Registration registration = FromMatch(CStarMatch{CStarMatch::NoMatch}, frame, "place");
  if (std::min(frame.stars.size(), starCount_) >= kFew) return registration;
  if (!place_) place_ = std::make_unique<CPlaceMatcher>(*reference_);
  registration = FromMatch(place_->Match(image), frame, "place");
  registration.note = "by the place where its light fits best; turns are not looked for";
  return registration;
}

std::string ToJson(const Registration& registration) {
  Json json{{"file", registration.file},
            {"dx", registration.dx},
            {"dy", registration.dy},
            {"degrees", registration.degrees},
            {"stars", registration.stars},
            {"residual_px", registration.residual},
            {"fwhm", registration.fwhm},
            {"flux_ratio", registration.fluxRatio ? Json(*registration.fluxRatio) : Json()},
            {"method", registration.method},
            {"status", registration.status},
            {"note", registration.note}};
  if (registration.map) json["map"] = ToJson(*registration.map);
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

CFrameMap MapOf(const std::string& json) {
  try {
    return MapFromJson(nlohmann::json::parse(json));
  } catch (const std::exception& error) {
    throw UsageError(fmt::format("the map of a registration: {}", error.what()));
  }
}

namespace {

/// Of the light of stars that two frames share.
struct Ratio {
  double value, error;  ///< the error is relative
};

/// The mean by errors, without what is further from it than errors let expect: variable stars, wrong pairs.
std::optional<double> MeanRatio(std::vector<Ratio> ratios) {
  constexpr double kFar = 4;  // errors; chosen
  constexpr int kRounds = 5;  // chosen
  if (ratios.empty()) return std::nullopt;
  std::sort(ratios.begin(), ratios.end(), [](const Ratio& a, const Ratio& b) { return a.value < b.value; });
  const auto weight = [](const Ratio& r) { return 1 / (r.error * r.error); };
  double all = 0, below = 0;
  for (const Ratio& r : ratios) {
    all += weight(r);
  }
  double mean = ratios.back().value;
  for (const Ratio& r : ratios) {  // the median by weights
    below += weight(r);
    if (below < all / 2) continue;
    mean = r.value;
    break;
  }
  for (int round = 0; round < kRounds; ++round) {
    double sum = 0, weights = 0;
    for (const Ratio& r : ratios) {
      if (std::abs(r.value / mean - 1) > kFar * r.error) continue;
      sum += weight(r) * r.value;
      weights += weight(r);
    }
    if (weights > 0) mean = sum / weights;
  }
  return mean;
}

/// How much brighter the stars of a frame are than the same ones of another, both by their places on the
/// reference: the brightest of that one decide.
std::optional<double> RatioOf(const std::vector<CStar>& stars, const std::vector<Point>& places,
                              const std::vector<CStar>& wanted, const std::vector<Point>& wantedPlaces) {
  constexpr double kNear = 1.5;    // pixels; chosen
  constexpr double kLeast = 0.01;  // relative error of the brightest stars, whose number counts; chosen
  // Of faint stars a cloud leaves those that noise makes brighter: the brightest ones decide. Chosen.
  constexpr size_t kMost = 50;
  const auto isGood = [](const CStar& star) { return star.flags == 0 && star.snr > 0 && star.flux > 0; };
  std::vector<size_t> brightest;
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (isGood(wanted[i])) brightest.push_back(i);
  }
  std::sort(brightest.begin(), brightest.end(),
            [&](size_t a, size_t b) { return wanted[a].flux > wanted[b].flux; });
  std::vector<Ratio> ratios;
  for (const size_t i : brightest) {
    for (size_t k = 0; k < places.size() && ratios.size() < kMost; ++k) {
      if (std::hypot(wantedPlaces[i].x - places[k].x, wantedPlaces[i].y - places[k].y) >= kNear) continue;
      const CStar& star = stars[k];
      if (isGood(star)) {
        ratios.push_back({star.flux / wanted[i].flux, std::hypot(1 / star.snr, 1 / wanted[i].snr, kLeast)});
      }
      break;
    }
  }
  return MeanRatio(std::move(ratios));
}

}  // namespace

void CompareFluxes(const std::vector<FrameMeasure>& frames, const FrameMeasure& reference,
                   std::vector<Registration>& registrations) {
  const auto placesOf = [](const FrameMeasure& frame, const Registration& registration) {
    std::vector<Point> places;
    for (const CStar& star : frame.stars) {
      const auto [x, y] = PlaceOf(registration, frame, star.x, star.y);
      places.push_back({x, y});
    }
    return places;
  };
  // What shares less with the reference than with others is compared with those, one after the other.
  constexpr double kMuch = 0.3;  // of the area; chosen
  const auto share = [&](const Registration& a, const Registration& b) {
    const auto along = [](double shift, int size) { return std::max(1 - std::abs(shift) / size, 0.0); };
    return along(a.dx - b.dx, reference.width) * along(a.dy - b.dy, reference.height);
  };
  const Registration none;
  const std::vector<Point> wanted = placesOf(reference, none);
  std::vector<std::vector<Point>> places(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    Registration& own = registrations[i];
    own.fluxRatio.reset();
    if (!own.IsGood()) continue;
    places[i] = placesOf(frames[i], own);
    if (share(own, none) >= kMuch)
      own.fluxRatio = RatioOf(frames[i].stars, places[i], reference.stars, wanted);
  }
  for (bool found = true; found;) {
    found = false;
    // The pairs of a frame that was not compared and of one that was, from those that share most on; -1 is
    // the reference.
    std::vector<std::tuple<double, size_t, std::ptrdiff_t>> pairs;
    for (size_t i = 0; i < frames.size(); ++i) {
      if (!registrations[i].IsGood() || registrations[i].fluxRatio || share(registrations[i], none) >= kMuch)
        continue;
      for (std::ptrdiff_t k = -1; k < std::ssize(frames); ++k) {
        if (k >= 0 && !registrations[k].fluxRatio) continue;
        const double common = share(registrations[i], k < 0 ? none : registrations[k]);
        if (common > 0) pairs.emplace_back(-common, i, k);
      }
    }
    std::sort(pairs.begin(), pairs.end());
    for (const auto& [common, i, k] : pairs) {
      const auto ratio = k < 0 ? RatioOf(frames[i].stars, places[i], reference.stars, wanted)
                               : RatioOf(frames[i].stars, places[i], frames[k].stars, places[k]);
      if (!ratio) continue;
      registrations[i].fluxRatio = *ratio * (k < 0 ? 1 : *registrations[k].fluxRatio);
      found = true;
      break;
    }
  }
  // What is found on a few frames of a disc is no star.
  const auto count = [&](const auto& holds) {
    return std::count_if(registrations.begin(), registrations.end(), holds);
  };
  if (2 * count([](const Registration& r) { return r.fluxRatio.has_value(); }) >
      count([](const Registration& r) { return r.IsGood(); })) {
    return;
  }
  for (Registration& registration : registrations) {
    registration.fluxRatio.reset();
  }
}

bool RegisterThroughOthers(const std::vector<FrameMeasure>& frames, std::vector<Registration>& registrations,
                           const CFrameFitter& fitter,
                           const std::function<std::shared_ptr<CVelImage>(size_t)>& image) {
  constexpr size_t kMostTried = 5;  // chosen: the nearest in time; the first by phase too, which takes long
  bool any = CheckHalfTurns(frames, registrations, fitter, image);
  const auto wants = [&](size_t i) {
    return registrations[i].status == "no match" && frames[i].stars.size() >= 2;
  };
  for (bool found = true; found;) {
    found = false;
    for (size_t i = 0; i < frames.size(); ++i) {
      if (!wants(i)) continue;
      std::vector<size_t> others;
      for (size_t k = 0; k < frames.size(); ++k) {
        if (registrations[k].IsGood() && registrations[k].method != "reference") others.push_back(k);
      }
      const auto distance = [i](size_t k) { return k > i ? k - i : i - k; };
      std::stable_sort(others.begin(), others.end(),
                       [&](size_t a, size_t b) { return distance(a) < distance(b); });
      others.resize(std::min(others.size(), kMostTried));
      for (const size_t k : others) {
        const bool isNearest = k == others.front();
        const Registration between =
            isNearest
                ? RegisterOn(k, i, frames, image)
                : FromStars(
                      CStarMatcher(frames[k].stars).Match(frames[i].stars, frames[i].width, frames[i].height),
                      frames[i], frames[k].stars.size(), 1);
        if (!LayThrough(between, i, k, frames, fitter, registrations)) continue;
        found = any = true;
        break;
      }
    }
  }
  return any;
}

}  // namespace korimg::session
