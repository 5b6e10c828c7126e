// korimg calibrate: from raw frames to calibrated ones.
#include "app/verbs/Verbs.h"
#include "session/calibrate/Calibrate.h"

namespace korimg::tool {
namespace {

void AddNoiseOptions(CLI::App& verb, QualityOptions& options) {
  verb.add_option("--gain", options.gain,
                  "electrons of a raw value, for --uncertainty; else by EGAIN, or by the noise of flats")
      ->check(CLI::PositiveNumber);
  verb.add_option("--read-noise", options.readNoise,
                  "electrons, for --uncertainty; else by the noise of darks or biases, or by RDNOISE")
      ->check(CLI::PositiveNumber);
}

}  // namespace

void AddQualityOptions(CLI::App& verb, QualityOptions& options) {
  verb.add_flag("--uncertainty", options.uncertainty,
                "write the standard deviation of each pixel too, as the FITS extension UNCERT");
  verb.add_flag(
      "--mask", options.mask,
      "write what is wrong with each pixel too, as the FITS extension MASK: 0 nothing, else bits that "
      "its header names");
}

void AddCalibrationOptions(CLI::App& verb, CalibrateOptions& options) {
  verb.add_option("--out", options.out, "folder for the results")->required();
  verb.add_option_function<std::string>(
          "--pedestal",
          [&options](const std::string& text) {
            options.pedestal = text == "auto" ? std::nullopt : ToNumber(text);
          },
          "raw value added before darks come off, so that noise is not clipped at 0, and kept in the output; "
          "auto adds what the noise needs, and takes it off again: faint skies may be negative")
      ->default_str("auto")
      ->check(CLI::Range(0.0, 1e6) | CLI::IsMember({"auto"}));
  verb.add_flag("--allow-mismatch", options.allowMismatch,
                "use calibration frames that differ in more than size, with a warning");
  verb.add_option(
      "--group", options.group,
      "by what flats belong together beside camera and filter: night, rotator, folder, by commas, and "
      "keywords of headers that frames must agree in to serve one another; auto is the first three, and "
      "none nothing");
  AddChoice(verb, "--cosmetic", options.cosmetic, kCosmetics,
            "hot and cold pixels: auto finds them by the dark, or by lights of a camera where there is none, "
            "and mends them from good pixels of their colour; none leaves them");
  verb.add_flag("--maps", options.maps,
                "write the maps of hot and cold pixels too, as hot_pixels.fits: 1 hot, -1 cold, 0 good");
  AddMosaicOptions(verb, options.develop);
  AddQualityOptions(verb, options.quality);
  AddNoiseOptions(verb, options.quality);
}

void AddCalibrate(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<CalibrateOptions>();
  CLI::App* verb = app.add_subcommand("calibrate", "Take darks and biases off lights, and divide by flats");
  verb->add_option("lights", options->lights, "files or folders")->required();
  verb->add_option("--dark", options->darks, "files or folders; one file is taken as a master");
  verb->add_option("--flat", options->flats, "files or folders; one file is taken as a master");
  verb->add_option("--bias", options->biases, "files or folders; one file is taken as a master");
  verb->add_option("--master-dir", options->masters, "folder to keep the masters in");
  AddCalibrationOptions(*verb, *options);
  verb->add_flag("--keep-mosaic", options->keepMosaic, "do not develop mosaics into colour");
  verb->add_flag("--previews", options->previews, "write small pictures of the lights into OUT/previews");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    const bool mends = options->cosmetic == Cosmetic::Auto;
    const bool hasFrames = !options->darks.empty() || !options->flats.empty() || !options->biases.empty();
    if (!hasFrames && !mends && !options->quality.Any()) {
      throw UsageError("nothing to calibrate with: give --dark, --flat, --bias or --cosmetic auto");
    }
    if (options->maps && !mends) throw UsageError("--maps writes what --cosmetic auto finds; give both");
    if (tool.options.dryRun) {
      PlanCalibration(tool.job, *options);
    } else {
      Calibrate(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
