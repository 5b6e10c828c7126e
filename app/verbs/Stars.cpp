// korimg stars: the stars of images.
#include <algorithm>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/measurement/CStarFinder.h"

#include "app/verbs/Verbs.h"
#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/files/Gain.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

std::string Flags(const CStar& star) {
  std::string text;
  for (const auto& [flag, name] : {std::pair(CStar::Saturated, "saturated"), std::pair(CStar::Edge, "edge"),
                                   std::pair(CStar::Blended, "blended")}) {
    if (star.flags & flag) text += (text.empty() ? "" : ",") + std::string(name);
  }
  return text;
}

struct Found {
  fs::path file;
  const CVelImage& image;
  const CStarFinder& finder;
  const std::string& noData;
  const files::Gain& gain;

  const std::vector<CStar>& Stars() const { return finder.GetStars(); }
};

/// What signal to noise is made of.
std::string GainText(const files::Gain& gain) {
  return gain.electrons > 0
             ? fmt::format("gain {:g} ({})", gain.electrons, gain.source)
             : fmt::format("gain unknown ({}): snr leaves out the noise of the stars' own light",
                           gain.source);
}

/// Lines of "x y radius", which render draws circles by, with the other measures as comments.
void WriteList(const fs::path& path, const Found& found) {
  constexpr double kRadii = 2, kLeast = 3;  // FWHM, pixels
  files::TransientFile part(files::PartialName(path));
  std::ofstream out(part.Path());
  out << fmt::format("# {} stars of {}\n# {}\n# x y radius # flux fwhm elongation peak snr sky flags\n",
                     found.Stars().size(), found.file.filename().string(), GainText(found.gain));
  for (const CStar& star : found.Stars()) {
    const std::string flags = Flags(star);
    out << fmt::format("{:.3f} {:.3f} {:.1f} # {:.6g} {:.3f} {:.3f} {:.6g} {:.1f} {:.6g} {}\n", star.x,
                       star.y, std::max(kRadii * star.fwhm, kLeast), star.flux, star.fwhm, star.elongation,
                       star.peak, star.snr, star.sky, flags.empty() ? "-" : flags);
  }
  out.close();
  if (!out) throw files::FileError(path, "cannot be written; is the disk full?");
  part.RenameTo(path);
}

void PrintStars(const Tool& tool, const Found& found) {
  const CStarFinder& finder = found.finder;
  if (!tool.options.json) {
    fmt::print("{}: {} stars, FWHM {:.2f}, elongation {:.2f}, sky {:g} with a noise of {:.4g}, {}\n",
               found.file.string(), found.Stars().size(), finder.GetFwhm(), finder.GetElongation(),
               finder.GetSky(), finder.GetNoise(), GainText(found.gain));
    if (!found.noData.empty()) fmt::print("{}: {}\n", found.file.string(), found.noData);
    return;
  }
  Json json{{"file", found.file.string()},
            {"width", found.image.GetWidth()},
            {"height", found.image.GetHeight()},
            {"stars", found.Stars().size()},
            {"fwhm", finder.GetFwhm()},
            {"elongation", finder.GetElongation()},
            {"sky", finder.GetSky()},
            {"noise", finder.GetNoise()},
            {"no_data", found.noData},
            {"gain", found.gain.electrons > 0 ? Json(found.gain.electrons) : Json()},
            {"gain_from", found.gain.source},
            {"list", Json::array()}};
  for (const CStar& star : found.Stars()) {
    json["list"].push_back({{"x", star.x},
                            {"y", star.y},
                            {"flux", star.flux},
                            {"fwhm", star.fwhm},
                            {"elongation", star.elongation},
                            {"peak", star.peak},
                            {"snr", star.snr},
                            {"sky", star.sky},
                            {"flags", Flags(star)}});
  }
  fmt::print("{}\n", json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

struct StarsOptions {
  std::vector<fs::path> files;
  fs::path output;
  double sigmas = 5, gain = 0;
  std::string hdu;
};

void Stars(Tool& tool, const StarsOptions& options) {
  const std::vector<fs::path> files = ExpandFolders(tool.job, options.files);
  if (!options.output.empty()) {
    if (files.size() > 1) {
      throw UsageError(fmt::format(
          "one list holds the stars of one image, not of {}; call it for each, or use --json", files.size()));
    }
    tool.job.CheckOutput(options.output);
  }
  const auto store = tool.job.MakeStore();
  tool.job.ForEachFile(files, [&](const fs::path& file) {
    const Image loaded = Image::Open(tool.job, store, file, {.hdu = options.hdu, .lessBorder = true});
    CStarFinder finder(&loaded.Pixels());
    finder.SetThreshold(options.sigmas);
    const files::Gain gain = options.gain > 0
                                 ? files::Gain{options.gain, "--gain"}
                                 : files::FindGain(loaded.Header(), MeasureLevels(loaded.Pixels()).noise[0]);
    finder.SetGain(gain.electrons);
    finder.Find();
    const Found found{file, loaded.Pixels(), finder, loaded.Info().noData, gain};
    if (!options.output.empty() && !tool.options.dryRun) WriteList(options.output, found);
    PrintStars(tool, found);
  });
}

}  // namespace

void AddStars(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<StarsOptions>();
  CLI::App* verb = app.add_subcommand("stars", "Find and measure the stars of images");
  verb->add_option("images", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("-o,--output", options->output,
                   "list of 'x y radius # flux ...', which render --annotate --stars reads");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option("--gain", options->gain,
                   "electrons of a value, for the noise of a star's own light; by EGAIN, or GAIN in e-/ADU, "
                   "unless told")
      ->check(CLI::Range(1e-9, 1e9));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Stars(tool, *options);
  });
}

}  // namespace korimg::tool
