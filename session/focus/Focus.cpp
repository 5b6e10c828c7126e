#include "session/focus/Focus.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "korimg/image/Loan.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/measurement/CImgEvaluateFocus.h"
#include "korimg/measurement/CImgEvaluateGuideError.h"
#include "korimg/measurement/CImgLight.h"

#include "session/calibrate/Frames.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {
namespace {

/// The mean of a plane without its margin.
double MeanInside(CVelImage& image, int margin) {
  const int width = image.GetWidth() - 2 * margin, height = image.GetHeight() - 2 * margin;
  if (width <= 0 || height <= 0) return 0;
  const auto lines = MapLines(margin, margin + height, [&](int y) {
    const float* line = image.GetLine(margin, y, 0);
    return std::accumulate(line, line + width, 0.0);
  });
  return std::accumulate(lines.begin(), lines.end(), 0.0) / width / height;
}

/// Of what stands out of the sky by more than noise, three deviations, so that neither counts. Chosen.
double RelativeFocus(CVelImage& image) {
  constexpr double kNoise = 3;
  CImgLight light;
  light.DoAboveSky(&image, kNoise);
  const double mean = MeanInside(light, CImgEvaluateFocus::GetMargin());
  return mean > 0 ? Loan<CImgEvaluateFocus>(light).borrower.Do(0) / mean : 0;
}

}  // namespace

std::optional<double> GuideErrorOf(CVelImage& image, const std::vector<CStar>& stars) {
  // Chosen: as many as the guide error takes itself; of the image's sides, to each side of its middle, where
  // optics do least.
  constexpr std::ptrdiff_t kMost = 40;
  constexpr double kMiddle = 0.3;
  const auto isInMiddle = [](double at, int size) { return std::abs(at / size - 0.5) < kMiddle; };
  CArray<CStarPos, CStarPos&> brightest;
  for (const CStar& star : stars) {
    if (brightest.GetSize() == kMost) break;
    if (star.flags || !isInMiddle(star.x, image.GetWidth()) || !isInMiddle(star.y, image.GetHeight()))
      continue;
    CStarPos place;
    place.x = star.x + 0.5;
    place.y = star.y + 0.5;
    brightest.Add(place);
  }
  if (brightest.IsEmpty()) return std::nullopt;
  const bool isLight = image.GetPlanes() == 1 && !image.IsBayerImage();
  CImgLight light;
  if (!isLight) light.Do(&image);
  int measured = 0;
  const double elongation =
      CImgEvaluateGuideError::CalcElongation(isLight ? &image : &light, brightest, measured);
  return measured > 0 ? std::optional(elongation) : std::nullopt;
}

FoundFocus MeasureFocus(const Image& image) {
  return AtEdge([&] {
    CVelImage& pixels = image.Pixels();
    CStarFinder finder(&pixels);
    FoundFocus found{RelativeFocus(pixels), finder.Find()};
    found.fwhm = finder.GetFwhm();
    found.elongation = finder.GetElongation();
    found.guideError = GuideErrorOf(pixels, finder.GetStars());
    return found;
  });
}

FocusRanking RankByFocus(Job& job, const FocusOptions& options) {
  // Of fewer stars the width is that of anything: three to ten in a globular cluster are 13 to 30 pixels
  // wide.
  constexpr int kEnough = 20;
  return AtEdge([&] {
    const auto store = job.MakeStore();
    FocusRanking ranking;
    std::vector<FileFocus>& frames = ranking.frames;
    job.ForEachFile(ExpandFolders(job, options.files), [&](const std::filesystem::path& file) {
      frames.push_back(
          {MeasureFocus(Image::Open(job, store, file, {.hdu = options.hdu, .lessBorder = true})), file});
    });
    ranking.byStars = std::all_of(frames.begin(), frames.end(),
                                  [](const FileFocus& frame) { return frame.stars >= kEnough; });
    std::stable_sort(frames.begin(), frames.end(), [&](const FileFocus& a, const FileFocus& b) {
      return ranking.byStars ? a.fwhm < b.fwhm : a.focus > b.focus;
    });
    return ranking;
  });
}

}  // namespace korimg::session
