#include "korimg/measurement/CFrameFitter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "korimg/geometry/internal/Homography.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/measurement/internal/RigidFit.h"

using namespace korimg;

namespace {

using Matrix = CFrameMap::Matrix;
using Lens = CLensDistortion;
using Model = CFrameMap::Model;

constexpr int kMostNumbers = 8;  // of a frame
constexpr int kNumbersOf[] = {3, 4, 6, 8};
/// Pairs that a frame has to have for a model. Chosen: from a similarity on three times what settles it.
constexpr int kLeastPairs[] = {2, 6, 10, 16};
constexpr double kClip = 5;  // chosen: deviations that a pair may be off by, of those that are usual

/// The numbers of a distortion that are looked for.
using Active = std::vector<int>;

/// Beyond the numbers of the distortion: its centre, in units of its scale.
constexpr int kCentreX = Lens::kNumbers, kCentreY = kCentreX + 1;

const Active kNone, kRadial1 = {0}, kRadial3 = {0, 1, 2}, kCentred = {0, 1, 2, kCentreX, kCentreY};
/// The terms of the third degree hold the first radial one. Those of the second change what a shift changes
/// by as a homography does: frames that have their own know next to nothing of them.
const Active kCubic = {1, 2, 6, 7, 8, 9, 13, 14, 15, 16};

constexpr const char* kModelNames[] = {"rigid", "similarity", "affine", "homography"};

struct Candidate {
  Model model;
  const Active* active;
  const char* name;
  bool isTelling = false;  ///< none of the others is better than a rigid map unless one of these is
};
/// From the simplest on.
const Candidate kCandidates[] = {
    {CFrameMap::Rigid, &kNone, "rigid", true},
    {CFrameMap::Similarity, &kNone, "similarity", true},
    {CFrameMap::Rigid, &kRadial1, "rigid with a radial distortion", true},
    {CFrameMap::Affine, &kNone, "affine"},
    {CFrameMap::Rigid, &kRadial3, "rigid with a distortion of three radial terms"},
    {CFrameMap::Similarity, &kRadial3, "similarity with a distortion of three radial terms"},
    {CFrameMap::Rigid, &kCentred, "rigid with a distortion of three radial terms off the middle"},
    {CFrameMap::Homography, &kNone, "homography", true},
    {CFrameMap::Homography, &kRadial1, "homography with a radial distortion"},
    {CFrameMap::Homography, &kRadial3, "homography with a distortion of three radial terms"},
    {CFrameMap::Homography, &kCentred, "homography with a distortion of three radial terms off the middle"},
    {CFrameMap::Homography, &kCubic, "homography with a distortion of ten terms"}};

/// The map in units of half the diagonal, from the middle of the image: numbers near 1.
struct Units {
  Point middle;
  double half;

  Units(int width, int height)
      : middle{(width - 1) * 0.5, (height - 1) * 0.5}, half(Length(width, height) / 2) {}

  /// A matrix of these units as one of pixels.
  Matrix InPixels(const Matrix& m) const {
    const Matrix in{1 / half, 0, -middle.x / half, 0, 1 / half, -middle.y / half, 0, 0, 1};
    const Matrix out{half, 0, middle.x, 0, half, middle.y, 0, 0, 1};
    return Product(Product(out, m), in);
  }
};

/// What a frame's map is made of, for Gauss and Newton.
struct Pose {
  Model model = CFrameMap::Rigid;
  std::array<double, kMostNumbers> numbers{};  ///< angle, x, y; or the rows of the matrix

  Matrix InUnits() const {
    const auto& n = numbers;
    switch (model) {
      case CFrameMap::Rigid:
        return {std::cos(n[0]), -std::sin(n[0]), n[1], std::sin(n[0]), std::cos(n[0]), n[2], 0, 0, 1};
      case CFrameMap::Similarity:
        return {n[0], -n[1], n[2], n[1], n[0], n[3], 0, 0, 1};
      case CFrameMap::Affine:
        return {n[0], n[1], n[2], n[3], n[4], n[5], 0, 0, 1};
      default:
        return {n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], 1};
    }
  }

  /// Where q comes to, how that changes with the numbers, and with q.
  Point At(const Point& q, double (&x)[kMostNumbers], double (&y)[kMostNumbers], Lens::Jacobian& by) const {
    const Matrix m = InUnits();
    const double w = 1 / (m[6] * q.x + m[7] * q.y + 1);
    const Point p{(m[0] * q.x + m[1] * q.y + m[2]) * w, (m[3] * q.x + m[4] * q.y + m[5]) * w};
    by = {(m[0] - p.x * m[6]) * w, (m[1] - p.x * m[7]) * w, (m[3] - p.y * m[6]) * w, (m[4] - p.y * m[7]) * w};
    std::fill_n(x, kMostNumbers, 0.0);
    std::fill_n(y, kMostNumbers, 0.0);
    switch (model) {
      case CFrameMap::Rigid:
        x[0] = -(p.y - m[5]), y[0] = p.x - m[2];
        x[1] = y[2] = 1;
        break;
      case CFrameMap::Similarity:
        x[0] = q.x, y[0] = q.y;
        x[1] = -q.y, y[1] = q.x;
        x[2] = y[3] = 1;
        break;
      default:
        x[0] = y[3] = q.x * w;
        x[1] = y[4] = q.y * w;
        x[2] = y[5] = w;
        x[6] = -p.x * q.x * w, x[7] = -p.x * q.y * w;
        y[6] = -p.y * q.x * w, y[7] = -p.y * q.y * w;
    }
    return p;
  }
};

/// Solves A x = B for several right sides (columns of B), A symmetric and positive, by Cholesky. False when
/// it is not.
bool SolveSymmetric(std::vector<double>& a, std::vector<double>& b, int n, int columns) {
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k <= i; ++k) {
      double sum = a[i * n + k];
      for (int j = 0; j < k; ++j) {
        sum -= a[i * n + j] * a[k * n + j];
      }
      if (i == k) {
        if (!(sum > 0)) return false;
        a[i * n + i] = std::sqrt(sum);
      } else {
        a[i * n + k] = sum / a[k * n + k];
      }
    }
  }
  for (int c = 0; c < columns; ++c) {
    for (int i = 0; i < n; ++i) {
      double sum = b[i * columns + c];
      for (int j = 0; j < i; ++j) {
        sum -= a[i * n + j] * b[j * columns + c];
      }
      b[i * columns + c] = sum / a[i * n + i];
    }
    for (int i = n; i-- > 0;) {
      double sum = b[i * columns + c];
      for (int j = i + 1; j < n; ++j) {
        sum -= a[j * n + i] * b[j * columns + c];
      }
      b[i * columns + c] = sum / a[i * n + i];
    }
  }
  return true;
}

/// A frame while it is fitted.
struct Fitted {
  const std::vector<CStarPair>* pairs;
  std::vector<char> left;  ///< of each pair: it is not part of the fit
  Pose pose;
};

/// A pair's distance on the reference, in pixels, by a distortion and a pose.
struct Off {
  double x, y;
  double Square() const { return x * x + y * y; }
};

class Fitting {
 public:
  Fitting(int width, int height, const Lens& distortion, Active active)
      : units_(width, height),
        distortion_(distortion.IsNone() ? Lens::Of(width, height, {}) : distortion),
        active_(std::move(active)) {}

  const Lens& GetLens() const { return distortion_; }

  /// Fits all frames, and the active numbers of the distortion. False when the pairs do not settle them.
  bool Run(std::vector<Fitted>& frames) {
    constexpr int kRounds = 12;     // chosen: few are needed
    constexpr double kNear = 1e-7;  // of half the diagonal: less than a thousandth of a pixel
    for (Fitted& frame : frames) {
      Start(frame);
    }
    for (int round = 0; round < kRounds; ++round) {
      double step = 0;
      if (!Step(frames, step)) return false;
      if (step < kNear) break;
    }
    return true;
  }

  /// What a corner of the last frame may be off by, in pixels, one deviation, by the weights of its pairs.
  double CornerError(const Pose& pose, int width, int height) const {
    const int n = kNumbersOf[pose.model];
    double worst = 0;
    for (const Point& corner :
         {Point{0, 0}, Point{width - 1.0, 0}, Point{0, height - 1.0}, Point{width - 1.0, height - 1.0}}) {
      double by[2][kMostNumbers];
      Lens::Jacobian unused;
      pose.At(In(distortion_.Straight(corner)), by[0], by[1], unused);
      double variance = 0;
      for (const double* f : by) {
        std::vector<double> normal = own_, x(f, f + n);
        if (!SolveSymmetric(normal, x, n, 1)) return 0;
        for (int i = 0; i < n; ++i) {
          variance += f[i] * x[i];
        }
      }
      worst = std::max(worst, std::sqrt(variance) * units_.half);
    }
    return worst;
  }

  /// The distance of a pair, by the fit.
  Off OffOf(const Pose& pose, const CStarPair& pair) const {
    Lens::Jacobian lens;
    const Point to = distortion_.Straight(pair.reference, &lens);
    double x[kMostNumbers], y[kMostNumbers];
    Lens::Jacobian by;
    const Point at = Out(pose.At(In(distortion_.Straight(pair.frame)), x, y, by));
    return Back(lens, at.x - to.x, at.y - to.y);
  }

  CFrameMap MapOf(const Pose& pose) const {
    const Lens lens = distortion_.IsNone() ? Lens() : distortion_;
    return CFrameMap(units_.InPixels(pose.InUnits()), lens, lens);
  }

  /// The shift and turn, or more, that a frame's pairs ask for when they are straightened.
  void Start(Fitted& frame) const {
    std::vector<Pair> pairs;
    for (size_t i = 0; i < frame.pairs->size(); ++i) {
      const CStarPair& pair = (*frame.pairs)[i];
      if (frame.left.empty() || !frame.left[i]) {
        pairs.push_back(
            {In(distortion_.Straight(pair.frame)), In(distortion_.Straight(pair.reference)), pair.weight});
      }
    }
    const Similarity map = korimg::Fit(pairs, frame.pose.model == CFrameMap::Rigid);
    switch (frame.pose.model) {
      case CFrameMap::Rigid:
        frame.pose.numbers = {std::atan2(map.b, map.a), map.x, map.y};
        break;
      case CFrameMap::Similarity:
        frame.pose.numbers = {map.a, map.b, map.x, map.y};
        break;
      default:
        frame.pose.numbers = {map.a, -map.b, map.x, map.b, map.a, map.y, 0, 0};
    }
  }

 private:
  Point In(const Point& p) const {
    return {(p.x - units_.middle.x) / units_.half, (p.y - units_.middle.y) / units_.half};
  }
  Point Out(const Point& p) const {
    return {p.x * units_.half + units_.middle.x, p.y * units_.half + units_.middle.y};
  }
  /// A step among straight places as one of the reference's pixels.
  static Off Back(const Lens::Jacobian& lens, double dx, double dy) {
    const double determinant = lens.Determinant();
    return {(lens.yy * dx - lens.xy * dy) / determinant, (lens.xx * dy - lens.yx * dx) / determinant};
  }

  /// How an axis of what is straightened changes with a number, in units of the scale.
  static double FactorOf(const Lens::Factors& factors, const Lens::Jacobian& j, int number, int axis) {
    if (number == kCentreX) return axis == 0 ? 1 - j.xx : -j.yx;
    if (number == kCentreY) return axis == 0 ? -j.xy : 1 - j.yy;
    if (number < Lens::kRadial) return factors.radial[number][axis];
    const int term = number - Lens::kRadial;
    return term / Lens::kTerms == axis ? factors.terms[term % Lens::kTerms] : 0;
  }

  /// One step of Gauss and Newton: the numbers of frames are eliminated from those of the distortion.
  bool Step(std::vector<Fitted>& frames, double& step) {
    constexpr double kUnknown = 0.3;  // what the distortion's numbers are at most, about
    const int shared = static_cast<int>(active_.size());
    std::vector<double> all(1UL * shared * shared), right(shared);
    for (int i = 0; i < shared; ++i) {
      all[i * shared + i] = 1 / (kUnknown * kUnknown);
      right[i] = -NumberOf(active_[i]) / (kUnknown * kUnknown);
    }
    struct Own {
      std::vector<double> solved;  ///< of the frame's numbers: by those of the distortion, and alone
    };
    std::vector<Own> own;
    for (const Fitted& frame : frames) {
      const int n = kNumbersOf[frame.pose.model], columns = shared + 1;
      std::vector<double> a(1UL * n * n), b(1UL * n * columns), row(n + shared);
      for (size_t i = 0; i < frame.pairs->size(); ++i) {
        if (!frame.left.empty() && frame.left[i]) continue;
        const CStarPair& pair = (*frame.pairs)[i];
        Lens::Jacobian lens, own, by;
        const Point to = distortion_.Straight(pair.reference, &lens);
        double x[kMostNumbers], y[kMostNumbers];
        const Point at = frame.pose.At(In(distortion_.Straight(pair.frame, &own)), x, y, by);
        const Point out = Out(at);
        const auto from = distortion_.FactorsAt(pair.frame), here = distortion_.FactorsAt(pair.reference);
        double rows[2][kMostNumbers + Lens::kNumbers + 2];
        for (int k = 0; k < n; ++k) {
          const Off off = Back(lens, x[k] * units_.half, y[k] * units_.half);
          rows[0][k] = off.x, rows[1][k] = off.y;
        }
        for (int k = 0; k < shared; ++k) {
          const double fx = FactorOf(from, own, active_[k], 0), fy = FactorOf(from, own, active_[k], 1);
          const double scale = distortion_.Scale();
          const Off off = Back(lens, scale * (by.xx * fx + by.xy * fy - FactorOf(here, lens, active_[k], 0)),
                               scale * (by.yx * fx + by.yy * fy - FactorOf(here, lens, active_[k], 1)));
          rows[0][n + k] = off.x, rows[1][n + k] = off.y;
        }
        const Off off = Back(lens, out.x - to.x, out.y - to.y);
        for (int axis = 0; axis < 2; ++axis) {
          const double* r = rows[axis];
          const double left = axis == 0 ? off.x : off.y;
          for (int k = 0; k < n; ++k) {
            const double weighted = pair.weight * r[k];
            for (int j = 0; j < n; ++j) {
              a[k * n + j] += weighted * r[j];
            }
            for (int j = 0; j < shared; ++j) {
              b[k * columns + j] += weighted * r[n + j];
            }
            b[k * columns + shared] -= weighted * left;
          }
          for (int k = 0; k < shared; ++k) {
            const double weighted = pair.weight * r[n + k];
            for (int j = 0; j < shared; ++j) {
              all[k * shared + j] += weighted * r[n + j];
            }
            right[k] -= weighted * left;
          }
        }
      }
      own_ = a;
      std::vector<double> solved = b;
      if (!SolveSymmetric(a, solved, n, columns)) return false;
      for (int k = 0; k < shared; ++k) {
        for (int i = 0; i < n; ++i) {
          for (int j = 0; j < shared; ++j) {
            all[k * shared + j] -= b[i * columns + k] * solved[i * columns + j];
          }
          right[k] -= b[i * columns + k] * solved[i * columns + shared];
        }
      }
      own.push_back({std::move(solved)});
    }
    if (shared > 0 && !SolveSymmetric(all, right, shared, 1)) return false;
    Lens::Numbers numbers = distortion_.Values();
    Point centre = distortion_.Centre();
    for (int k = 0; k < shared; ++k) {
      if (active_[k] == kCentreX) {
        centre.x += right[k] * distortion_.Scale();
      } else if (active_[k] == kCentreY) {
        centre.y += right[k] * distortion_.Scale();
      } else {
        numbers[active_[k]] += right[k];
      }
      step = std::max(step, std::abs(right[k]));
    }
    distortion_ = Lens(centre, distortion_.Scale(), numbers);
    for (size_t f = 0; f < frames.size(); ++f) {
      const int n = kNumbersOf[frames[f].pose.model];
      for (int i = 0; i < n; ++i) {
        double change = own[f].solved[i * (shared + 1) + shared];
        for (int k = 0; k < shared; ++k) {
          change -= own[f].solved[i * (shared + 1) + k] * right[k];
        }
        frames[f].pose.numbers[i] += change;
        step = std::max(step, std::abs(change));
      }
    }
    return std::isfinite(step);
  }

  double NumberOf(int number) const {
    if (number == kCentreX) return (distortion_.Centre().x - units_.middle.x) / distortion_.Scale();
    if (number == kCentreY) return (distortion_.Centre().y - units_.middle.y) / distortion_.Scale();
    return distortion_.Values()[number];
  }

  Units units_;
  Lens distortion_;
  Active active_;
  std::vector<double> own_;  ///< what Gauss and Newton have to solve for the last frame
};

/// Leaves out pairs that are off by more than usual for their weights; true when that changes anything.
bool LeaveOutFar(const Fitting& fitting, std::vector<Fitted>& frames) {
  // The median of distances in a plane is sqrt(2 ln 2) sigma (Rayleigh's distribution); the least is chosen.
  constexpr double kSigmaOfMedian = 0.85, kLeast = 0.5;
  bool changes = false;
  for (Fitted& frame : frames) {
    std::vector<double> offs;
    for (const CStarPair& pair : *frame.pairs) {
      offs.push_back(std::sqrt(fitting.OffOf(frame.pose, pair).Square() * pair.weight));
    }
    std::vector<double> sorted = offs;
    const double most = kClip * std::max(kSigmaOfMedian * UpperMedian(sorted), kLeast);
    frame.left.resize(offs.size());
    for (size_t i = 0; i < offs.size(); ++i) {
      const char left = offs[i] > most;
      changes |= left != frame.left[i];
      frame.left[i] = left;
    }
  }
  return changes;
}

/// The model, or the richest one below it that so many pairs settle.
Model ModelFor(Model model, size_t pairs) {
  int richest = model;
  while (richest > 0 && pairs < static_cast<size_t>(kLeastPairs[richest])) {
    --richest;
  }
  return static_cast<Model>(richest);
}

/// Fits frames by a model, and leaves out what is far off.
bool FitAll(Fitting& fitting, std::vector<Fitted>& frames) {
  constexpr int kRounds = 4;
  for (int round = 0; round < kRounds; ++round) {
    if (!fitting.Run(frames)) return false;
    if (!LeaveOutFar(fitting, frames)) break;
  }
  return true;
}

/// What a model tells of pairs that it was not made of.
struct Verdict {
  std::vector<double> chances;  ///< of each pair, the square of its distance in deviations, limited
  double square = 0;            ///< mean square of distances, in pixels
};

/// Leaves a fifth of the pairs out in turn. What one pair tells is limited: chosen.
std::optional<Verdict> CrossCheck(const Candidate& candidate, const Lens& known, int width, int height,
                                  const std::vector<std::vector<CStarPair>>& frames) {
  constexpr int kParts = 5;
  constexpr double kMostChance = 50, kMostSquare = 25;
  Verdict verdict;
  double count = 0;
  for (const auto& pairs : frames) {
    verdict.chances.resize(verdict.chances.size() + pairs.size());
    count += static_cast<double>(pairs.size());
  }
  for (int part = 0; part < kParts; ++part) {
    std::vector<Fitted> fitted;
    for (const auto& pairs : frames) {
      Fitted frame{
          &pairs, std::vector<char>(pairs.size()), {ModelFor(candidate.model, pairs.size() * 4 / 5)}};
      for (size_t i = part; i < pairs.size(); i += kParts) {
        frame.left[i] = 1;
      }
      fitted.push_back(std::move(frame));
    }
    Fitting fitting(width, height, known, *candidate.active);
    if (!fitting.Run(fitted) || !fitting.GetLens().IsSound(width, height)) return std::nullopt;
    size_t first = 0;
    for (const Fitted& frame : fitted) {
      for (size_t i = part; i < frame.pairs->size(); i += kParts) {
        const CStarPair& pair = (*frame.pairs)[i];
        const double square = fitting.OffOf(frame.pose, pair).Square();
        verdict.chances[first + i] = std::min(square * pair.weight, kMostChance);
        verdict.square += std::min(square, kMostSquare) / count;
      }
      first += frame.pairs->size();
    }
  }
  return verdict;
}

/// A model with a lens that is known or none, and what it tells.
struct Trial {
  const Candidate* candidate;
  Lens lens;
  std::optional<Verdict> verdict = {};
};

/// Stars that were left out refute the simpler of two models.
bool IsRefuted(const Verdict& simpler, const Verdict& richer) {
  constexpr double kSigmas = 5, kMatters = 0.02;  // chosen: beyond doubt, and less than stars tell; pixels
  const auto n = static_cast<double>(simpler.chances.size());
  double sum = 0, squares = 0;
  for (size_t i = 0; i < simpler.chances.size(); ++i) {
    const double d = simpler.chances[i] - richer.chances[i];
    sum += d;
    squares += d * d;
  }
  const double mean = sum / n, error = std::sqrt(std::max(squares / n - mean * mean, 0.0) / n);
  return mean > kSigmas * error && simpler.square - richer.square > kMatters * kMatters;
}

/// A distortion is told by stars in several frames that reach the corners. How many of them was chosen; the
/// sessions of docs/performance.md, "Lenses and panels", have them.
bool MayHaveLens(const std::vector<std::vector<CStarPair>>& frames, int width, int height) {
  constexpr size_t kPairs = 100, kFrames = 2, kOfFrame = 25;
  constexpr double kOut = 0.7, kShare = 0.05;  // of half the diagonal; of the pairs
  const Units units(width, height);
  size_t all = 0, rich = 0, out = 0;
  for (const auto& pairs : frames) {
    all += pairs.size();
    rich += pairs.size() >= kOfFrame;
    out += std::count_if(pairs.begin(), pairs.end(), [&](const CStarPair& pair) {
      return Distance(pair.reference, units.middle) > kOut * units.half;
    });
  }
  return all >= kPairs && rich >= kFrames && static_cast<double>(out) > kShare * static_cast<double>(all);
}

/// Some of a list, evenly.
template <class T>
std::vector<T> Some(const std::vector<T>& all, size_t most) {
  std::vector<T> some;
  const size_t count = std::min(all.size(), most);
  for (size_t i = 0; i < count; ++i) {
    some.push_back(all[i * all.size() / count]);
  }
  return some;
}

/// The distortion that all frames share.
Lens LensOf(const Candidate& candidate, const std::vector<std::vector<CStarPair>>& frames, int width,
            int height) {
  std::vector<Fitted> fitted;
  for (const auto& pairs : frames) {
    fitted.push_back({&pairs, {}, {ModelFor(candidate.model, pairs.size())}});
  }
  Fitting fitting(width, height, {}, *candidate.active);
  const bool isSound = FitAll(fitting, fitted) && fitting.GetLens().IsSound(width, height);
  return isSound ? fitting.GetLens() : Lens();
}

/// A frame's fit with a distortion that is known.
std::optional<CFrameFitter::Fit> FitOne(const std::vector<CStarPair>& pairs, Model model, const Lens& lens,
                                        int width, int height) {
  std::vector<Fitted> frame = {{&pairs, {}, {ModelFor(model, pairs.size())}}};
  Fitting fitting(width, height, lens, {});
  if (pairs.size() < static_cast<size_t>(kLeastPairs[0]) || !FitAll(fitting, frame)) return std::nullopt;
  CFrameFitter::Fit fit;
  double squares = 0;
  for (size_t i = 0; i < pairs.size(); ++i) {
    if (frame[0].left[i]) continue;
    squares += fitting.OffOf(frame[0].pose, pairs[i]).Square();
    ++fit.stars;
  }
  fit.map = fitting.MapOf(frame[0].pose);
  fit.residual = std::sqrt(squares / std::max(fit.stars, 1));
  fit.cornerError = fitting.CornerError(frame[0].pose, width, height);
  return fit;
}

}  // namespace

void CFrameFitter::Choose(bool needsDistortion) {
  constexpr size_t kMostFrames = 60, kMostPairs = 250;  // chosen, to bound the time
  Choose(CFrameMap::Rigid);
  std::vector<std::vector<CStarPair>> frames;
  for (const auto& pairs : Some(frames_, kMostFrames)) {
    if (pairs.size() < static_cast<size_t>(kLeastPairs[CFrameMap::Similarity])) continue;
    frames.push_back(Some(pairs, kMostPairs));
  }
  if (frames.empty()) return;
  const bool looksForLens = MayHaveLens(frames, width_, height_), usesKnown = known_ && !looksForLens;
  // From the simplest on. A lens that is known makes a model no richer.
  std::vector<Trial> trials;
  for (const Candidate& candidate : kCandidates) {
    const bool hasLens = !candidate.active->empty();
    if (hasLens && !looksForLens) continue;
    const bool isWanted = hasLens || !needsDistortion || !(looksForLens || usesKnown);
    if (isWanted && (!usesKnown || &candidate == kCandidates)) trials.push_back({&candidate, Lens()});
    if (usesKnown) trials.push_back({&candidate, *known_});
  }
  // What the richest model leaves far off is no pair.
  const Trial& richest = trials.back();
  std::vector<Fitted> fitted;
  for (const auto& pairs : frames) {
    fitted.push_back({&pairs, {}, {ModelFor(richest.candidate->model, pairs.size())}});
  }
  Fitting fitting(width_, height_, richest.lens, *richest.candidate->active);
  if (!FitAll(fitting, fitted)) return;
  size_t all = 0;
  std::vector<std::vector<CStarPair>> clean;
  for (const Fitted& frame : fitted) {
    auto& pairs = clean.emplace_back();
    for (size_t i = 0; i < frame.pairs->size(); ++i) {
      if (!frame.left[i]) pairs.push_back((*frame.pairs)[i]);
    }
    all += pairs.size();
  }
  const auto check = [&](bool isTelling) {
    for (Trial& trial : trials) {
      if (trial.candidate->isTelling == isTelling)
        trial.verdict = CrossCheck(*trial.candidate, trial.lens, width_, height_, clean);
    }
  };
  const auto simplest = [&] {
    return std::find_if(trials.begin(), trials.end(), [&](const Trial& simple) {
      return simple.verdict &&
             std::none_of(&simple + 1, std::as_const(trials).data() + trials.size(), [&](const Trial& rich) {
               return rich.verdict && IsRefuted(*simple.verdict, *rich.verdict);
             });
    });
  };
  check(true);
  auto chosen = simplest();
  const bool isRigid = chosen != trials.end() && chosen->candidate == kCandidates && chosen->lens.IsNone();
  if (!isRigid) {
    check(false);
    chosen = simplest();
  }
  if (chosen == trials.end()) return;
  model_ = chosen->candidate->model;
  distortion_ =
      chosen->candidate->active->empty() ? chosen->lens : LensOf(*chosen->candidate, clean, width_, height_);
  isFitted_ = !chosen->candidate->active->empty() && !distortion_.IsNone();
  const auto off = [](const Verdict& verdict) { return std::sqrt(verdict.square); };
  char text[256];
  std::snprintf(text, sizeof text, "%s%s: stars left out in turn are off by %.3f px", chosen->candidate->name,
                chosen->lens.IsNone() ? "" : " with the lens as it is known", off(*chosen->verdict));
  text_ = text;
  const Trial& first = trials.front();
  if (chosen != trials.begin() && first.verdict) {
    std::snprintf(text, sizeof text, ", by a %s map %.3f px", first.candidate->name, off(*first.verdict));
    text_ += text;
  }
  std::snprintf(text, sizeof text, " (%zu pairs in %zu frames)", all, frames.size());
  text_ += text;
}

void CFrameFitter::Choose(Model model) {
  model_ = model;
  distortion_ = Lens();
  isFitted_ = false;
  text_ = kModelNames[model];
}

std::optional<CFrameFitter::Fit> CFrameFitter::FitFrame(const std::vector<CStarPair>& pairs) const {
  return FitOne(pairs, model_, distortion_, width_, height_);
}

std::optional<CFrameFitter::Fit> CFrameFitter::FitAlone(const std::vector<CStarPair>& pairs,
                                                        double limit) const {
  for (const Model model : {CFrameMap::Similarity, CFrameMap::Affine, CFrameMap::Homography}) {
    if (model <= model_ || ModelFor(model, pairs.size()) != model) continue;
    auto fit = FitOne(pairs, model, distortion_, width_, height_);
    if (fit && fit->residual <= limit) return fit;
  }
  return std::nullopt;
}
