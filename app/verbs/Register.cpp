// korimg register: how frames lie on a reference.
#include "session/register/Register.h"

#include <algorithm>
#include <fstream>
#include <map>

#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/job/SideBySide.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;

struct RegisterOptions {
  std::vector<fs::path> files;
  std::string reference = "auto", hdu;
  fs::path output;
  double sigmas = 5, residual = 1;
};

std::string Line(const Registration& r) {
  if (!r.IsGood()) return fmt::format("{}: {}", r.file, r.Text());
  return fmt::format("{}: shift {:.3f}, {:.3f}, angle {:.4f}, residual {:.3f} ({}, {}){}", r.file, r.dx, r.dy,
                     r.degrees, r.residual, r.method, r.stars, r.note.empty() ? "" : "; " + r.note);
}

/// What a frame takes while its stars are found, by the first one that can be read.
long long BytesAtWork(const std::vector<fs::path>& frames, const std::string& hdu) {
  for (const fs::path& frame : frames) {
    try {
      return 2 * BytesOf(files::ImageReader::Open(frame, {.hdu = hdu})->Info());
    } catch (const files::FileError&) {
      // Told when its turn comes.
    }
  }
  return 0;
}

/// Frames with the same pixels count once.
void NameCopies(const std::vector<FrameMeasure>& frames, std::vector<Registration>& registrations) {
  std::map<std::uint64_t, std::string> first;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (!(frames[i].noise > 0)) continue;
    const auto [same, isNew] = first.emplace(frames[i].digest, registrations[i].file);
    if (isNew) continue;
    registrations[i].status = "copy";
    registrations[i].note = "has the pixels of " + same->second;
  }
}

/// A reference by itself, or less than half of the frames, is no success.
void CheckShare(Tool& tool, const std::vector<Registration>& registrations, size_t all) {
  const auto count = [&](const auto& holds) {
    return static_cast<size_t>(std::count_if(registrations.begin(), registrations.end(), holds));
  };
  const size_t good = count([](const Registration&r) { return r.IsGood(); }),
               matched = count([](const Registration&r) { return r.IsGood() && r.method != "reference"; });
  if (2 * good >= all && (matched > 0 || good == all)) return;
  tool.job.Fail(fmt::format("{} of {} frames lie on the reference{}", good, all,
                            matched > 0 ? ", less than half" : ", none but itself"));
}

void Register(Tool& tool, const RegisterOptions& options) {
  if (!options.output.empty()) tool.job.CheckOutput(options.output);
  const auto store = tool.job.MakeStore();
  const auto open = [&](const fs::path& file) {
    return LoadImage(tool.job, store, file, {.hdu = options.hdu, .lessBorder = true});
  };
  const auto load = [&](const fs::path& file) -> std::shared_ptr<CVelImage> { return open(file).image; };
  const auto measure = [&](const fs::path& file) {
    const LoadedImage loaded = open(file);
    FrameMeasure frame = MeasureFrame(*loaded.image, options.sigmas);
    frame.noData = loaded.info.noData;
    return frame;
  };

  const std::vector<fs::path> wanted = ExpandFolders(tool.job, options.files);
  std::vector<fs::path> files;
  std::vector<FrameMeasure> frames;
  const long long bytes = BytesAtWork(wanted, options.hdu);
  SideBySide(
      tool.job, "finding stars in frame", wanted.size(), bytes, [&](size_t i) { return measure(wanted[i]); },
      [&](size_t i, const auto& result) {
        tool.job.ForEachFile(
            {wanted[i]},
            [&](const fs::path& file) {
              frames.push_back(result());
              files.push_back(file);
              const std::string& noData = frames.back().noData;
              if (!noData.empty()) tool.job.Say(fmt::format("{}: {}", file.string(), noData));
            },
            true);
      });
  if (frames.empty()) return;
  fs::path referenceFile = options.reference;
  FrameMeasure reference;
  if (options.reference == "auto") {
    const size_t best = ChooseReference(frames);
    referenceFile = files[best];
    reference = frames[best];
  } else {
    reference = measure(referenceFile);
  }
  tool.job.Say(fmt::format("reference: {}, FWHM {:.2f}, {} stars", referenceFile.string(), reference.fwhm,
                           reference.starCount));

  Registrar registrar(
      reference, [&] { return load(referenceFile); }, options.residual);
  std::vector<Registration> registrations(files.size());
  SideBySide(
      tool.job, "registering frame", files.size(), bytes,
      [&](size_t i) {
        return fs::equivalent(files[i], referenceFile)
                   ? ReferenceRegistration(reference)
                   : registrar.Register(frames[i], [&] { return load(files[i]); });
      },
      [&](size_t i, const auto& result) {
        tool.job.ForEachFile({files[i]}, [&](const fs::path&) { registrations[i] = result(); });
        registrations[i].file = files[i].string();
      });
  RegisterThroughOthers(frames, registrations, [&](size_t i) { return load(files[i]); });
  CompareFluxes(frames, reference, registrations);
  NameCopies(frames, registrations);
  for (const fs::path& file : wanted) {
    if (std::find(files.begin(), files.end(), file) == files.end()) {
      registrations.push_back({.file = file.string(), .status = "cannot be read"});
    }
  }
  std::string lines;
  for (const Registration& registration : registrations) {
    if (registration.status.empty()) continue;  // its failure was told
    lines += ToJson(registration) + '\n';
    if (!tool.options.json) fmt::print("{}\n", Line(registration));
  }
  if (tool.options.json && (options.output.empty() || tool.options.dryRun)) fmt::print("{}", lines);
  CheckShare(tool, registrations, wanted.size());
  if (options.output.empty() || tool.options.dryRun) return;
  files::TransientFile part(files::PartialName(options.output));
  std::ofstream out(part.Path());
  out << lines;
  out.close();
  if (!out) throw files::FileError(options.output, "cannot be written; is the disk full?");
  part.RenameTo(options.output);
}

}  // namespace

void AddRegister(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<RegisterOptions>();
  CLI::App* verb = app.add_subcommand("register", "Tell how frames lie on a reference");
  verb->add_option("frames", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--reference", options->reference, "an image, or auto for the sharpest of the frames");
  verb->add_option("-o,--output", options->output, "file for one line of JSON for each frame");
  verb->add_option("--sigma", options->sigmas, "noise of the sky that stars exceed so many times")
      ->check(CLI::Range(0.5, 1e6));
  verb->add_option("--residual", options->residual, "pixels that stars may be off by in the mean")
      ->check(CLI::Range(0.01, 100.0));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  verb->footer(
      "A frame of width x height pixels lies on the reference once it is turned by `degrees`, clockwise "
      "on the screen, about the point (width / 2, height / 2), and then shifted by `dx` to the right and "
      "`dy` down. Positions count from the centre of the first pixel.");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Register(tool, *options);
  });
}

}  // namespace korimg::tool
