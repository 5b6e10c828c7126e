// korimg register: how frames lie on a reference.
#include "app/register/Register.h"

#include <deque>
#include <fstream>
#include <future>

#include <fmt/format.h>

#include "korimg/platform/CParallel.h"

#include "app/files/Formats.h"
#include "app/tool/Images.h"
#include "app/verbs/Verbs.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;

struct RegisterOptions {
  std::vector<fs::path> files;
  std::string reference = "auto", hdu;
  fs::path output;
  double sigmas = 5, residual = 1;
};

/// Calls work(file) for a few files at once, each on its share of the threads, and then take(index, result)
/// in order. A file that fails is one line on standard error.
template <class Work, class Take>
void ForFilesAtOnce(Tool& tool, const std::vector<fs::path>& files, const std::string& title, Work&& work,
                    Take&& take) {
  constexpr int kMostAtOnce = 4;  // each holds an image
  const int threads = CParallel::GetMaxThreads();
  const auto atOnce = static_cast<size_t>(std::min(threads, kMostAtOnce));
  const auto policy = atOnce > 1 ? std::launch::async : std::launch::deferred;
  std::deque<std::future<decltype(work(files[0]))>> running;
  size_t next = 0, done = 0;
  tool.ForEachFile(files, [&](const fs::path&) {
    for (; next < files.size() && next < done + atOnce; ++next) {
      running.push_back(
          std::async(policy, [&work, &file = files[next], share = threads / static_cast<int>(atOnce)] {
            CParallel::SetMaxThreads(share);
            return work(file);
          }));
    }
    tool.console.JobProgress(title, static_cast<long long>(done) + 1, static_cast<long long>(files.size()));
    auto first = std::move(running.front());
    running.pop_front();
    const size_t index = done++;
    take(index, first.get());
  });
  tool.console.JobProgress("", 0, 0);
}

std::string Line(const Registration& r) {
  return r.IsGood() ? fmt::format("{}: shift {:.3f}, {:.3f}, angle {:.4f}, residual {:.3f} ({}, {})", r.file,
                                  r.dx, r.dy, r.degrees, r.residual, r.method, r.stars)
                    : fmt::format("{}: {}", r.file, r.status);
}

void Register(Tool& tool, const RegisterOptions& options) {
  if (!options.output.empty()) tool.CheckOutput(options.output);
  const auto store = tool.MakeStore();
  const auto load = [&](const fs::path& file) -> std::shared_ptr<CVelImage> {
    return LoadImage(tool, store, file, {.hdu = options.hdu}).image;
  };
  const auto measure = [&](const fs::path& file) { return MeasureFrame(*load(file), options.sigmas); };

  std::vector<fs::path> files;
  std::vector<FrameMeasure> frames;
  ForFilesAtOnce(tool, options.files, "finding stars in frame", measure, [&](size_t i, FrameMeasure frame) {
    files.push_back(options.files[i]);
    frames.push_back(std::move(frame));
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
  tool.console.Say(fmt::format("reference: {}, FWHM {:.2f}, {} stars", referenceFile.string(), reference.fwhm,
                               reference.starCount));

  Registrar registrar(
      reference, [&] { return load(referenceFile); }, options.residual);
  std::string lines;
  for (size_t i = 0; i < files.size(); ++i) {
    tool.ForEachFile({files[i]}, [&](const fs::path& file) {
      Registration registration = fs::equivalent(file, referenceFile)
                                      ? ReferenceRegistration(reference)
                                      : registrar.Register(frames[i], [&] { return load(file); });
      registration.file = file.string();
      lines += ToJson(registration) + '\n';
      if (tool.options.json && options.output.empty()) {
        fmt::print("{}\n", ToJson(registration));
      } else if (!tool.options.json) {
        fmt::print("{}\n", Line(registration));
      }
    });
  }
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
  verb->add_option("frames", options->files, "FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--reference", options->reference, "an image, or auto for the sharpest of the frames");
  verb->add_option("-o,--output", options->output, "file for one line of JSON for each frame");
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
