#include "session/register/RegisterFiles.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <tuple>

#include <fmt/format.h>

#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "session/register/LensLibrary.h"
#include "session/register/WorldMap.h"

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

/// Lights of the object that most are of.
std::vector<char> LightsOfOneObject(const std::vector<files::Header>& headers) {
  const auto text = [](const files::Header& header, const char* key) {
    return FoldedName(header.GetString(key).value_or(""));
  };
  const auto isLight = [&](const files::Header& header) {
    const std::string type = text(header, "IMAGETYP");
    return type.empty() || type.starts_with("light") || type.starts_with("object");
  };
  std::map<std::string, int> objects;
  for (const files::Header& header : headers) {
    if (isLight(header)) ++objects[text(header, "OBJECT")];
  }
  const auto most = std::max_element(objects.begin(), objects.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; });
  std::vector<char> lights;
  for (const files::Header& header : headers) {
    lights.push_back(isLight(header) && text(header, "OBJECT") == most->first);
  }
  return lights;
}

/// Lays frames by their world coordinates: those that are not laid, or all. True when there were any.
bool LayByWorld(const std::vector<FrameMeasure>& frames, const std::vector<files::Header>& headers,
                const FrameMeasure& reference, const files::Header& referenceHeader, bool all,
                std::vector<Registration>& registrations) {
  bool any = false;
  for (size_t i = 0; i < frames.size(); ++i) {
    Registration& own = registrations[i];
    if (own.method == "reference" || own.status == "cannot be read" || (own.IsGood() && !all)) continue;
    const auto map = MapByWorld(headers[i], {frames[i].width, frames[i].height}, referenceHeader,
                                {reference.width, reference.height});
    if (!map) {
      if (!all) continue;
      own.status = "no match";
      own.note =
          "it and the reference have no world coordinates of gnomonic projections that a map joins; "
          "mirrored ones have to be flipped first";
      continue;
    }
    const CFrameMap::Pose pose = map->PoseOf(frames[i].width, frames[i].height);
    own.dx = pose.dx, own.dy = pose.dy, own.degrees = pose.degrees;
    own.map = map;
    own.method = "wcs";
    own.status = "ok";
    own.stars = 0;
    own.residual = 0;
    own.note = "by its world coordinates";
    any = true;
  }
  return any;
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
    return std::pair(std::move(frame), loaded.Header());
  };

  const std::vector<fs::path> wanted = ExpandFolders(job, options.files);
  std::vector<fs::path> files;
  std::vector<FrameMeasure> frames;
  std::vector<files::Header> headers;
  const long long bytes = BytesAtWork(wanted, options.hdu);
  SideBySide(
      job, "finding stars in frame", wanted.size(), bytes, [&](size_t i) { return measure(wanted[i]); },
      [&](size_t i, const auto& result) {
        job.ForEachFile(
            {wanted[i]},
            [&](const fs::path& file) {
              auto [frame, header] = result();
              frames.push_back(std::move(frame));
              headers.push_back(std::move(header));
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
  FramesToLay toLay{files, frames, [&](size_t i) { return load(files[i]); }, bytes};
  toLay.mayBeReference = LightsOfOneObject(headers);
  const LensLibrary lenses(options.lenses);
  const std::string camera = LensLibrary::KeyOf(headers.front(), frames.front().width, frames.front().height);
  const LayOptions how{options.model, options.residual, lenses.Find(camera)};
  fs::path referenceFile = options.reference;
  FrameMeasure reference;
  files::Header referenceHeader;
  LaidFrames laid;
  const auto named = std::find_if(files.begin(), files.end(), [&](const fs::path& file) {
    return options.reference != "auto" && fs::equivalent(file, referenceFile);
  });
  if (options.reference == "auto" || named != files.end()) {
    const auto number = named == files.end() ? std::nullopt : std::optional<size_t>(named - files.begin());
    laid = LayFrames(job, toLay, number, how);
    referenceFile = files[*laid.reference];
    reference = frames[*laid.reference];
    referenceHeader = headers[*laid.reference];
  } else {
    std::tie(reference, referenceHeader) = measure(referenceFile);
    laid = LayFrames(
        job, toLay, reference, [&] { return load(referenceFile); }, how);
  }
  job.Say(fmt::format("reference: {}, FWHM {:.2f}, {} stars", referenceFile.string(), reference.fwhm,
                      reference.starCount));
  if (!laid.model.empty()) job.Say("laid by: " + laid.model);
  KeepLens(job, lenses, camera, laid);
  std::vector<Registration> registrations = std::move(laid.registrations);
  if (options.by != LayBy::Stars &&
      LayByWorld(frames, headers, reference, referenceHeader, options.by == LayBy::World, registrations)) {
    CompareFluxes(frames, reference, registrations);
  }
  NameCopies(frames, registrations);
  for (const fs::path& file : wanted) {
    if (std::find(files.begin(), files.end(), file) == files.end()) {
      registrations.push_back({.file = file.string(), .status = "cannot be read"});
    }
  }
  CheckShare(job, registrations, wanted.size());
  return {referenceFile, std::move(reference), std::move(registrations), laid.model};
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
