#include "session/stars/Stars.h"

#include <algorithm>
#include <fstream>

#include <fmt/format.h>

#include "korimg/composite/stacking/FrameLevels.h"

#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/focus/Focus.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {

namespace fs = std::filesystem;

std::string FoundStars::GainText() const {
  return gain.electrons > 0
             ? fmt::format("gain {:g} ({})", gain.electrons, gain.source)
             : fmt::format("gain unknown ({}): snr leaves out the noise of the stars' own light",
                           gain.source);
}

std::string FlagsText(const CStar& star) {
  std::string text;
  for (const auto& [flag, name] : {std::pair(CStar::Saturated, "saturated"), std::pair(CStar::Edge, "edge"),
                                   std::pair(CStar::Blended, "blended")}) {
    if (star.flags & flag) text += (text.empty() ? "" : ",") + std::string(name);
  }
  return text;
}

FoundStars FindStars(const Image& image, const StarOptions& options) {
  return AtEdge([&] {
    CVelImage& pixels = image.Pixels();
    FoundStars found{.width = image.Width(), .height = image.Height(), .noData = image.Info().noData};
    found.gain =
        options.gain ? *options.gain : files::FindGain(image.Header(), MeasureLevels(pixels).noise[0]);
    CStarFinder finder(&pixels);
    finder.SetThreshold(options.sigmas);
    finder.SetGain(found.gain.electrons);
    finder.Find();
    found.stars = finder.GetStars();
    found.fwhm = finder.GetFwhm();
    found.elongation = finder.GetElongation();
    found.guideError = GuideErrorOf(pixels, found.stars);
    found.sky = finder.GetSky();
    found.noise = finder.GetNoise();
    return found;
  });
}

void FindStars(Job& job, const StarFilesOptions& options, const std::function<void(FileStars)>& take) {
  AtEdge([&] {
    const auto store = job.MakeStore();
    job.ForEachFile(ExpandFolders(job, options.files), [&](const fs::path& file) {
      take({FindStars(Image::Open(job, store, file, {.hdu = options.hdu, .lessBorder = true}), options),
            file});
    });
  });
}

std::vector<FileStars> FindStars(Job& job, const StarFilesOptions& options) {
  std::vector<FileStars> all;
  FindStars(job, options, [&all](FileStars found) { all.push_back(std::move(found)); });
  return all;
}

void WriteStarList(const fs::path& path, const FileStars& found) {
  AtEdge([&] {
    constexpr double kRadii = 2, kLeast = 3;  // FWHM, pixels; chosen
    files::TransientFile part(files::PartialName(path));
    std::ofstream out(part.Path());
    out << fmt::format("# {} stars of {}\n# {}\n# x y radius # flux fwhm elongation peak snr sky flags\n",
                       found.stars.size(), found.file.filename().string(), found.GainText());
    for (const CStar& star : found.stars) {
      const std::string flags = FlagsText(star);
      out << fmt::format("{:.3f} {:.3f} {:.1f} # {:.6g} {:.3f} {:.3f} {:.6g} {:.1f} {:.6g} {}\n", star.x,
                         star.y, std::max(kRadii * star.fwhm, kLeast), star.flux, star.fwhm, star.elongation,
                         star.peak, star.snr, star.sky, flags.empty() ? "-" : flags);
    }
    out.close();
    if (!out) throw files::FileError(path, "cannot be written; is the disk full?");
    part.RenameTo(path);
  });
}

}  // namespace korimg::session
