// korimg info: what files hold. korimg --version: what the tool is.
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

#include "app/verbs/Verbs.h"
#include "session/info/Inspect.h"

namespace korimg::tool {
namespace {

void PrintJson(const FileContents& contents) {
  const files::ImageInfo& info = contents.info;
  const files::Mosaic& mosaic = contents.mosaic;
  nlohmann::json json{{"file", info.path.string()},
                      {"width", info.width},
                      {"height", info.height},
                      {"planes", info.planes},
                      {"type", info.type},
                      {"format", info.format},
                      {"rows_turned", info.header.turned},
                      {"keywords", nlohmann::json::object()}};
  for (const PlaneContents& m : contents.planes) {
    json["min"].push_back(m.min);
    json["max"].push_back(m.max);
    json["mean"].push_back(m.mean);
    json["median"].push_back(m.median);
    json["stddev"].push_back(m.stddev);
    json["level_min"].push_back(m.black);
    json["level_max"].push_back(m.white);
  }
  for (const auto& [key, value] : contents.keywords) {
    json["keywords"][key] = value;
  }
  if (!mosaic.name.empty()) {
    json["mosaic"] = {{"pattern", mosaic.name}, {"developable", mosaic.cfa > 0}, {"reason", mosaic.reason}};
  }
  if (info.camera) {
    json["camera"] = {
        {"maker", info.camera->maker},
        {"model", info.camera->model},
        {"black", info.camera->black},
        {"white", info.camera->white},
        {"gains", info.camera->hasGains ? nlohmann::json(info.camera->gains) : nlohmann::json()},
        {"raw_type", contents.rawType}};
  }
  fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void PrintLines(const FileContents& contents) {
  const files::ImageInfo& info = contents.info;
  fmt::print("{}: {} {} x {} x {} {}{}\n", info.path.string(), info.format, info.width, info.height,
             info.planes, info.type, info.hdu > 0 ? fmt::format(", HDU {} {}", info.hdu, info.hduName) : "");
  for (size_t p = 0; p < contents.planes.size(); ++p) {
    const PlaneContents& m = contents.planes[p];
    fmt::print("  plane {}: min {:g}, max {:g}, mean {:g}, median {:g}, stddev {:g}, levels {:g} to {:g}\n",
               p, m.min, m.max, m.mean, m.median, m.stddev, m.black, m.white);
  }
  std::string line;
  for (const auto& [key, value] : contents.keywords) {
    line += fmt::format("{}{} {}", line.empty() ? "" : ", ", key, value);
  }
  if (!line.empty()) fmt::print("  {}\n", line);
  if (info.header.turned) fmt::print("  rows stored from the lowest up, and read upright\n");
  if (info.camera) {
    fmt::print("  camera {}{}{}, black {:g}, white {:g}", contents.instrument,
               contents.exposure.empty() ? "" : ", " + contents.exposure,
               contents.rawType.empty() ? "" : ", " + contents.rawType, fmt::join(info.camera->black, " "),
               info.camera->white);
    if (info.camera->hasGains) fmt::print(", white balance {:.4g}", fmt::join(info.camera->gains, " "));
    fmt::print("\n");
  }
  if (!contents.mosaic.name.empty()) {
    fmt::print("  mosaic {} from the upper left corner on ({}){}\n", contents.mosaic.name,
               contents.mosaic.reason, contents.mosaic.cfa > 0 ? "" : ": not supported");
  }
}

void ShowVersion(bool verbose) {
  fmt::print("korimg {}\n", Version());
  if (!verbose) return;
  std::map<std::string, int> forms;
  for (const PipelineEntry& entry : PipelineTable()) {
    ++forms[ChosenForm(entry)];
  }
  fmt::print("pipelines: {}\n", PipelineTable().size());
  for (const auto& [form, count] : forms) {
    fmt::print("  {} run in the form {}\n", count, form);
  }
  fmt::print("threads of line loops: {}\n", CParallel::GetMaxThreads());
  const int threads = SetPipelineThreads(0);
  SetPipelineThreads(threads);
  fmt::print("threads of pipelines: {}\n", threads > 0 ? std::to_string(threads) : "all");
}

}  // namespace

void AddInfo(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<InspectOptions>();
  CLI::App* verb = app.add_subcommand("info", "Tell what image files hold");
  verb->add_option("files", options->files, "FITS, TIFF or PNG")->required();
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Inspect(tool.job, *options, tool.options.json ? PrintJson : PrintLines);
  });
}

void AddVersion(CLI::App& app, Tool& tool) {
  CLI::Option* version = app.add_flag_function(
      "--version", [](std::int64_t) {}, "Show the version; with --verbose also forms and threads");
  AddCommonOptions(app, tool);
  app.callback([&app, version, &tool] {
    if (version->count() > 0) {
      tool.Begin();
      ShowVersion(tool.options.verbose);
    } else if (app.get_subcommands().empty()) {
      fmt::print("{}", app.help());
      tool.exitCode = kBadUsage;
    }
  });
}

void AddBits(CLI::App& verb, bool& integers) {
  AddChoice(verb, "--bits", integers, {{"float", false}, {"16", true}}, "float or 16, for FITS and TIFF");
}

void AddImageOptions(CLI::App& verb, bool& paged, bool& integers) {
  AddChoice(verb, "--store", paged, {{"contiguous", false}, {"paged", true}}, "contiguous or paged");
  AddBits(verb, integers);
}

void AddCommonOptions(CLI::App& verb, Tool& tool) {
  CommonOptions& options = tool.options;
  verb.add_option("--threads", options.threads, "Threads of loops and pipelines")
      ->default_str("as many as there are processors")
      ->check(CLI::Range(1, 1024));
  verb.add_option_function<std::string>(
          "--memory", [&options](const std::string& text) { options.memory = ParseSize(text); },
          "Memory for pixels, as in 512M; beyond it temporary files are used")
      ->default_str("half of what the system gives");
  verb.add_flag("--quiet,-q", options.quiet, "Errors and warnings only");
  verb.add_flag("--verbose,-v", options.verbose, "Say more");
  verb.add_flag("--json", options.json, "Results for programs, one object a line");
  verb.add_flag("--overwrite", options.overwrite, "Replace outputs that exist");
  verb.add_flag("--dry-run", options.dryRun, "Show the plan and do nothing");
}

}  // namespace korimg::tool
