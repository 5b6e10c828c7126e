// korimg simulate: a session with known truth.
#include <regex>

#include <fmt/format.h>

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/files/Mosaic.h"
#include "session/job/Json.h"
#include "session/simulate/Simulate.h"

namespace korimg::tool {

void AddSimulate(CLI::App& app, Tool& tool) {
  struct Options {
    std::filesystem::path folder;
    std::string size = "3008x2008";
    SimulateOptions simulate;
  };
  auto options = std::make_shared<Options>();
  CLI::App* verb = app.add_subcommand("simulate", "Make a session of frames with known truth");
  verb->add_option("folder", options->folder, "gets lights, darks, flats, biases and truth.json")->required();
  verb->add_option("--frames", options->simulate.frames,
                   "number of lights, of each filter where there are any")
      ->check(CLI::Range(1, 9999));
  verb->add_option("--size", options->size, "WIDTHxHEIGHT in pixels, at least 64x64");
  verb->add_option("--bayer", options->simulate.bayer, "a colour sensor of this pattern")
      ->check(CLI::IsMember(files::CfaNames()));
  verb->add_option("--filters", options->simulate.filters,
                   "a wheel with these before a mono sensor: L,R,G,B,Ha,OIII,SII or some of them")
      ->delimiter(',');
  verb->add_option("--barrel", options->simulate.barrel,
                   "distortion of the lens: the share of its distance by which a corner is drawn inward");
  verb->add_option("--dither", options->simulate.dither,
                   "lights lie up to this share of the frame's sides off; 0: up to 12 pixels");
  verb->add_option("--seed", options->simulate.seed, "the same seed gives the same bytes");
  verb->add_option("--noise-seed", options->simulate.noiseSeed,
                   "of photons and readout alone: the same sky and camera again with other noise");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    std::smatch size;
    if (!std::regex_match(options->size, size, std::regex("([0-9]{2,6})x([0-9]{2,6})"))) {
      throw UsageError(fmt::format("'{}' is no size: write WIDTHxHEIGHT, as in 3008x2008", options->size));
    }
    SimulateOptions& simulate = options->simulate;
    simulate.width = std::stoi(size[1]);
    simulate.height = std::stoi(size[2]);
    simulate.threads = tool.options.threads;
    const size_t lights = static_cast<size_t>(simulate.frames) * std::max<size_t>(simulate.filters.size(), 1);
    const nlohmann::ordered_json json{{"folder", options->folder.string()},
                                      {"lights", lights},
                                      {"width", simulate.width},
                                      {"height", simulate.height},
                                      {"truth", (options->folder / "truth.json").string()}};
    const std::string line = fmt::format("{}: {} lights of {} x {}", options->folder.string(), lights,
                                         simulate.width, simulate.height);
    if (tool.options.dryRun) return tool.job.Tell(Dump(json), line);
    Simulate(tool.job, options->folder, simulate);
    tool.job.Tell(Dump(json), line);
  });
}

}  // namespace korimg::tool
