#include "korimg/restoration/CImgMem.h"

#include <algorithm>
#include <cmath>

#include "korimg/restoration/internal/Restoration.h"

using namespace korimg;

namespace {

enum Message : int { Preparing = 6158, Iterating = 6160, Measuring = 6162 };

/// Of an iteration.
enum Steps : int { Blurred = 20, Moved = 20, AllSteps = 100 };

constexpr int kDirections = 3;
using Vector = std::array<double, kDirections>;
using Matrix = std::array<Vector, kDirections>;

/// Solves (a + share b) x = v for symmetric positive matrices, by elimination. A direction that leads nowhere
/// gets none of it.
Vector Solve(const Matrix& a, const Matrix& b, double share, Vector v) {
  Matrix m = a;
  for (int i = 0; i < kDirections; ++i) {
    for (int j = 0; j < kDirections; ++j) {
      m[i][j] += share * b[i][j];
    }
  }
  constexpr double kNothing = 1e-12;  // relative: what elimination in double leaves of 0
  Vector scale{};
  for (int i = 0; i < kDirections; ++i) {
    scale[i] = m[i][i];
  }
  for (int i = 0; i < kDirections; ++i) {
    if (!(m[i][i] > kNothing * scale[i])) {
      m[i] = {};
      v[i] = 0;
      continue;
    }
    for (int j = i + 1; j < kDirections; ++j) {
      const double factor = m[j][i] / m[i][i];
      for (int k = i; k < kDirections; ++k) {
        m[j][k] -= factor * m[i][k];
      }
      v[j] -= factor * v[i];
    }
  }
  Vector x{};
  for (int i = kDirections - 1; i >= 0; --i) {
    if (!(m[i][i] > 0)) continue;
    double rest = v[i];
    for (int j = i + 1; j < kDirections; ++j) {
      rest -= m[i][j] * x[j];
    }
    x[i] = rest / m[i][i];
  }
  return x;
}

double Form(const Vector& x, const Matrix& m) {
  double sum = 0;
  for (int i = 0; i < kDirections; ++i) {
    for (int j = 0; j < kDirections; ++j) {
      sum += x[i] * m[i][j] * x[j];
    }
  }
  return sum;
}

/// Entropy and half of chi-square about the estimate, along the directions.
struct Subspace {
  Matrix metric{};     ///< sums of products of directions, over the estimate: the entropy's curvature
  Matrix curvature{};  ///< of half of chi-square
  Vector rise{};       ///< slopes of the entropy
  Vector fall{};       ///< of half of chi-square, downwards
  double misfit = 0;   ///< half of chi-square at the estimate

  double MisfitAt(const Vector& x) const {
    double sum = misfit + 0.5 * Form(x, curvature);
    for (int i = 0; i < kDirections; ++i) {
      sum -= fall[i] * x[i];
    }
    return sum;
  }
  /// Where the entropy less `share` of the misfit is largest.
  Vector Largest(double share) const {
    Vector slope = rise;
    for (int i = 0; i < kDirections; ++i) {
      slope[i] += share * fall[i];
    }
    return Solve(metric, curvature, share, slope);
  }
};

/// Restores one plane.
class MemEngine {
 public:
  MemEngine(int width, int height, double sigma, double noise, CVmManager& store)
      : frame_(width, height, sigma, store), noise_(noise) {}

  /// False when a step of the display tells of Escape.
  template <class Next, class Step>
  bool Run(float* pixels, int iterations, Next&& showNext, Step&& step) {
    frame_.Place(pixels, data_);
    Start();
    for (int i = 1; i <= iterations; ++i) {
      showNext(i);
      frame_.ForCells([d = data_, m = model_, w = work_, weight = weight_](size_t k)
                          KORIMG_IN_LOOP { w[k] = d[k] == d[k] ? (d[k] - m[k]) * weight : 0.0f; });
      frame_.Blur(work_, fall_);
      if (!step(Blurred)) return false;
      const auto mean = static_cast<double>(mean_);
      frame_.ForCells([=, e = estimate_, f = fall_, r = rise_, byRise = byRise_, byFall = byFall_](size_t k)
                          KORIMG_IN_LOOP {
                            r[k] = static_cast<float>(-BinaryLogarithm(e[k] / mean) * std::numbers::ln2);
                            byRise[k] = e[k] * r[k];
                            byFall[k] = e[k] * f[k];
                          });
      frame_.Blur(byRise_, byRise_);
      if (!step(Blurred)) return false;
      frame_.Blur(byFall_, byFall_);
      if (!step(Blurred)) return false;
      const Subspace space = Measure();
      if (IsDone(space)) break;
      Move(space, i);
      frame_.Blur(step_, byStep_);
      if (!step(Blurred)) return false;
      frame_.ForCells([m = model_, b = byStep_](size_t k) KORIMG_IN_LOOP { m[k] += b[k]; });
      if (!step(Moved)) return false;
    }
    frame_.Take(estimate_, pixels);
    return true;
  }

 private:
  /// Begins with the data blurred once more, above 0 everywhere.
  void Start() {
    constexpr double kLeast = 1e-2;  // of the mean; chosen
    const auto [sum, count] = frame_.Sum<2>([d = data_](size_t i) KORIMG_IN_LOOP {
      return std::array{d[i] > 0 ? d[i] : 0.0f, d[i] == d[i] ? 1.0f : 0.0f};
    });
    count_ = count;
    constexpr double kNothing = 1e-30;
    mean_ = static_cast<float>(std::max(count > 0 ? sum / count : 0, kNothing));
    constexpr double kLeastNoise =
        1e-5;  // of the mean: less is never explained, nor its weight held by a float
    const double noise = std::max(noise_, kLeastNoise * mean_);
    weight_ = static_cast<float>(1 / (noise * noise));
    frame_.ForCells([d = data_, w = work_, mean = mean_](size_t i)
                        KORIMG_IN_LOOP { w[i] = d[i] == d[i] ? d[i] : mean; });
    frame_.Blur(work_, estimate_);
    frame_.ForCells([e = estimate_, s = step_, b = byStep_,
                     least = static_cast<float>(mean_ * kLeast)](size_t i) KORIMG_IN_LOOP {
      e[i] = e[i] > least ? e[i] : least;
      s[i] = b[i] = 0;
    });
    frame_.Blur(estimate_, model_);
  }

  Subspace Measure() const {
    const auto metric =
        frame_.Sum<6>([e = estimate_, r = rise_, f = fall_, s = step_](size_t i) KORIMG_IN_LOOP {
          return std::array{e[i] * r[i] * r[i], e[i] * r[i] * f[i], r[i] * s[i],
                            e[i] * f[i] * f[i], f[i] * s[i],        s[i] * s[i] / e[i]};
        });
    const auto curvature = frame_.Sum<7>(
        [d = data_, m = model_, r = byRise_, f = byFall_, s = byStep_, w = weight_](size_t i) KORIMG_IN_LOOP {
          const float weight = d[i] == d[i] ? w : 0.0f, data = d[i] == d[i] ? d[i] : m[i],
                      difference = data - m[i];
          return std::array{r[i] * r[i] * weight,
                            r[i] * f[i] * weight,
                            r[i] * s[i] * weight,
                            f[i] * f[i] * weight,
                            f[i] * s[i] * weight,
                            s[i] * s[i] * weight,
                            difference * difference * weight};
        });
    const auto symmetric = [](const auto& v) {
      return Matrix{Vector{v[0], v[1], v[2]}, Vector{v[1], v[3], v[4]}, Vector{v[2], v[4], v[5]}};
    };
    Subspace space{symmetric(metric), symmetric(curvature)};
    space.rise = space.metric[0];
    space.fall = space.metric[1];
    space.misfit = curvature[6] / 2;
    return space;
  }

  double ChiSquare(const Subspace& space) const { return count_ > 0 ? 2 * space.misfit / count_ : 0; }

  /// Both slopes are along one line, against each other.
  bool IsDone(const Subspace& space) const {
    constexpr double kExact = 0.01, kParallel = 0.99;  // chosen: 8 degrees between the slopes
    const double product = std::sqrt(space.metric[0][0] * space.metric[1][1]);
    return std::abs(ChiSquare(space) - 1) < kExact && -space.metric[0][1] >= kParallel * product;
  }

  /// Steps to the largest entropy at a misfit that is nearer to the aim.
  void Move(const Subspace& space, int iteration) {
    // Two thirds of the way to the least misfit within reach (Skilling and Bryan 1984); the span is chosen.
    constexpr double kWay = 2.0 / 3, kSpan = 80;
    constexpr int kHalvings = 100;
    const double aim = count_ / 2, least = space.MisfitAt(Solve({}, space.curvature, 1, space.fall));
    const double goal = std::max(aim, space.misfit + kWay * (std::min(least, space.misfit) - space.misfit));
    double low = -kSpan, high = kSpan;
    for (int i = 0; i < kHalvings; ++i) {
      const double middle = (low + high) / 2;
      (space.MisfitAt(space.Largest(std::exp(middle))) > goal ? low : high) = middle;
    }
    Vector x = space.Largest(std::exp(high));
    // The forms above hold as far as cells change by a share of themselves: 0.1 to 0.5 of the light (Skilling
    // and Bryan 1984).
    constexpr double kTrusted = 0.3;
    const auto [light] = frame_.Sum<1>([e = estimate_](size_t i) KORIMG_IN_LOOP { return std::array{e[i]}; });
    const double distance = Form(x, space.metric);
    const double shorter = distance > kTrusted * light ? std::sqrt(kTrusted * light / distance) : 1;
    for (double& v : x) {
      v *= shorter;
    }
    Diagnose("main iter %20d     g function %20.12e", iteration, ChiSquare(space));
    Diagnose("sub  iter %20.1f     a value    %20.12e", std::sqrt(distance / light), std::exp(high));
    constexpr float kFalls = -0.9f, kFloor = 1e-6f;  // of a cell, and of the mean; chosen
    frame_.ForCells([e = estimate_, r = rise_, f = fall_, s = step_, floor = kFloor * mean_,
                     a = static_cast<float>(x[0]), b = static_cast<float>(x[1]),
                     c = static_cast<float>(x[2])](size_t i) KORIMG_IN_LOOP {
      const float before = e[i], wanted = before * (a * r[i] + b * f[i]) + c * s[i], lowest = kFalls * before;
      const float after = before + (wanted > lowest ? wanted : lowest);
      e[i] = after > floor ? after : floor;
      s[i] = e[i] - before;
    });
  }

  BlurFrame frame_;
  double noise_;
  float weight_ = 0;  ///< of a pixel: 1 / noise^2
  float* data_ = frame_.NewPlane();
  float* estimate_ = frame_.NewPlane();
  float* model_ = frame_.NewPlane();   ///< the estimate blurred
  float* rise_ = frame_.NewPlane();    ///< the entropy's slope in each cell
  float* fall_ = frame_.NewPlane();    ///< that of half of chi-square, downwards
  float* step_ = frame_.NewPlane();    ///< the last one
  float* byRise_ = frame_.NewPlane();  ///< what the model changes by along each direction
  float* byFall_ = frame_.NewPlane();
  float* byStep_ = frame_.NewPlane();
  float* work_ = frame_.NewPlane();
  float mean_ = 0;    ///< of the data
  double count_ = 0;  ///< of the data
};

}  // namespace

int CImgMem::Do(double fSigma, double fNoise, int nIterations, CRect* pRect, int nShowProgress) {
  const Window window(*this, pRect);
  if (!(fSigma > 0) || !(fNoise > 0)) return 0;
  constexpr int kMost = 1000000;
  const int iterations = std::clamp(nIterations, 0, kMost);
  const ProgressScope progress(*this, nShowProgress, Preparing, GetPlanes() * iterations * AllSteps);
  if (iterations == 0) return 1;
  const int done = RestorePlanes(*this, window, [&](int p, float* pixels, CVmManager& store) {
    ShowStage(*this, nShowProgress, Preparing, p);
    MemEngine engine(window.Width(), window.Height(), fSigma, fNoise, store);
    ShowStage(*this, nShowProgress, Measuring, p);
    return engine.Run(
        pixels, iterations, [&](int i) { ShowStage(*this, nShowProgress, Iterating, p, i); },
        [&](int steps) { return ShowProgress(steps); });
  });
  if (done) ShowProgressRest();
  return done;
}
