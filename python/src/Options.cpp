#include "python/src/Options.h"

#include <algorithm>

#include <fmt/ranges.h>

#include "session/operations/Kernels.h"

namespace korimg::python {

void Values::Number(const char* key, double least, double most, double& to) const {
  double value = to;
  Take(key, value);
  if (!(value >= least && value <= most)) {
    throw UsageError(fmt::format("{}={} is not from {} to {}", key, value, least, most));
  }
  to = value;
}

void Values::Word(const char* key, const std::vector<std::string>& words, std::string& to) const {
  std::string word = to;
  Take(key, word);
  if (std::find(words.begin(), words.end(), word) == words.end()) {
    throw UsageError(fmt::format("{}: '{}' is none of {}", key, word, fmt::join(words, ", ")));
  }
  to = word;
}

void TakeStackChoices(const Values& values, StackChoices& choices) {
  values.Choose("method", kStackMethods, choices.method);
  values.Choose("reject", kRejections, choices.reject);
  std::string kappa = "auto";
  values.Take("kappa", kappa);
  choices.kappa = session::KappaFrom(kappa);
  values.Take("iterations", choices.iterations);
  if (choices.iterations < 1 || choices.iterations > 100) {
    throw UsageError(fmt::format("iterations={} is not from 1 to 100", choices.iterations));
  }
  values.Choose("normalize", kNormalisations, choices.normalise);
  values.Choose("weight", kFrameWeights, choices.weight);
  values.Choose("kernel", kKernels, choices.kernel);
  values.Choose("undershoot", kUndershoots, choices.clampUndershoot);
  CImgDrizzle::Options drizzle;
  double scale = 0;
  values.Take("drizzle", scale);
  if (scale == 0) return;
  drizzle.scale = scale;  // limits are those of StackChoices::Options
  values.Take("pixfrac", drizzle.pixfrac);
  values.Choose("drizzle_kernel", kDrizzleKernels, drizzle.kernel);
  choices.drizzle = drizzle;
}

void TakeMosaicOptions(const Values& values, DevelopOptions& options) {
  std::vector<std::string> patterns = files::CfaNames();
  patterns.emplace_back();
  values.Word("cfa", patterns, options.mosaic.cfa);
  values.Word("row_order", {"top-down", "bottom-up", ""}, options.mosaic.rowOrder);
  std::string balance = "auto";
  values.Take("white_balance", balance);
  options.whiteBalance = session::WhiteBalanceFrom(balance);
}

void TakeCalibrationOptions(const Values& values, CalibrateOptions& options) {
  values.Take("out", options.out);
  values.Take("masters", options.masters);
  values.Take("pedestal", options.pedestal);
  if (options.pedestal && !(*options.pedestal >= 0 && *options.pedestal <= 1e6)) {
    throw UsageError(fmt::format("pedestal={} is not from 0 to 1e6", *options.pedestal));
  }
  values.Take("allow_mismatch", options.allowMismatch);
  values.Take("group", options.group);
  values.Choose("cosmetic", kCosmetics, options.cosmetic);
  values.Take("maps", options.maps);
  if (options.maps && options.cosmetic == Cosmetic::None) {
    throw UsageError("maps are of what cosmetic=\"auto\" finds");
  }
  TakeMosaicOptions(values, options.develop);
  values.Take("uncertainty", options.quality.uncertainty);
  values.Take("mask", options.quality.mask);
  const auto positive = [&](const char* key, std::optional<double>& to) {
    values.Take(key, to);
    if (to && !(*to > 0)) throw UsageError(fmt::format("{}={} is not above 0", key, *to));
  };
  positive("gain", options.quality.gain);
  positive("read_noise", options.quality.readNoise);
}

void TakeComposeOptions(const Values& values, ComposeOptions& options) {
  values.Choose("composition", kCompositions, options.composition);
  values.Take("register", options.registers);
  values.Take("crop", options.crops);
  values.Choose("levels", kLevelsBy, options.levels);
  values.Choose("background", kBackgrounds, options.backgrounds);
  values.Choose("kernel", kKernels, options.kernel);
}

void TakeRenderOptions(const Values& values, RenderOptions& options) {
  values.Choose("level", kLevelMethods, options.level);
  values.Number("scale", 0.001, 1, options.scale);
  Annotations told;
  bool annotate = false;
  values.Take("annotate", annotate);
  values.Take("title", told.title);
  values.Take("scale_bar", told.scaleBar);
  values.Take("stars", told.stars);
  if (annotate || !told.title.empty() || told.scaleBar || !told.stars.empty()) options.annotations = told;
}

void TakeRunOptions(const Values& values, RunOptions& options) {
  TakeCalibrationOptions(values, options.calibrate);
  TakeStackChoices(values, options.stack);
  values.Take("reference", options.reference);
  values.Take("include", options.include);
  values.Take("exclude", options.exclude);
  std::filesystem::path selection;
  values.Take("selection", selection);
  if (!selection.empty()) AddSelection(options, selection);
  values.Number("min_stars", 0, 1, options.limits.stars);
  values.Number("max_fwhm", 0, 100, options.limits.fwhm);
  values.Number("max_elongation", 0, 100, options.limits.elongation);
  values.Choose("model", kFrameModels, options.lay.model);
  values.Choose("palette", kPalettes, options.palette);
  values.Take("rejection_maps", options.rejectionMaps);
  values.Take("gradient", options.gradient);
}

py::list NamesOf(const std::vector<std::filesystem::path>& paths) {
  py::list list;
  for (const auto& path : paths) {
    list.append(path.string());
  }
  return list;
}

}  // namespace korimg::python
