#include "session/stack/StackChoices.h"

#include <fmt/format.h>

#include "session/operations/Kernels.h"

namespace korimg::session {
namespace {

const std::vector<Named<Normalisation>> kNormalisations = {{"none", Normalisation::None},
                                                           {"level", Normalisation::Level},
                                                           {"level+scale", Normalisation::LevelAndScale}};

/// The limits of a test unless told otherwise.
double UsualKappa(Rejection::Test test) {
  switch (test) {
    case Rejection::Sigma:
      return 2.5;
    case Rejection::Noise:
      return 5;
    default:
      return 3;
  }
}

Rejection ParseRejection(const StackChoices& choices) {
  const std::string& kappa = choices.kappa;
  const Rejection::Test test = ValueOf(kRejections, choices.reject);
  if (kappa == "auto") return {test, UsualKappa(test), UsualKappa(test), choices.iterations};
  if (test == Rejection::Auto || test == Rejection::Esd || test == Rejection::None) {
    throw UsageError(fmt::format(
        "--kappa is for --reject sigma, winsorized, linear-fit and noise; {} has limits of its own",
        choices.reject));
  }
  const size_t comma = kappa.find(',');
  const auto low = ToNumber(kappa.substr(0, comma)),
             high = comma == std::string::npos ? low : ToNumber(kappa.substr(comma + 1));
  if (!low || !high || !(*low > 0 && *high > 0 && *low <= 1000 && *high <= 1000)) {
    throw UsageError(fmt::format(
        "--kappa {}: write standard deviations, one number or LOW,HIGH, as in 2.5 or 3,2.5", kappa));
  }
  return {test, *low, *high, choices.iterations};
}

}  // namespace

void StackChoices::Settle(bool fluxesAreCompared) {
  if (normalise == "auto") normalise = fluxesAreCompared ? "level+scale" : "level";
}

StackOptions StackChoices::Options() const {
  if (drizzle && method != "mean") {
    throw UsageError(fmt::format(
        "--drizzle makes weighted means of what falls on a pixel, and no --method {}; leave it out", method));
  }
  if (drizzle &&
      !(drizzle->scale >= 1 && drizzle->scale <= 4 && drizzle->pixfrac >= 0.01 && drizzle->pixfrac <= 1)) {
    throw UsageError(
        fmt::format("--drizzle {:g} --pixfrac {:g}: scales of 1 to 4 and fractions of 0.01 to 1 are possible",
                    drizzle->scale, drizzle->pixfrac));
  }
  StackOptions options;
  options.method = ValueOf(kStackMethods, method);
  options.rejection = ParseRejection(*this);
  options.normalisation = ValueOf(kNormalisations, normalise);
  options.kernel = ValueOf(kKernels, kernel);
  options.clampUndershoot = undershoot == "clamp";
  return options;
}

std::string StackChoices::Text() const {
  std::string text = "--method " + method;
  if (method == "mean") text += " --reject " + reject;
  if (Rejects() && kappa != "auto") text += " --kappa " + kappa;
  if (Rejects() && iterations != StackChoices().iterations)
    text += fmt::format(" --iterations {}", iterations);
  if (drizzle) {
    text += fmt::format(" --drizzle {:g} --pixfrac {:g} --drizzle-kernel {}", drizzle->scale,
                        drizzle->pixfrac, NameOf(kDrizzleKernels, drizzle->kernel));
  }
  return text + fmt::format(" --normalize {} --weight {} --kernel {} --undershoot {}", normalise, weight,
                            kernel, undershoot);
}

void StackChoices::Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms,
                         int reference) const {
  std::vector<CImgStack::PlaneWeights> weights(inputs.size(), {1, 1, 1});
  if (weight == "noise") weights = NoiseWeights(inputs, reference, Options().normalisation);
  if (weight == "fwhm") {
    double best = 0;
    for (const double fwhm : fwhms) {
      if (fwhm > 0 && (best == 0 || fwhm < best)) best = fwhm;
    }
    for (size_t i = 0; i < inputs.size(); ++i) {
      const double ratio = fwhms[i] > 0 ? best / fwhms[i] : 1;
      weights[i].fill(ratio * ratio);
    }
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    inputs[i].weights = weights[i];
  }
}

}  // namespace korimg::session
