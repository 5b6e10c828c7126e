// korimg run: a session's folder to a finished picture.
#include "session/run/Run.h"

#include <algorithm>

#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/calibrate/Frames.h"
#include "session/files/Text.h"

namespace korimg::tool {

namespace fs = std::filesystem;

namespace {

/// The folder of one kind of frames in a session: its name in any case, singular or plural. Empty: there is
/// none.
fs::path FindFolder(const fs::path& session, std::initializer_list<const char*> names) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(session)) {
    const std::string name = files::LowerCase(entry.path().filename().string());
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

/// Finds a session's frames by the folders they lie in.
void FindFrames(Tool& tool, const fs::path& session, CalibrateOptions& options) {
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
    if (!folder.empty()) files = ExpandFolders(tool.job, {folder});
    tool.job.Say(folder.empty() ? fmt::format("{}: none", title)
                                : fmt::format("{}: {} in {}", title, files.size(), folder.string()));
  }
  for (const auto& entry : fs::directory_iterator(session)) {
    const std::string name = files::LowerCase(entry.path().filename().string());
    const bool looksLikeIt = std::any_of(std::begin(kinds), std::end(kinds), [&](const auto& kind) {
      return std::any_of(kind.names.begin(), kind.names.end(),
                         [&](const char* word) { return name.find(word) != std::string::npos; });
    });
    const bool taken = std::any_of(std::begin(kinds), std::end(kinds), [&](const auto& kind) {
      return std::find(kind.names.begin(), kind.names.end(), name) != kind.names.end();
    });
    if (entry.is_directory() && looksLikeIt && !taken) {
      tool.job.Warn(fmt::format("{}: is not read; frames are taken from lights, darks, flats and biases",
                                entry.path().string()));
    }
  }
  if (options.lights.empty()) throw files::FileError(session, "has no folder lights or light");
  if (options.darks.empty() && options.flats.empty() && options.biases.empty()) {
    tool.job.Warn("no darks, flats or biases: lights are stacked as they are");
  }
}

}  // namespace

void AddRun(CLI::App& app, Tool& tool) {
  struct Arguments {
    fs::path session;
    RunOptions options;
  };
  auto arguments = std::make_shared<Arguments>();
  RunOptions& options = arguments->options;
  CLI::App* verb = app.add_subcommand("run", "Work through a session: from raw frames to a finished picture");
  verb->add_option("folder", arguments->session, "holds the folders lights, darks, flats and biases")
      ->required();
  AddCalibrationOptions(*verb, options.calibrate);
  verb->add_option("--min-stars", options.limits.stars,
                   "leave out frames with fewer stars than this share of the median; 0: no limit")
      ->check(CLI::Range(0.0, 1.0));
  verb->add_option("--max-fwhm", options.limits.fwhm,
                   "leave out frames whose FWHM is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  verb->add_option("--max-elongation", options.limits.elongation,
                   "leave out frames whose elongation is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  AddStackChoices(*verb, options.stack);
  AddChoice(
      *verb, "--palette", options.palette, kPalettes,
      "the colour image of several filters: auto finds luminance, red, green and blue, else SII, Ha and "
      "OIII, by their names; rgb, sho (SII, Ha, OIII as red, green, blue), hoo (Ha, OIII, OIII) want "
      "these; none makes no colour image");
  verb->add_flag(
      "--gradient", options.gradient,
      "take the gradient of moonlight or city light off each stack, as the operation gradient does; "
      "what was taken off is kept in stack_gradient.fits");
  AddCommonOptions(*verb, tool);
  verb->callback([arguments, &tool] {
    tool.Begin();
    CheckWhiteBalance(arguments->options.calibrate.develop.whiteBalance);
    FindFrames(tool, arguments->session, arguments->options.calibrate);
    if (tool.options.dryRun) {
      PlanRun(tool.job, arguments->options);
    } else {
      Run(tool.job, arguments->options);
    }
  });
}

}  // namespace korimg::tool
