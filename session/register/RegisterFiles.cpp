#include "session/register/RegisterFiles.h"

#include <algorithm>
#include <fstream>
#include <map>

#include <fmt/format.h>

#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

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
void CheckShare(Job& job, const std::vector<Registration>& registrations, size_t all) {
  const auto count = [&](const auto& holds) {
    return static_cast<size_t>(std::count_if(registrations.begin(), registrations.end(), holds));
  };
  const size_t good = count([](const Registration&r) { return r.IsGood(); }),
               matched = count([](const Registration&r) { return r.IsGood() && r.method != "reference"; });
  if (2 * good >= all && (matched > 0 || good == all)) return;
  job.Fail(fmt::format("{} of {} frames lie on the reference{}", good, all,
                       matched > 0 ? ", less than half" : ", none but itself"));
}

RegisterResult Register(Job& job, const RegisterOptions& options) {
  const auto store = job.MakeStore();
  const auto open = [&](const fs::path& file) {
    return Image::Open(job, store, file, {.hdu = options.hdu, .lessBorder = true});
  };
  const auto load = [&](const fs::path& file) -> std::shared_ptr<CVelImage> {
    return std::move(open(file).Pointer());
  };
  const auto measure = [&](const fs::path& file) {
    const Image loaded = open(file);
    FrameMeasure frame = MeasureFrame(loaded.Pixels(), options.sigmas);
    frame.noData = loaded.Info().noData;
    return frame;
  };

  const std::vector<fs::path> wanted = ExpandFolders(job, options.files);
  std::vector<fs::path> files;
  std::vector<FrameMeasure> frames;
  const long long bytes = BytesAtWork(wanted, options.hdu);
  SideBySide(
      job, "finding stars in frame", wanted.size(), bytes, [&](size_t i) { return measure(wanted[i]); },
      [&](size_t i, const auto& result) {
        job.ForEachFile(
            {wanted[i]},
            [&](const fs::path& file) {
              frames.push_back(result());
              files.push_back(file);
              const std::string& noData = frames.back().noData;
              if (!noData.empty()) job.Say(fmt::format("{}: {}", file.string(), noData));
            },
            true);
      });
  if (frames.empty()) {
    job.Fail("none of the frames can be read");
    return {};
  }
  fs::path referenceFile = options.reference;
  FrameMeasure reference;
  if (options.reference == "auto") {
    const size_t best = ChooseReference(frames);
    referenceFile = files[best];
    reference = frames[best];
  } else {
    reference = measure(referenceFile);
  }
  job.Say(fmt::format("reference: {}, FWHM {:.2f}, {} stars", referenceFile.string(), reference.fwhm,
                      reference.starCount));

  Registrar registrar(
      reference, [&] { return load(referenceFile); }, options.residual);
  std::vector<Registration> registrations(files.size(), Registration{.status = "cannot be read"});
  SideBySide(
      job, "registering frame", files.size(), bytes,
      [&](size_t i) {
        return fs::equivalent(files[i], referenceFile)
                   ? ReferenceRegistration(reference)
                   : registrar.Register(frames[i], [&] { return load(files[i]); });
      },
      [&](size_t i, const auto& result) {
        job.ForEachFile({files[i]}, [&](const fs::path&) { registrations[i] = result(); });
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
  CheckShare(job, registrations, wanted.size());
  return {referenceFile, std::move(reference), std::move(registrations)};
}

}  // namespace

RegisterResult RegisterFiles(Job& job, const RegisterOptions& options) {
  return AtEdge([&] { return Register(job, options); });
}

void WriteRegistrations(const fs::path& path, const std::vector<Registration>& registrations) {
  AtEdge([&] {
    files::TransientFile part(files::PartialName(path));
    std::ofstream out(part.Path());
    for (const Registration& registration : registrations) {
      out << ToJson(registration) << '\n';
    }
    out.close();
    if (!out) throw files::FileError(path, "cannot be written; is the disk full?");
    part.RenameTo(path);
  });
}

}  // namespace korimg::session
