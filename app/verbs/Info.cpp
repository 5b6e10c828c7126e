// korimg info: what files hold. korimg --version: what the tool is.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/image/internal/Numbers.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"
#include "korimg/raw/CImgInformation.h"

#include "app/verbs/Verbs.h"
#include "session/develop/Develop.h"
#include "session/files/Mosaic.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

/// Measures of one plane.
struct PlaneMeasures {
  double min, max, mean, median, stddev;
};

/// The value of a rank among a plane's pixels without NaN: counted by the upper halves of their sort keys,
/// then by the lower halves of those that share the upper one. Takes no copy of the pixels.
float ValueOfRank(CVelImage& image, int plane, long long rank) {
  std::uint32_t prefix = 0;
  for (const int shift : {16, 0}) {
    std::vector<long long> counts(1 << 16);
    for (int y = 0; y < image.GetHeight(); ++y) {
      const float* line = image.GetLine(0, y, plane);
      for (int x = 0; x < image.GetWidth(); ++x) {
        const std::uint32_t key = SortKey(line[x]);
        const bool shares = shift == 16 || key >> 16 == prefix >> 16;
        if (shares && !std::isnan(line[x])) ++counts[(key >> shift) & 0xFFFF];
      }
    }
    std::uint32_t half = 0;
    for (; rank >= counts[half]; ++half) {
      rank -= counts[half];
    }
    prefix |= half << shift;
  }
  return FromSortKey(prefix);
}

/// Median of the pixels that are not NaN; the mean of the two middle ones when their number is even.
double MedianOf(CVelImage& image, int plane) {
  long long count = 0;
  for (int y = 0; y < image.GetHeight(); ++y) {
    const float* line = image.GetLine(0, y, plane);
    count += std::count_if(line, line + image.GetWidth(), [](float v) { return !std::isnan(v); });
  }
  if (count == 0) return std::numeric_limits<double>::quiet_NaN();
  const double upper = ValueOfRank(image, plane, count / 2);
  return count % 2 == 1 ? upper : 0.5 * ValueOfRank(image, plane, count / 2 - 1) + 0.5 * upper;
}

PlaneMeasures Measure(CImgAutoLevel& image, int plane) {
  const auto [min, max, mean] = image.GetMinMaxAvr(plane);
  double deviation = 0;
  image.GetLevelRangeStd(-std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                         &deviation, plane, nullptr);
  return {min, max, mean, MedianOf(image, plane), deviation};
}

/// Header keywords that people look for first.
constexpr const char* kKeywords[] = {"OBJECT",   "IMAGETYP", "EXPTIME",  "EXPOSURE", "CCD-TEMP", "FILTER",
                                     "INSTRUME", "GAIN",     "OFFSET",   "XBINNING", "DATE-OBS", "BAYERPAT",
                                     "XBAYROFF", "YBAYROFF", "ROWORDER", "PEDESTAL"};

struct CameraTexts {
  std::string instrument, exposure, format;
};

/// What the library has to say of the camera of a raw file.
CameraTexts CameraText(CVelImage& image) {
  CImgInformation information;
  information.Swap(&image);
  CString instrument, exposure, temperature, format;
  information.GetInfoString(instrument, exposure, temperature);
  information.GetRawType(format);
  information.Swap(&image);
  const auto narrow = [](const wchar_t* text) { return Narrow(text); };
  return {narrow(instrument), narrow(exposure), narrow(format)};
}

void Info(Tool& tool, const std::filesystem::path& path, const std::string& hdu) {
  const auto store = tool.job.MakeStore();
  Image loaded = Image::Open(tool.job, store, path, {.hdu = hdu});
  CImgAutoLevel image;
  image.Swap(&loaded.Pixels());
  const files::ImageInfo& info = loaded.Info();
  const files::Mosaic mosaic = MosaicOf(info, {});
  std::vector<PlaneMeasures> planes;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    planes.push_back(Measure(image, p));
  }
  if (tool.options.json) {
    nlohmann::json json{{"file", path.string()},
                        {"width", info.width},
                        {"height", info.height},
                        {"planes", info.planes},
                        {"type", info.type},
                        {"format", info.format},
                        {"rows_turned", info.header.turned},
                        {"keywords", nlohmann::json::object()}};
    for (const PlaneMeasures& m : planes) {
      json["min"].push_back(m.min);
      json["max"].push_back(m.max);
      json["mean"].push_back(m.mean);
      json["median"].push_back(m.median);
      json["stddev"].push_back(m.stddev);
    }
    for (int p = 0; p < image.GetPlanes(); ++p) {
      json["level_min"].push_back(image.GetLevelMin(p));
      json["level_max"].push_back(image.GetLevelMax(p));
    }
    for (const char* key : kKeywords) {
      if (const auto value = info.header.GetString(key)) json["keywords"][key] = *value;
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
          {"raw_type", CameraText(image).format}};
    }
    fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    return;
  }
  fmt::print("{}: {} {} x {} x {} {}{}\n", path.string(), info.format, info.width, info.height, info.planes,
             info.type, info.hdu > 0 ? fmt::format(", HDU {} {}", info.hdu, info.hduName) : "");
  for (size_t p = 0; p < planes.size(); ++p) {
    const PlaneMeasures& m = planes[p];
    fmt::print("  plane {}: min {:g}, max {:g}, mean {:g}, median {:g}, stddev {:g}, levels {:g} to {:g}\n",
               p, m.min, m.max, m.mean, m.median, m.stddev, image.GetLevelMin(static_cast<int>(p)),
               image.GetLevelMax(static_cast<int>(p)));
  }
  std::string line;
  for (const char* key : kKeywords) {
    if (const auto value = info.header.GetString(key))
      line += fmt::format("{}{} {}", line.empty() ? "" : ", ", key, *value);
  }
  if (!line.empty()) fmt::print("  {}\n", line);
  if (info.header.turned) fmt::print("  rows stored from the lowest up, and read upright\n");
  if (info.camera) {
    const auto [instrument, exposure, format] = CameraText(image);
    fmt::print("  camera {}{}{}, black {:g}, white {:g}", instrument, exposure.empty() ? "" : ", " + exposure,
               format.empty() ? "" : ", " + format, fmt::join(info.camera->black, " "), info.camera->white);
    if (info.camera->hasGains) fmt::print(", white balance {:.4g}", fmt::join(info.camera->gains, " "));
    fmt::print("\n");
  }
  if (!mosaic.name.empty()) {
    fmt::print("  mosaic {} from the upper left corner on ({}){}\n", mosaic.name, mosaic.reason,
               mosaic.cfa > 0 ? "" : ": not supported");
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
  auto files = std::make_shared<std::vector<std::filesystem::path>>();
  auto hdu = std::make_shared<std::string>();
  CLI::App* verb = app.add_subcommand("info", "Tell what image files hold");
  verb->add_option("files", *files, "FITS, TIFF or PNG")->required();
  verb->add_option("--hdu", *hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([files, hdu, &tool] {
    tool.Begin();
    tool.job.ForEachFile(*files, [&](const std::filesystem::path& file) { Info(tool, file, *hdu); });
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
