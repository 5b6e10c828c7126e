#include "app/stack/StackChoices.h"

#include <algorithm>

#include <fmt/format.h>

#include "app/operations/Operations.h"

namespace korimg::tool {
namespace {

const std::vector<std::string> kMethods = {"median", "mean", "sigma", "max", "min"};  // CImgStack::Method
const std::vector<std::string> kNormalisations = {"none", "level", "level+scale"};

int NumberOf(const std::vector<std::string>& names, const std::string& name) {
  return static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
}

CImgStack::Clip ParseClip(const std::string& kappa, int iterations) {
  const size_t comma = kappa.find(',');
  const auto low = ToNumber(kappa.substr(0, comma)),
             high = comma == std::string::npos ? low : ToNumber(kappa.substr(comma + 1));
  if (!low || !high || !(*low > 0 && *high > 0 && *low <= 1000 && *high <= 1000)) {
    throw UsageError(fmt::format(
        "--kappa {}: write standard deviations, one number or LOW,HIGH, as in 2.5 or 3,2.5", kappa));
  }
  return {*low, *high, iterations};
}

}  // namespace

void StackChoices::AddTo(CLI::App& verb) {
  verb.add_option("--method", method, "what a pixel becomes; sigma is a mean without outliers")
      ->check(CLI::IsMember(kMethods));
  verb.add_option(
      "--kappa", kappa,
      "sigma: standard deviations from the median beyond which values are rejected, one number or "
      "LOW,HIGH");
  verb.add_option("--iterations", iterations, "sigma: how often at most")->check(CLI::Range(1, 100));
  verb.add_option(
          "--normalize", normalise,
          "bring each frame to the reference: the level of its sky, or its scale too, by the light of stars "
          "where "
          "register compared it, else by the spread of the pixels; auto: by level and the light of stars, "
          "by level alone where that is not known")
      ->check(CLI::IsMember([] {
        auto names = kNormalisations;
        names.insert(names.begin(), "auto");
        return names;
      }()));
  verb.add_option("--weight", weight, "of frames in means: by the noise, or by fwhm of --transforms")
      ->check(CLI::IsMember({"none", "noise", "fwhm"}));
  verb.add_option("--kernel", kernel, "how moved frames are read between their pixels")
      ->check(CLI::IsMember(kKernels));
  verb.add_option(
          "--undershoot", undershoot,
          "dark rings of bicubic and lanczos kernels beside bright stars: raised to the pixels around "
          "where they fall below the sky, or kept")
      ->check(CLI::IsMember({"clamp", "keep"}));
}

void StackChoices::Settle(bool fluxesAreCompared) {
  if (normalise == "auto") normalise = fluxesAreCompared ? "level+scale" : "level";
}

StackOptions StackChoices::Options() const {
  StackOptions options;
  options.method = static_cast<CImgStack::Method>(NumberOf(kMethods, method));
  options.clip = ParseClip(kappa, iterations);
  options.normalisation = static_cast<Normalisation>(NumberOf(kNormalisations, normalise));
  options.kernel = NumberOf(kKernels, kernel);
  options.clampUndershoot = undershoot == "clamp";
  return options;
}

std::string StackChoices::Text() const {
  std::string text = "--method " + method;
  if (method == "sigma") text += fmt::format(" --kappa {} --iterations {}", kappa, iterations);
  return text + fmt::format(" --normalize {} --weight {} --kernel {} --undershoot {}", normalise, weight,
                            kernel, undershoot);
}

void StackChoices::Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms,
                         int reference) const {
  std::vector<double> weights(inputs.size(), 1.0);
  if (weight == "noise") weights = NoiseWeights(inputs, reference, Options().normalisation);
  if (weight == "fwhm") {
    double best = 0;
    for (const double fwhm : fwhms) {
      if (fwhm > 0 && (best == 0 || fwhm < best)) best = fwhm;
    }
    for (size_t i = 0; i < inputs.size(); ++i) {
      const double ratio = fwhms[i] > 0 ? best / fwhms[i] : 1;
      weights[i] = ratio * ratio;
    }
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    inputs[i].weight = weights[i];
  }
}

}  // namespace korimg::tool
