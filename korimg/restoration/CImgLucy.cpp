#include "korimg/restoration/CImgLucy.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/restoration/internal/Restoration.h"

using namespace korimg;

namespace {

enum Message : int { Preparing = 6154, Iterating = 6156 };

/// Of an iteration.
enum Steps : int { Blurred = 20, Corrected = 50, Compared = 10, AllSteps = 100 };

/// Restores one plane.
class LucyCore {
 public:
  /// `variance`, of what is read, in electrons, counts in chi-square beside that of light and read noise.
  LucyCore(int width, int height, double sigma, double gain, double readNoise, double variance,
           double background, CVmManager& store)
      : frame_(width, height, sigma, store),
        gain_(static_cast<float>(gain)),
        background_(static_cast<float>(background)),
        noise_(static_cast<float>(std::max(readNoise * readNoise / gain + background, 0.0))),
        variance_(static_cast<float>(variance)) {}

  /// False when a step of the display tells of Escape.
  template <class Next, class Step>
  bool Run(float* pixels, int iterations, Next&& showNext, Step&& step) {
    frame_.Place(pixels, data_, background_);
    ListNegative();
    Start();
    Diagnose("Initial chi-sq = %g", Move(0));
    int done = 0;
    for (double chi = 2; chi > kAim && done < iterations;) {
      showNext(++done);
      frame_.Blur(work_, work_);
      if (!step(Blurred)) return false;
      ChooseDirection();
      frame_.Blur(direction_, work_);
      if (!step(Blurred)) return false;
      const double factor = SearchAlongDirection();
      if (!step(Corrected)) return false;
      chi = Move(factor);
      Diagnose("Iteration %d : chi-sq = %g", done, chi);
      if (chi <= kAim) Diagnose("Total Iterations %d   chi-sq <= %g,  converged", done, kAim);
      if (!step(Compared)) return false;
    }
    KeepLight();
    frame_.Take(estimate_, pixels, background_);
    return true;
  }

 private:
  static constexpr double kAim = 1.0;  ///< of chi-square a pixel: noise alone is left

  /// Tells of pixels far below 0, a hundred at most: a sign of a wrong pedestal. Both limits are chosen.
  void ListNegative() const {
    constexpr double kSigmas = 5.0;
    constexpr int kMost = 100;
    const double threshold = kSigmas * std::sqrt(noise_);
    int found = 0;
    frame_.ForData([&](int x, int y, size_t cell) {
      if (!(data_[cell] < -threshold) || found == kMost) return;
      if (found++ == 0) Diagnose("List of pixels below threshold -%g (-%g sigma)", threshold, kSigmas);
      Diagnose("pixel (%d,%d); value %g", x, y, data_[cell]);
    });
  }

  /// The data blurred once more, which a first plain step from a constant would give; above 0 everywhere, or
  /// a cell could not rise any more.
  void Start() {
    constexpr float kSeen = 1e-3f;   // of a cell's light by data, at least; rounding is far below
    constexpr double kLeast = 1e-2;  // of the mean; chosen
    frame_.ForCells([=, d = data_, w = work_](size_t i)
                        KORIMG_IN_LOOP { w[i] = d[i] == d[i] ? 1.0f : 0.0f; });
    frame_.Blur(work_, weight_);
    const auto [sum, count] = frame_.Sum<2>([d = data_](size_t i) KORIMG_IN_LOOP {
      return std::array{d[i] > 0 ? d[i] : 0.0f, d[i] == d[i] ? 1.0f : 0.0f};
    });
    const auto mean = static_cast<float>(count > 0 ? sum / count : 0),
               least = static_cast<float>(mean * kLeast);
    frame_.ForCells([=, d = data_, w = work_](size_t i) KORIMG_IN_LOOP { w[i] = d[i] > 0 ? d[i] : 0.0f; });
    frame_.Blur(work_, estimate_);
    frame_.ForCells([=, e = estimate_, w = weight_, p = direction_](size_t i) KORIMG_IN_LOOP {
      const float inverse = w[i] > kSeen ? 1 / w[i] : 0.0f, value = w[i] > kSeen ? e[i] * inverse : mean;
      e[i] = value > least ? value : least;
      w[i] = inverse;
      p[i] = 0;
    });
    frame_.Blur(estimate_, model_);
  }

  /// The plain step E (R - 1), with a share of the direction before.
  void ChooseDirection() {
    const auto gradient = [w = work_, inverse = weight_](size_t i)
                              KORIMG_IN_LOOP { return (w[i] * inverse[i] - 1) * Where(inverse[i] > 0); };
    const auto [power, slope] =
        frame_.Sum<2>([=, e = estimate_, p = direction_, inverse = weight_](size_t i) KORIMG_IN_LOOP {
          const float g = gradient(i), weight = RatioOrZero(1, inverse[i]);
          return std::array{e[i] * g * g * weight, p[i] * g * weight};
        });
    const double share = power_ > 0 ? power / power_ : 0;
    power_ = power;
    const bool climbs = power + share * slope > 0;
    // Chosen: the most that a cell loses in a step, or it would never rise again.
    constexpr float kKeeps = 0.9f;
    const auto s = static_cast<float>(climbs ? share : 0), limit = static_cast<float>(-kKeeps / most_);
    frame_.ForCells([=, e = estimate_, p = direction_](size_t i) KORIMG_IN_LOOP {
      const float value = e[i] * gradient(i) + s * p[i], lowest = limit * e[i];
      p[i] = value > lowest ? value : lowest;
    });
  }

  /// How far the likelihood rises along the direction, whose blur is in work_; Newton's method.
  double SearchAlongDirection() {
    constexpr int kRounds = 4;       // chosen: Newton's steps converge in few
    constexpr double kExact = 1e-2;  // chosen: of the factor, since a direction lasts for a step only
    double factor = 1;
    for (int i = 0; i < kRounds; ++i) {
      const auto [slope, curvature] =
          frame_.Sum<2>([d = data_, m = model_, b = work_, n = noise_,
                         c = static_cast<float>(factor)](size_t i) KORIMG_IN_LOOP {
            const float numerator = (d[i] > -n ? d[i] : -n) + n, denominator = m[i] + n + c * b[i];
            const float ratio = RatioOrZero(b[i], denominator), counts = Where(d[i] == d[i]);
            return std::array{(numerator * ratio - b[i]) * counts, numerator * ratio * ratio};
          });
      const double before = factor;
      if (curvature > 0) factor = std::clamp(factor + slope / curvature, 0.0, most_);
      if (std::abs(factor - before) <= kExact * factor) break;
    }
    Diagnose("%s  CMIN = %g, CMAX = %g, C = %g",
             factor < most_ ? "Accelerated iteration" : "Turbo iteration      ", 0.0, most_, factor);
    return factor;
  }

  /// Steps along the direction. Answers chi-square there, and leaves in work_ the ratios that the next
  /// correction is the mean of: 0 without data.
  double Move(double factor) {
    const auto [sum, count] =
        frame_.Sum<2>([d = data_, e = estimate_, m = model_, p = direction_, w = work_, n = noise_, g = gain_,
                       v = variance_, c = static_cast<float>(factor)](size_t i) KORIMG_IN_LOOP {
          e[i] += c * p[i];
          m[i] += c * w[i];
          const float numerator = (d[i] > -n ? d[i] : -n) + n, denominator = m[i] + n;
          w[i] = RatioOrZero(numerator, denominator);
          const float counts = Where(d[i] == d[i]), data = d[i] == d[i] ? d[i] : m[i];
          const float difference = g * (data - m[i]), variance = denominator * g + v;
          return std::array{RatioOrZero(difference * difference, variance), counts * Where(variance > 0)};
        });
    constexpr double kLeast = 2, kRoom = 2;  // chosen
    if (factor > 0) most_ = std::max(kLeast, kRoom * factor);
    return count > 0 ? sum / count : 0;
  }

  /// Few steps have not brought all light back, of the faint most of all.
  void KeepLight() {
    const auto [data, model] = frame_.Sum<2>([d = data_, m = model_](size_t i) KORIMG_IN_LOOP {
      const float counts = Where(d[i] == d[i]);
      return std::array{d[i] == d[i] ? d[i] : 0.0f, m[i] * counts};
    });
    if (!(data > 0) || !(model > 0)) return;
    frame_.ForCells([e = estimate_, factor = static_cast<float>(data / model)](size_t i)
                        KORIMG_IN_LOOP { e[i] *= factor; });
  }

  BlurFrame frame_;
  float gain_;
  float background_;  ///< what data lie above
  float noise_;       ///< raw light that is no part of the estimate, read noise among it
  float variance_;    ///< in electrons, beside that of light
  float* data_ = frame_.NewPlane();
  float* estimate_ = frame_.NewPlane();
  float* model_ = frame_.NewPlane();      ///< the estimate blurred
  float* direction_ = frame_.NewPlane();  ///< of the last step
  float* weight_ = frame_.NewPlane();  ///< the inverse of how much of a cell's light data see; 0 for nothing
  float* work_ = frame_.NewPlane();
  double power_ = 0;  ///< of the last plain step
  double most_ = 4;   ///< steps along the direction
};

}  // namespace

int CImgLucy::Do(double fSigma, double fGain, double fReadNoise, int nIterations, CRect* pRect,
                 int nShowProgress) {
  const std::vector<double> none(std::max(GetPlanes(), 1));
  return Restore(fSigma, fGain, fReadNoise, fReadNoise * fReadNoise, nIterations, none.data(), pRect,
                 nShowProgress);
}

int CImgLucy::DoAboveBackground(double sigma, double gain, double readNoise, int iterations,
                                const double* background, CRect* rect, int show) {
  return Restore(sigma, gain, readNoise, 0, iterations, background, rect, show);
}

int CImgLucy::Restore(double sigma, double gain, double readNoise, double variance, int iterations,
                      const double* background, CRect* rect, int show) {
  const Window window(*this, rect);
  if (!(sigma > 0) || !(gain > 0) || !std::isfinite(readNoise)) return 0;
  constexpr int kMost = 1000000;
  const int most = std::clamp(iterations, 0, kMost);
  const ProgressScope progress(*this, show, Preparing, GetPlanes() * most * AllSteps);
  if (most == 0) return 1;
  const int done = RestorePlanes(*this, window, [&](int p, float* pixels, CVmManager& store) {
    ShowStage(*this, show, Preparing, p);
    LucyCore core(window.Width(), window.Height(), sigma, gain, readNoise, variance, background[p], store);
    return core.Run(
        pixels, most, [&](int i) { ShowStage(*this, show, Iterating, p, i); },
        [&](int steps) { return ShowProgress(steps); });
  });
  if (done) ShowProgressRest();
  return done;
}
