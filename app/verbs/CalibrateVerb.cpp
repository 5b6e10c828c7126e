// korimg calibrate and korimg run: from raw frames to calibrated ones.
#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "app/calibrate/Calibrate.h"
#include "app/calibrate/Frames.h"
#include "app/verbs/Verbs.h"

namespace korimg::tool {

namespace fs = std::filesystem;

namespace {

void AddCalibrationOptions(CLI::App& verb, CalibrateOptions& options) {
  verb.add_option("--out", options.out, "folder for the results")->required();
  verb.add_option(
          "--pedestal", options.pedestal,
          "raw value added before darks come off, so that nothing is clipped at 0; stays in the output")
      ->check(CLI::Range(0.0, 1e6));
  verb.add_flag("--allow-mismatch", options.allowMismatch,
                "use calibration frames that differ in more than size, with a warning");
  AddMosaicOptions(verb, options.develop);
  verb.add_flag("--keep-mosaic", options.keepMosaic, "do not develop mosaics into colour");
}

/// The folder of one kind of frames in a session: its name in any case, singular or plural. Empty: there is
/// none.
fs::path FindFolder(const fs::path& session, std::initializer_list<const char*> names) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(session)) {
    std::string name = entry.path().filename().string();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    if (entry.is_directory() && std::find(names.begin(), names.end(), name) != names.end()) {
      found.push_back(entry.path());
    }
  }
  if (found.size() > 1) {
    std::sort(found.begin(), found.end());
    throw files::FileError(session, fmt::format("has both {} and {}; rename one of them",
                                                found[0].filename().string(), found[1].filename().string()));
  }
  return found.empty() ? fs::path() : found[0];
}

void Run(Tool& tool, const fs::path& session, CalibrateOptions options) {
  if (!fs::is_directory(session)) {
    throw files::FileError(session, "is no folder; name one that holds the folder lights");
  }
  const struct {
    const char* title;
    std::initializer_list<const char*> names;
    std::vector<fs::path>& files;
  } kinds[] = {{"lights", {"lights", "light"}, options.lights},
               {"darks", {"darks", "dark"}, options.darks},
               {"flats", {"flats", "flat"}, options.flats},
               {"biases", {"biases", "bias"}, options.biases}};
  for (const auto& [title, names, files] : kinds) {
    const fs::path folder = FindFolder(session, names);
    if (!folder.empty()) files = ExpandFolders({folder});
    tool.console.Say(folder.empty() ? fmt::format("{}: none", title)
                                    : fmt::format("{}: {} in {}", title, files.size(), folder.string()));
  }
  if (options.lights.empty()) throw files::FileError(session, "has no folder lights or light");
  const bool calibrates = !options.darks.empty() || !options.flats.empty() || !options.biases.empty();
  if (calibrates) {
    options.masters = options.out / "masters";
  } else {
    tool.console.Warn("no darks, flats or biases: lights are only developed and previewed");
  }
  options.report = options.out / "report.html";
  options.out /= "calibrated";
  Calibrate(tool, options);
}

}  // namespace

void AddCalibrate(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<CalibrateOptions>();
  CLI::App* verb = app.add_subcommand("calibrate", "Take darks and biases off lights, and divide by flats");
  verb->add_option("lights", options->lights, "files or folders")->required();
  verb->add_option("--dark", options->darks, "files or folders; one file is taken as a master");
  verb->add_option("--flat", options->flats, "files or folders; one file is taken as a master");
  verb->add_option("--bias", options->biases, "files or folders; one file is taken as a master");
  verb->add_option("--master-dir", options->masters, "folder to keep the masters in");
  AddCalibrationOptions(*verb, *options);
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    CheckWhiteBalance(options->develop.whiteBalance);
    if (options->darks.empty() && options->flats.empty() && options->biases.empty()) {
      throw UsageError("nothing to calibrate with: give --dark, --flat or --bias");
    }
    Calibrate(tool, *options);
  });
}

void AddRun(CLI::App& app, Tool& tool) {
  struct Arguments {
    fs::path session;
    CalibrateOptions options;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("run", "Work through a session: calibrated frames and previews");
  verb->add_option("folder", arguments->session, "holds the folders lights, darks, flats and biases")
      ->required();
  AddCalibrationOptions(*verb, arguments->options);
  AddCommonOptions(*verb, tool);
  verb->callback([arguments, &tool] {
    tool.Begin();
    CheckWhiteBalance(arguments->options.develop.whiteBalance);
    Run(tool, arguments->session, arguments->options);
  });
}

}  // namespace korimg::tool
