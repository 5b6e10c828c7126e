#include "app/tool/FrameStars.h"

#include <algorithm>

#include "app/tool/Images.h"

namespace korimg::tool {

FrameStars MeasureFrame(Tool& tool, const std::filesystem::path& file, double sigmas,
                        const std::string& hdu) {
  const auto store = tool.MakeStore();
  const LoadedImage loaded = LoadImage(tool, store, file, {.hdu = hdu});
  CStarFinder finder(loaded.image.get());
  finder.SetThreshold(sigmas);
  finder.Find();
  return {file,
          loaded.image->GetWidth(),
          loaded.image->GetHeight(),
          finder.GetSky(),
          finder.GetNoise(),
          finder.GetFwhm(),
          finder.GetElongation(),
          finder.GetStars()};
}

int ChooseReference(const std::vector<FrameStars>& frames) {
  size_t most = 0;
  for (const FrameStars& frame : frames) {
    most = std::max(most, frame.stars.size());
  }
  int best = -1;
  for (int i = 0; i < static_cast<int>(frames.size()); ++i) {
    if (frames[i].stars.empty() || 2 * frames[i].stars.size() < most) continue;
    if (best < 0 || frames[i].fwhm < frames[best].fwhm) best = i;
  }
  return best;
}

Registration RegisterByStars(const CStarMatcher& reference, const FrameStars& frame) {
  const CStarMatch match = reference.Match(frame.stars, frame.width, frame.height);
  const char* const names[] = {"ok", "no stars", "no match", "mirrored", "residual too large"};
  return {match.dx,    match.dy,    match.degrees, match.residual,
          match.scale, match.stars, "stars",       names[match.status]};
}

}  // namespace korimg::tool
