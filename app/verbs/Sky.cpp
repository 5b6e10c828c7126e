// korimg sky: clean sky of images.
#include "session/sky/Sky.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/verbs/Verbs.h"
#include "session/job/Json.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;

void PrintLines(const FileSky& found) {
  const CRect& square = found.square;
  fmt::print("{}: clean sky at {},{},{},{}\n", found.file.string(), square.left, square.top, square.right,
             square.bottom);
  for (size_t p = 0; p < found.planes.size(); ++p) {
    const std::string plane = found.planes.size() > 1 ? fmt::format(" plane {}:", p) : "";
    fmt::print(" {} background {:g}, noise {:.4g}\n", plane, found.planes[p].background,
               found.planes[p].noise);
  }
}

void PrintJson(const FileSky& found) {
  const CRect& square = found.square;
  Json json{{"file", found.file.string()},
            {"rect", {square.left, square.top, square.right, square.bottom}},
            {"planes", Json::array()}};
  for (const auto& [background, noise] : found.planes) {
    json["planes"].push_back({{"background", background}, {"noise", noise}});
  }
  fmt::print("{}\n", Dump(json));
}

}  // namespace

void AddSky(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<SkyFilesOptions>();
  CLI::App* verb = app.add_subcommand("sky", "Find clean sky in images, and measure its level and noise");
  verb->add_option("images", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    FindSky(tool.job, *options,
            [&](const FileSky& found) { tool.options.json ? PrintJson(found) : PrintLines(found); });
  });
}

}  // namespace korimg::tool
