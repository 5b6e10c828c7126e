// korimg render: a picture of an image, by its levels.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "app/tool/Images.h"
#include "app/verbs/AutoPicture.h"
#include "app/verbs/Verbs.h"

namespace korimg::tool {
namespace {

struct RenderOptions {
  std::filesystem::path input, output;
  std::string level = "histogram", hdu;
  double scale = 1;
};

void Render(Tool& tool, const RenderOptions& options) {
  tool.CheckOutput(options.output);
  const auto store = tool.MakeStore();
  LoadedImage loaded = LoadImage(tool, store, options.input, {.hdu = options.hdu});
  LevelForPicture(*loaded.image, options.level);
  const int shrink = std::max(static_cast<int>(std::lround(1 / options.scale)), 1);
  SavePicture(tool, *loaded.image, options.output, shrink);
  tool.console.Say(fmt::format("{} -> {}", options.input.string(), options.output.string()));
}

}  // namespace

void AddRender(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<RenderOptions>();
  CLI::App* verb = app.add_subcommand("render", "Make a picture of an image");
  verb->add_option("input", options->input, "FITS, TIFF or PNG")->required();
  verb->add_option("-o,--output", options->output, "the picture, PNG")->required();
  verb->add_option("--level", options->level,
                   "how black and white are set; none takes the image's own levels")
      ->check(CLI::IsMember({"normal", "mean", "median", "histogram", "none"}));
  verb->add_option("--scale", options->scale,
                   "1, or a fraction such as 0.25, rounded to one over a whole number")
      ->check(CLI::Range(0.001, 1.0));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Render(tool, *options);
  });
}

}  // namespace korimg::tool
