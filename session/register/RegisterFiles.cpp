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

/// What the image of a frame takes, by the first one that can be read.
long long BytesOfFrames(const std::vector<fs::path>& frames, const std::string& hdu) {
  for (const fs::path& frame : frames) {
    try {
      return BytesOf(files::ImageReader::Open(frame, {.hdu = hdu})->Info());
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

RegisterResult Register(Job& job, const std::vector<RegisterSource>& wanted,
                        const RegisterReference& wantedReference, const RegisterOptions& options) {
  const auto measure = [&](const RegisterSource& source) {
    const Image loaded = source.open();
    FrameMeasure frame = MeasureFrame(loaded.Pixels(), options.sigmas);
    frame.noData = loaded.Info().noData;
    return std::pair(std::move(frame), loaded.Header());
  };
  const auto load = [](const RegisterSource& source) {
    auto image = std::make_shared<Image>(source.open());
    return std::shared_ptr<CVelImage>(image, &image->Pixels());
  };

  std::vector<size_t> numbers;  // of those that can be read, as they are wanted
  std::vector<fs::path> files;
  std::vector<FrameMeasure> frames;
  std::vector<files::Header> headers;
  // The image, and as much again while its stars are found.
  const long long bytes = wanted.empty() ? 0 : 2 * wanted.front().bytes;
  SideBySide(
      job, "finding stars in frame", wanted.size(), bytes, [&](size_t i) { return measure(wanted[i]); },
      [&](size_t i, const auto& result) {
        job.ForEachFile(
            {wanted[i].name},
            [&](const fs::path& file) {
              auto [frame, header] = result();
              frames.push_back(std::move(frame));
              headers.push_back(std::move(header));
              files.push_back(file);
              numbers.push_back(i);
              const std::string& noData = frames.back().noData;
              if (!noData.empty()) job.Say(fmt::format("{}: {}", file.string(), noData));
            },
            true);
      });
  if (frames.empty()) {
    job.Fail("none of the frames can be read");
    return {};
  }
  FramesToLay toLay{files, frames, [&](size_t i) { return load(wanted[numbers[i]]); }, bytes};
  toLay.mayBeReference = LightsOfOneObject(headers);
  const LensLibrary lenses(options.lenses);
  const std::string camera = LensLibrary::KeyOf(headers.front(), frames.front().width, frames.front().height);
  const LayOptions how{options.model, options.residual, lenses.Find(camera)};
  fs::path referenceName;
  FrameMeasure reference;
  files::Header referenceHeader;
  LaidFrames laid;
  if (const auto* other = std::get_if<RegisterSource>(&wantedReference)) {
    referenceName = other->name;
    std::tie(reference, referenceHeader) = measure(*other);
    laid = LayFrames(
        job, toLay, reference, [&] { return load(*other); }, how);
  } else {
    std::optional<size_t> number;
    if (const auto* told = std::get_if<size_t>(&wantedReference)) {
      const auto found = std::find(numbers.begin(), numbers.end(), *told);
      if (found == numbers.end()) {
        throw files::FileError(wanted.at(*told).name,
                               "is the reference, and cannot be read; name another one");
      }
      number = found - numbers.begin();
    }
    laid = LayFrames(job, toLay, number, how);
    referenceName = files[*laid.reference];
    reference = frames[*laid.reference];
    referenceHeader = headers[*laid.reference];
  }
  job.Say(fmt::format("reference: {}, FWHM {:.2f}, {} stars", referenceName.string(), reference.fwhm,
                      reference.starCount));
  if (!laid.model.empty()) job.Say("laid by: " + laid.model);
  KeepLens(job, lenses, camera, laid);
  std::vector<Registration> registrations = std::move(laid.registrations);
  if (options.by != LayBy::Stars &&
      LayByWorld(frames, headers, reference, referenceHeader, options.by == LayBy::World, registrations)) {
    CompareFluxes(frames, reference, registrations);
  }
  NameCopies(frames, registrations);
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (!std::binary_search(numbers.begin(), numbers.end(), i)) {
      registrations.push_back({.file = wanted[i].name, .status = "cannot be read"});
    }
  }
  CheckShare(job, registrations, wanted.size());
  return {referenceName, std::move(reference), std::move(registrations), laid.model};
}

}  // namespace

RegisterResult RegisterFiles(Job& job, const RegisterOptions& options) {
  return AtEdge([&] {
    const auto store = job.MakeStore();
    const std::vector<fs::path> wanted = ExpandFolders(job, options.files);
    const long long bytes = BytesOfFrames(wanted, options.hdu);
    const auto source = [&](const fs::path& file) {
      return RegisterSource{file.string(),
                            [&job, &options, store, file] {
                              return Image::Open(job, store, file, {.hdu = options.hdu, .lessBorder = true});
                            },
                            bytes};
    };
    std::vector<RegisterSource> sources;
    RegisterReference reference;
    if (options.reference != "auto") reference = source(options.reference);
    for (const fs::path& file : wanted) {
      std::error_code unknown;
      if (fs::equivalent(file, options.reference, unknown)) reference = sources.size();
      sources.push_back(source(file));
    }
    return Register(job, sources, reference, options);
  });
}

RegisterResult RegisterImages(Job& job, const std::vector<RegisterSource>& images,
                              const RegisterReference& reference, const RegisterOptions& options) {
  return AtEdge([&] { return Register(job, images, reference, options); });
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
