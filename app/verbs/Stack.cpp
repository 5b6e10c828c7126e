// korimg stack: registered frames become one image.
#include <cmath>

#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/operations/Kernels.h"
#include "session/stack/StackFiles.h"

namespace korimg::tool {

void AddStackChoices(CLI::App& verb, StackChoices& choices) {
  AddChoice(verb, "--method", choices.method, kStackMethods,
            "what a pixel becomes of the values of the frames");
  AddChoice(verb, "--reject", choices.reject, kRejections,
            "mean: how outliers such as trails, cosmic rays and hot pixels are told; auto: by the noise of "
            "each frame up to 4 frames, winsorized from 5, generalised ESD from 15");
  verb.add_option_function<std::string>(
          "--kappa", [&choices](const std::string& text) { choices.kappa = KappaFrom(text); },
          "sigma, winsorized, linear-fit, noise: deviations beyond which values are rejected, one "
          "number or LOW,HIGH; auto: 2.5, 3, 3 and 5")
      ->default_str("auto");
  verb.add_option("--iterations", choices.iterations,
                  "sigma, winsorized, linear-fit: how often at most, each by what the last one left")
      ->check(CLI::Range(1, 100));
  AddChoice(
      verb, "--normalize", choices.normalise, kNormalisations,
      "bring each frame to the reference: the level of its sky, or its scale too, by the light of stars "
      "where register compared it, else by the spread of the pixels; auto: by level and the light of "
      "stars, "
      "by level alone where that is not known");
  AddChoice(verb, "--weight", choices.weight, kFrameWeights,
            "of frames in means: by the noise, or by fwhm of --transforms");
  AddChoice(verb, "--kernel", choices.kernel, kKernels,
            "how moved frames are read between their pixels; the weights of lanczos2 and lanczos3 do "
            "not add up "
            "to 1, which changes levels by up to 3.5 and 1 % and shows as a moire on a bright sky");
  AddChoice(verb, "--undershoot", choices.clampUndershoot, kUndershoots,
            "dark rings of bicubic and lanczos kernels beside bright stars: raised to the pixels around "
            "where they fall below the sky, or kept");
  const auto drizzle = [&choices]() -> CImgDrizzle::Options& {
    return choices.drizzle ? *choices.drizzle : choices.drizzle.emplace();
  };
  CLI::Option* const scale =
      verb.add_option_function<double>(
              "--drizzle", [=](double value) { drizzle().scale = value; },
              "lay the pixels on a grid so many times as fine, each on what it covers there, instead of "
              "reading "
              "frames between their pixels: gives back resolution where stars are undersampled and frames "
              "lie at many positions; 1 to 4, as in 2 or 1.5. Writes NAME_weights too")
          ->check(CLI::Range(1.0, 4.0));
  verb.add_option_function<double>(
          "--pixfrac", [=](double value) { drizzle().pixfrac = value; },
          "--drizzle: side of what falls in that of the pixel; smaller is sharper, and needs more frames")
      ->default_str("0.7")
      ->check(CLI::Range(0.01, 1.0))
      ->needs(scale);
  verb.add_option_function<std::string>(
          "--drizzle-kernel",
          [=](const std::string& name) { drizzle().kernel = ValueOf(kDrizzleKernels, name); },
          "--drizzle: what falls is the square, its middle, or a Gaussian of its width")
      ->default_str("square")
      ->check(CLI::IsMember(NamesOf(kDrizzleKernels)))
      ->needs(scale);
}

namespace {

/// "2/3"
StackPart ParsePart(const std::string& text) {
  const size_t slash = text.find('/');
  const auto whole = [](const std::string& digits) {
    const auto number = ToNumber(digits);
    return number && *number == std::floor(*number) && *number >= 1 && *number <= 1e6
               ? static_cast<int>(*number)
               : 0;
  };
  const StackPart part{whole(text.substr(0, slash)), slash == text.npos ? 0 : whole(text.substr(slash + 1))};
  if (part.number < 1 || part.number > part.parts) {
    throw UsageError(fmt::format("--part {}: is no part; write its number and that of all, as in 2/3", text));
  }
  return part;
}

}  // namespace

void AddStack(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<StackFilesOptions>();
  CLI::App* verb = app.add_subcommand("stack", "Combine registered frames into one image");
  verb->add_option("frames", options->frames, "files or folders, all of one size")->required();
  verb->add_option("-o,--output", options->output, "FITS, TIFF or PNG, by its extension")->required();
  AddStackChoices(*verb, *options);
  verb->add_option("--transforms", options->transforms,
                   "what korimg register --json wrote; without it frames are taken as they lie");
  verb->add_option("--reference", options->reference,
                   "the frame that gives header, levels and sky; the first that is not moved unless told");
  AddChoice(*verb, "--frame", options->frame, kStackFrames,
            "what the stack shows: the reference's frame, or the union of all, as a mosaic of panels whose "
            "skies are "
            "matched where they overlap");
  verb->add_option(
          "--feather", options->feather,
          "pixels over which frames fade towards their edges; a tenth of the shorter side in a union "
          "unless told, else 0")
      ->check(CLI::Range(0.0, 1e6));
  verb->add_flag("--rejection-maps", options->maps,
                 "write NAME_low and NAME_high too: the number of values rejected in each pixel");
  verb->add_flag(
      "--uncertainty", options->uncertainty,
      "write the standard deviation of each pixel too, by the UNCERT that calibrate wrote with the "
      "frames, as the FITS extension UNCERT");
  verb->add_flag("--mask", options->mask,
                 "write what is wrong with each pixel too, as the FITS extension MASK");
  verb->add_flag(
      "--resume", options->resume,
      "go on with what a killed run of the same call left in OUTPUT.resume, and leave it there if this "
      "one is cancelled");
  verb->add_option_function<std::string>(
      "--part", [options](const std::string& text) { options->part = ParsePart(text); },
      "make the rows of one part only, as in 2/3, and write OUTPUT.part-2-of-3; machines that share the "
      "files "
      "make one each, in any order");
  verb->add_option(
          "--join", options->join,
          "make the stack of so many parts that are there, and remove these: as in 3, by the same call "
          "as that of the parts")
      ->default_str("");
  AddBits(*verb, options->integers);
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    if (options->weight == FrameWeights::Fwhm && options->transforms.empty()) {
      throw UsageError("--weight fwhm takes the sizes of stars from --transforms FILE");
    }
    if (tool.options.dryRun) {
      PlanStackFiles(tool.job, *options);
    } else {
      StackFiles(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
