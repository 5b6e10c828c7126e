// korimg run: a session's folder to a finished picture.
#include "session/run/Run.h"

#include "app/verbs/Verbs.h"
#include "session/calibrate/FindSession.h"

namespace korimg::tool {

namespace fs = std::filesystem;

void AddRun(CLI::App& app, Tool& tool) {
  struct Arguments {
    fs::path session, selection;
    RunOptions options;
  };
  auto arguments = std::make_shared<Arguments>();
  RunOptions& options = arguments->options;
  CLI::App* verb = app.add_subcommand("run", "Work through a session: from raw frames to a finished picture");
  verb->add_option("folder", arguments->session,
                   "holds the frames, in folders of any kind: told by IMAGETYP, or by folders called lights, "
                   "darks, flats "
                   "and biases")
      ->required();
  AddCalibrationOptions(*verb, options.calibrate);
  verb->add_option(
      "--masters", options.calibrate.masters,
      "folder of masters of any sessions: those made of the same frames are used again, others are added; "
      "without it they are kept in OUT/masters");
  verb->add_option(
      "--reference", options.reference,
      "a light, or an image of the lights' size such as a stack of another night, whose grid all stacks "
      "lie on; the best light unless told");
  verb->add_option("--include", options.include, "patterns of names: only these lights are used");
  verb->add_option("--exclude", options.exclude, "patterns of names: these lights are left out");
  verb->add_option("--selection", arguments->selection,
                   "a file of JSON with lists include and exclude, and reference");
  verb->add_option("--min-stars", options.limits.stars,
                   "leave out frames with fewer stars than this share of the median; 0: no limit")
      ->check(CLI::Range(0.0, 1.0));
  verb->add_option("--max-fwhm", options.limits.fwhm,
                   "leave out frames whose FWHM is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  verb->add_option("--max-elongation", options.limits.elongation,
                   "leave out frames whose elongation is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  AddModel(*verb, options.lay.model);
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
    if (!arguments->selection.empty()) AddSelection(arguments->options, arguments->selection);
    CalibrateOptions& frames = arguments->options.calibrate;
    if (frames.maps && frames.cosmetic == Cosmetic::None) {
      throw UsageError("--maps writes what --cosmetic auto finds; leave out --cosmetic none");
    }
    SessionFrames found = FindSession(tool.job, arguments->session, frames.out);
    frames.lights = std::move(found.lights);
    frames.darks = std::move(found.darks);
    frames.flats = std::move(found.flats);
    frames.biases = std::move(found.biases);
    if (tool.options.dryRun) {
      PlanRun(tool.job, arguments->options);
    } else {
      Run(tool.job, arguments->options);
    }
  });
}

}  // namespace korimg::tool
