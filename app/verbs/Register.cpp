// korimg register: how frames lie on a reference.
#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/register/RegisterFiles.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;

std::string Line(const Registration& r) {
  if (!r.IsGood()) return fmt::format("{}: {}", r.file, r.Text());
  return fmt::format("{}: shift {:.3f}, {:.3f}, angle {:.4f}, residual {:.3f} ({}, {}){}", r.file, r.dx, r.dy,
                     r.degrees, r.residual, r.method, r.stars, r.note.empty() ? "" : "; " + r.note);
}

}  // namespace

void AddModel(CLI::App& verb, FrameModel& model) {
  AddChoice(
      verb, "--model", model, kFrameModels,
      "what lays frames on the reference: shift and turn (rigid) or more; auto takes the simplest that the "
      "stars do not refute, distortion one with a distortion of the lens");
}

void AddRegister(CLI::App& app, Tool& tool) {
  struct Arguments : RegisterOptions {
    fs::path output;
  };
  auto options = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("register", "Tell how frames lie on a reference");
  verb->add_option("frames", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--reference", options->reference, "an image, or auto for the sharpest of the frames");
  verb->add_option("-o,--output", options->output, "file for one line of JSON for each frame");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option("--residual", options->residual, "pixels that stars may be off by in the mean")
      ->check(CLI::Range(0.01, 100.0));
  AddModel(*verb, options->model);
  AddChoice(*verb, "--by", options->by, kLayBy,
            "stars, or the light of frames without them; wcs: world coordinates; auto: these for what stars "
            "do not lay");
  verb->add_option(
      "--lenses", options->lenses,
      "a library of lenses: gets the distortion that the stars tell, by camera, lens and focal length, "
      "and serves frames whose stars are too few to tell it");
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  verb->footer(
      "A frame of width x height pixels lies on the reference once it is turned by `degrees`, clockwise "
      "on the screen, about the point (width / 2, height / 2), and then shifted by `dx` to the right and "
      "`dy` down. Positions count from the centre of the first pixel. Frames that this does not lay have a "
      "`map` in JSON: straightened by the lens, moved by the matrix of a homography, and bent by the "
      "reference's lens; `korimg stack --transforms` takes both.");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    if (!options->output.empty()) tool.job.CheckOutput(options->output);
    const RegisterResult result = RegisterFiles(tool.job, *options);
    const bool writes = !options->output.empty() && !tool.options.dryRun;
    for (const Registration& registration : result.frames) {
      if (!tool.options.json) {
        fmt::print("{}\n", Line(registration));
      } else if (!writes) {
        fmt::print("{}\n", ToJson(registration));
      }
    }
    if (writes && !result.frames.empty()) WriteRegistrations(options->output, result.frames);
  });
}

}  // namespace korimg::tool
