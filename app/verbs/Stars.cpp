// korimg stars: the stars of images. korimg register: how frames lie on a reference.
#include <algorithm>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/files/Formats.h"
#include "app/tool/FrameStars.h"
#include "app/verbs/Verbs.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;

void PrintJson(const Json& json) {
  fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::string Flags(const CStar& star) {
  std::string text;
  for (const auto& [flag, name] : {std::pair(CStar::Saturated, "saturated"), std::pair(CStar::Edge, "edge"),
                                   std::pair(CStar::Blended, "blended")}) {
    if (star.flags & flag) text += (text.empty() ? "" : ",") + std::string(name);
  }
  return text;
}

/// Lines of "x y radius", which render draws circles by, with the other measures as comments.
void WriteList(const std::filesystem::path& path, const FrameStars& frame) {
  constexpr double kRadii = 2, kLeast = 3;  // FWHM, pixels
  files::TransientFile part(files::PartialName(path));
  std::ofstream out(part.Path());
  out << fmt::format("# {} stars of {}\n# x y radius # flux fwhm elongation peak snr sky flags\n",
                     frame.stars.size(), frame.file.filename().string());
  for (const CStar& star : frame.stars) {
    const std::string flags = Flags(star);
    out << fmt::format("{:.3f} {:.3f} {:.1f} # {:.6g} {:.3f} {:.3f} {:.6g} {:.1f} {:.6g} {}\n", star.x,
                       star.y, std::max(kRadii * star.fwhm, kLeast), star.flux, star.fwhm, star.elongation,
                       star.peak, star.snr, star.sky, flags.empty() ? "-" : flags);
  }
  out.close();
  if (!out) throw files::FileError(path, "cannot be written; is the disk full?");
  part.RenameTo(path);
}

void PrintStars(const Tool& tool, const FrameStars& frame) {
  if (!tool.options.json) {
    fmt::print("{}: {} stars, FWHM {:.2f}, elongation {:.2f}, sky {:g} with a noise of {:.4g}\n",
               frame.file.string(), frame.stars.size(), frame.fwhm, frame.elongation, frame.sky, frame.noise);
    return;
  }
  Json json{{"file", frame.file.string()},
            {"width", frame.width},
            {"height", frame.height},
            {"stars", frame.stars.size()},
            {"fwhm", frame.fwhm},
            {"elongation", frame.elongation},
            {"sky", frame.sky},
            {"noise", frame.noise},
            {"list", Json::array()}};
  for (const CStar& star : frame.stars) {
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
  PrintJson(json);
}

struct StarsOptions {
  std::vector<std::filesystem::path> files;
  std::filesystem::path output;
  double sigmas = 5;
  std::string hdu;
};

void Stars(Tool& tool, const StarsOptions& options) {
  if (!options.output.empty()) {
    if (options.files.size() > 1) {
      throw UsageError(
          fmt::format("one list holds the stars of one image, not of {}; call it for each, or use --json",
                      options.files.size()));
    }
    tool.CheckOutput(options.output);
  }
  tool.ForEachFile(options.files, [&](const std::filesystem::path& file) {
    const FrameStars frame = MeasureFrame(tool, file, options.sigmas, options.hdu);
    if (!options.output.empty()) WriteList(options.output, frame);
    PrintStars(tool, frame);
  });
}

struct RegisterOptions {
  std::vector<std::filesystem::path> files;
  std::string reference = "auto", hdu;
  double sigmas = 5, residual = 1;
};

void PrintRegistration(const Tool& tool, const FrameStars& frame, const Registration& r) {
  if (tool.options.json) {
    PrintJson({{"file", frame.file.string()},
               {"dx", r.dx},
               {"dy", r.dy},
               {"degrees", r.degrees},
               {"stars", r.stars},
               {"residual_px", r.residual},
               {"method", r.method},
               {"status", r.status}});
  } else if (r.IsGood()) {
    fmt::print("{}: shift {:.3f}, {:.3f}, angle {:.4f}, {} of {} stars, residual {:.3f}\n",
               frame.file.string(), r.dx, r.dy, r.degrees, r.stars, frame.stars.size(), r.residual);
  } else {
    fmt::print("{}: {}, with {} stars\n", frame.file.string(), r.status, frame.stars.size());
  }
}

void Register(Tool& tool, const RegisterOptions& options) {
  std::vector<FrameStars> frames;
  const auto measure = [&](const std::filesystem::path& file) {
    return MeasureFrame(tool, file, options.sigmas, options.hdu);
  };
  tool.ForEachFile(options.files, [&](const std::filesystem::path& file) {
    tool.console.JobProgress("finding stars", static_cast<long long>(frames.size()),
                             static_cast<long long>(options.files.size()));
    frames.push_back(measure(file));
  });
  tool.console.JobProgress("finding stars", 0, 0);
  FrameStars reference;
  if (options.reference != "auto") {
    reference = measure(options.reference);
  } else if (const int best = ChooseReference(frames); best >= 0) {
    reference = frames[best];
  }
  tool.console.Say(reference.stars.empty()
                       ? "no stars to register by"
                       : fmt::format("reference: {}, FWHM {:.2f}, {} stars", reference.file.string(),
                                     reference.fwhm, reference.stars.size()));
  CStarMatcher matcher(reference.stars);
  matcher.SetResidualLimit(options.residual);
  for (const FrameStars& frame : frames) {
    tool.console.CheckCancelled();
    PrintRegistration(tool, frame, RegisterByStars(matcher, frame));
  }
}

}  // namespace

void AddStars(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<StarsOptions>();
  CLI::App* verb = app.add_subcommand("stars", "Find and measure the stars of images");
  verb->add_option("images", options->files, "FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("-o,--output", options->output,
                   "list of 'x y radius # flux ...', which render --annotate --stars reads");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Stars(tool, *options);
  });
}

void AddRegister(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<RegisterOptions>();
  CLI::App* verb = app.add_subcommand("register", "Tell how frames lie on a reference");
  verb->add_option("frames", options->files, "FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--reference", options->reference, "an image, or auto for the sharpest of the frames");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option("--residual", options->residual, "pixels that stars may be off by in the mean")
      ->check(CLI::Range(0.01, 100.0));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Register(tool, *options);
  });
}

}  // namespace korimg::tool
