#include "session/stack/StackChoices.h"

#include <fmt/format.h>

#include "session/operations/Kernels.h"

namespace korimg::session {
namespace {

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

[[noreturn]] void ThrowKappa(const std::string& text) {
  throw UsageError(
      fmt::format("--kappa {}: write standard deviations, one number or LOW,HIGH, as in 2.5 or 3,2.5", text));
}

Rejection RejectionOf(const StackChoices& choices) {
  const Rejection::Test test = choices.reject;
  const std::optional<Kappa>& kappa = choices.kappa;
  if (!kappa) return {test, UsualKappa(test), UsualKappa(test), choices.iterations};
  if (test == Rejection::Auto || test == Rejection::Esd || test == Rejection::None) {
    throw UsageError(fmt::format(
        "--kappa is for --reject sigma, winsorized, linear-fit and noise; {} has limits of its own",
        NameOf(kRejections, test)));
  }
  const auto isLimit = [](double k) { return k > 0 && k <= 1000; };
  if (!isLimit(kappa->low) || !isLimit(kappa->high)) ThrowKappa(TextOf(kappa));
  return {test, kappa->low, kappa->high, choices.iterations};
}

}  // namespace

std::optional<Kappa> KappaFrom(const std::string& text) {
  if (text == "auto") return std::nullopt;
  const size_t comma = text.find(',');
  const auto low = ToNumber(text.substr(0, comma)),
             high = comma == std::string::npos ? low : ToNumber(text.substr(comma + 1));
  if (!low || !high) ThrowKappa(text);
  return Kappa{*low, *high};
}

std::string TextOf(const std::optional<Kappa>& kappa) {
  if (!kappa) return "auto";
  return kappa->low == kappa->high ? fmt::format("{}", kappa->low)
                                   : fmt::format("{},{}", kappa->low, kappa->high);
}

void StackChoices::Settle(bool fluxesAreCompared) {
  if (!normalise) normalise = fluxesAreCompared ? Normalisation::LevelAndScale : Normalisation::Level;
}

StackOptions StackChoices::Options() const {
  if (drizzle && method != CImgStack::Mean) {
    throw UsageError(fmt::format(
        "--drizzle makes weighted means of what falls on a pixel, and no --method {}; leave it out",
        NameOf(kStackMethods, method)));
  }
  if (drizzle &&
      !(drizzle->scale >= 1 && drizzle->scale <= 4 && drizzle->pixfrac >= 0.01 && drizzle->pixfrac <= 1)) {
    throw UsageError(
        fmt::format("--drizzle {:g} --pixfrac {:g}: scales of 1 to 4 and fractions of 0.01 to 1 are possible",
                    drizzle->scale, drizzle->pixfrac));
  }
  StackOptions options;
  options.method = method;
  options.rejection = RejectionOf(*this);
  options.normalisation = normalise.value_or(Normalisation::Level);
  options.kernel = kernel;
  options.clampUndershoot = clampUndershoot;
  return options;
}

std::string StackChoices::Text() const {
  std::string text = "--method " + NameOf(kStackMethods, method);
  if (method == CImgStack::Mean) text += " --reject " + NameOf(kRejections, reject);
  if (Rejects() && kappa) text += " --kappa " + TextOf(kappa);
  if (Rejects() && iterations != StackChoices().iterations)
    text += fmt::format(" --iterations {}", iterations);
  if (drizzle) {
    text += fmt::format(" --drizzle {:g} --pixfrac {:g} --drizzle-kernel {}", drizzle->scale,
                        drizzle->pixfrac, NameOf(kDrizzleKernels, drizzle->kernel));
  }
  return text + fmt::format(" --normalize {} --weight {} --kernel {} --undershoot {}",
                            NameOf(kNormalisations, normalise), NameOf(kFrameWeights, weight),
                            NameOf(kKernels, kernel), NameOf(kUndershoots, clampUndershoot));
}

void StackChoices::Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms,
                         int reference) const {
  std::vector<CImgStack::PlaneWeights> weights(inputs.size(), {1, 1, 1});
  if (weight == FrameWeights::Noise) weights = NoiseWeights(inputs, reference, Options().normalisation);
  if (weight == FrameWeights::Fwhm) {
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
