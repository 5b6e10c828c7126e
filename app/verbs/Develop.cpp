// korimg develop: from a camera's mosaic to a colour image.
#include "app/verbs/Verbs.h"
#include "session/develop/DevelopFiles.h"

namespace korimg::tool {

void AddMosaicOptions(CLI::App& verb, DevelopOptions& options) {
  std::vector<std::string> patterns = files::CfaNames();
  patterns.insert(patterns.begin(), "auto");
  const auto add = [&verb](const char* name, std::string& told, const char* help) {
    return verb
        .add_option_function<std::string>(
            name, [&told](const std::string& word) { told = word == "auto" ? "" : word; }, help)
        ->default_str("auto");
  };
  add("--cfa", options.mosaic.cfa, "pattern of the mosaic, from the upper left corner of the upright picture")
      ->check(CLI::IsMember(patterns, CLI::ignore_case));
  add("--row-order", options.mosaic.rowOrder,
      "of a mosaic: whether the first stored row is the upper or the lower one")
      ->check(CLI::IsMember({"auto", "top-down", "bottom-up"}, CLI::ignore_case));
  verb.add_option_function<std::string>(
          "--white-balance",
          [&options](const std::string& text) { options.whiteBalance = WhiteBalanceFrom(text); },
          "auto (the camera's, else by medians), camera, none, or gains of the cells row by row, of a "
          "honeycomb red, green, green and blue: 1.9,1,1,1.5")
      ->default_str("auto");
}

void AddDevelop(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<DevelopFilesOptions>();
  CLI::App* verb = app.add_subcommand("develop", "Make colour images of camera raw files and mosaics");
  verb->add_option("frames", options->frames, "camera raw, FITS or TIFF files, or folders of them")
      ->required();
  verb->add_option("--out", options->out, "folder for the results, or a name: .fits or .tif")->required();
  AddMosaicOptions(*verb, *options);
  verb->add_flag("--mono", options->mono, "brightness in one plane");
  verb->add_flag("--half", options->half, "half the size, a pixel from each cell of the mosaic");
  verb->add_option("--gamma", options->gamma, "2.2 and the like, for pictures; 1 keeps the values linear")
      ->check(CLI::Range(0.1, 10.0));
  verb->add_flag("--level-cut", options->levelCut, "limit the results to black and white");
  CLI::Option* dark =
      verb->add_option("--dark", options->dark, "taken off the mosaic first; holds the camera's black level");
  verb->add_option("--flat", options->flat, "the mosaic is divided by it");
  verb->add_option("--black", options->black,
                   "raw value of no light, where neither a dark nor the file says it")
      ->check(CLI::Range(0.0, 1e6))
      ->excludes(dark);
  AddChoice(*verb, "--bits", options->integers, {{"16", true}, {"float", false}},
            "16: whole numbers, with white at 65535 and room for noise below black; float: the raw scale");
  verb->add_flag("--previews", options->previews, "write small pictures too, into the folder previews");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    if (tool.options.dryRun) {
      PlanDevelopFiles(tool.job, *options);
    } else {
      DevelopFiles(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
