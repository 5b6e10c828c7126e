// korimg stars: the stars of images.
#include "session/stars/Stars.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/verbs/Verbs.h"
#include "session/calibrate/Frames.h"
#include "session/job/Json.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;

void PrintLines(const FileStars& found) {
  fmt::print("{}: {} stars, FWHM {:.2f}, elongation {:.2f}{}, sky {:g} with a noise of {:.4g}, {}\n",
             found.file.string(), found.stars.size(), found.fwhm, found.elongation,
             found.guideError ? fmt::format(", guide error {:.2f}", *found.guideError) : "", found.sky,
             found.noise, found.GainText());
  if (!found.noData.empty()) fmt::print("{}: {}\n", found.file.string(), found.noData);
}

void PrintJson(const FileStars& found) {
  Json json{{"file", found.file.string()},
            {"width", found.width},
            {"height", found.height},
            {"stars", found.stars.size()},
            {"fwhm", found.fwhm},
            {"elongation", found.elongation},
            {"guide_error", found.guideError ? Json(*found.guideError) : Json()},
            {"sky", found.sky},
            {"noise", found.noise},
            {"no_data", found.noData},
            {"gain", found.gain.electrons > 0 ? Json(found.gain.electrons) : Json()},
            {"gain_from", found.gain.source},
            {"list", Json::array()}};
  for (const CStar& star : found.stars) {
    json["list"].push_back({{"x", star.x},
                            {"y", star.y},
                            {"flux", star.flux},
                            {"fwhm", star.fwhm},
                            {"elongation", star.elongation},
                            {"peak", star.peak},
                            {"snr", star.snr},
                            {"sky", star.sky},
                            {"flags", FlagsText(star)}});
  }
  fmt::print("{}\n", Dump(json));
}

}  // namespace

void AddStars(CLI::App& app, Tool& tool) {
  struct Arguments : StarFilesOptions {
    std::filesystem::path output;
  };
  auto options = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("stars", "Find and measure the stars of images");
  verb->add_option("images", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("-o,--output", options->output,
                   "list of 'x y radius # flux ...', which render --annotate --stars reads");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option_function<double>(
          "--gain",
          [options](double electrons) {
            options->gain = {electrons, "--gain"};
          },
          "electrons of a value, for the noise of a star's own light; by EGAIN, or GAIN in e-/ADU, "
          "unless told")
      ->default_str("0")
      ->check(CLI::Range(1e-9, 1e9));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    options->files = ExpandFolders(tool.job, options->files);
    if (!options->output.empty()) {
      if (options->files.size() > 1) {
        throw UsageError(
            fmt::format("one list holds the stars of one image, not of {}; call it for each, or use --json",
                        options->files.size()));
      }
      tool.job.CheckOutput(options->output);
    }
    FindStars(tool.job, *options, [&](const FileStars& found) {
      if (!options->output.empty() && !tool.options.dryRun) WriteStarList(options->output, found);
      tool.options.json ? PrintJson(found) : PrintLines(found);
    });
  });
}

}  // namespace korimg::tool
