// korimg compose: exposures through filters become one colour image.
#include "session/compose/Compose.h"

#include <algorithm>

#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/operations/Kernels.h"

namespace korimg::tool {

namespace fs = std::filesystem;

void AddCompose(CLI::App& app, Tool& tool) {
  struct Arguments : ComposeFilesOptions {
    fs::path rgb[3], cmy[3], colour;
  };
  auto options = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("compose", "Make a colour image of exposures through filters");
  verb->add_option_function<std::string>(
          "composition",
          [options](const std::string& name) { options->composition = ValueOf(kCompositions, name); },
          "rgb: red, green and blue; cmy: cyan, magenta and yellow; lrgb: the colours of red, green and blue "
          "with a luminance of its own; lab: a plane L with planes a and b, as to-lab makes them")
      ->required()
      ->check(CLI::IsMember(NamesOf(kCompositions)));
  const char* names[] = {"--red", "--green", "--blue", "--cyan", "--magenta", "--yellow"};
  for (int i = 0; i < 6; ++i) {
    verb->add_option(names[i], i < 3 ? options->rgb[i] : options->cmy[i - 3],
                     std::string("exposure through the ") + (names[i] + 2) + " filter");
  }
  verb->add_option("--luminance", options->luminance, "exposure without a colour, or L");
  verb->add_option("--colour", options->colour, "an image in colour in place of three, or a and b");
  verb->add_option("-o,--output", options->output, "FITS, TIFF or PNG, by its extension")->required();
  AddChoice(
      *verb, "--register", options->registers, {{"auto", true}, {"none", false}},
      "auto lays all on the luminance, else on the first colour, by their stars or by phase; none leaves "
      "them as they lie");
  AddChoice(
      *verb, "--crop", options->crops, {{"shared", true}, {"none", false}},
      "shared keeps the largest rectangle that all of them reach; none keeps the first one's size, black "
      "where another does not reach");
  AddChoice(*verb, "--background", options->backgrounds, kBackgrounds,
            "keep leaves the sky of each colour as it is; equal brings it to that of the first one");
  AddChoice(
      *verb, "--levels", options->levels, kLevelsBy,
      "black and white, by which colours meet a luminance and pictures are made: source takes those of "
      "the files; sky lies far below the noise of the sky, one range for all colours; auto takes sky for "
      "lrgb");
  AddChoice(*verb, "--kernel", options->kernel, kKernels, "how sources are read between their pixels");
  AddImageOptions(*verb, options->paged, options->integers);
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read, of all images");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    const bool isCmy = options->composition == Composition::Cmy;
    for (const fs::path& file : isCmy ? options->rgb : options->cmy) {
      if (!file.empty()) {
        throw UsageError(fmt::format("{} is no exposure of {}", file.string(),
                                     NameOf(kCompositions, options->composition)));
      }
    }
    const auto& files = isCmy ? options->cmy : options->rgb;
    const auto given =
        std::count_if(std::begin(files), std::end(files), [](const fs::path& f) { return !f.empty(); });
    if (!options->colour.empty() && given == 0) {
      options->colours = {options->colour};
    } else if (options->colour.empty() && given == 3) {
      options->colours.assign(std::begin(files), std::end(files));
    } else {
      throw UsageError(isCmy ? "give --cyan, --magenta and --yellow, or --colour alone"
                             : "give --red, --green and --blue, or --colour alone");
    }
    if (tool.options.dryRun) {
      PlanComposeFiles(tool.job, *options);
    } else {
      ComposeFiles(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
