#include "korimg/geometry/CImgExpansion.h"

#include <algorithm>

#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/platform/Rotation.h"

using namespace korimg;

namespace {

/// Where the map lies on an image.
Window MapBox(const CVelImage& image) {
  const int w = image.GetWidth(), h = image.GetHeight();
  const int width = h < w / 2 ? 2 * h : w, height = h < w / 2 ? h : w / 2;
  const int left = (w - width) / 2, top = (h - height) / 2;
  return {left, top, left + width, top + height};
}

void DrawGrid(CVelImage& image, const Window& box, const Window& window) {
  constexpr int kEvery = 3, kParallels = 18, kMeridians = 36;
  const auto place = [](int i, int size, int divisions, int origin) {
    return static_cast<int>(1.0 * i * (size - 1) / divisions + origin);
  };
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto level = static_cast<float>(image.GetLevelMin(p) + image.GetLevelRange(p));
    for (int i = 0; i <= kParallels; i += kEvery) {
      const int y = place(i, box.Height(), kParallels, box.top);
      if (y < window.top || y >= window.bottom) continue;
      float* line = image.GetWritableLine(0, y, p);
      std::fill(line + window.left, line + window.right, level);
    }
    for (int y = window.top; y < window.bottom; ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int i = 0; i <= kMeridians; i += kEvery) {
        const int x = place(i, box.Width(), kMeridians, box.left);
        if (x >= window.left && x < window.right) line[x] = level;
      }
    }
  }
}

}  // namespace

void CImgExpansion::Do(CVelImage* src, double centreX, double centreY, double radius, double tiltY,
                       double tiltX, double oblateness, int grid, CRect* rect, int show) {
  if (IsEmpty() || src->IsEmpty() || src->GetPlanes() < GetPlanes()) return;
  for (int p = 0; p < GetPlanes(); ++p) {
    SetLevel(p, src->GetLevelMin(p), src->GetLevelMax(p));
  }
  const Window window(*this, rect), box = MapBox(*this);
  const ProgressScope progress(*this, show, 6140, window.Lines(*this));
  if (window.IsEmpty()) return;
  const Rotation matrix = MulMatrix(RotateX(tiltX), RotateY(tiltY));
  const int middleX = GetWidth() / 2, middleY = GetHeight() / 2;
  std::vector<Direction> equator;  // of each column of the box: a latitude only shortens and lifts it
  for (int x = box.left; x < box.right; ++x) {
    equator.push_back(AdToDc(1.0 * (x - middleX) / box.Width() * 360.0, 0));
  }
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const LockedLine out(*this, y, p);
    const auto outside = static_cast<float>(GetLevelMin(p));
    const bool inBox = y >= box.top && y < box.bottom;
    const Direction meridian = AdToDc(0, inBox ? 1.0 * (y - middleY) / box.Height() * -180.0 : 0);
    for (int x = window.left; x < window.right; ++x) {
      if (!inBox || x < box.left || x >= box.right) {
        out[x] = outside;
        continue;
      }
      const Direction& e = equator[x - box.left];
      Direction d = RotateDc(matrix, {meridian[0] * e[0], meridian[0] * e[1], meridian[2] * oblateness});
      if (d[2] == 1 || d[2] == -1) d[0] = d[1] = 0;
      const double sx = radius * d[1] + centreX, sy = centreY - radius * d[2];
      const bool seen =
          !(d[0] < 0) && sx >= 0 && sx <= src->GetWidth() - 1 && sy >= 0 && sy <= src->GetHeight() - 1;
      out[x] = seen ? src->GetPixelGrayRaw(sx, sy, p) : 0;
    }
  });
  if (grid) DrawGrid(*this, box, window);
}
