// Exposures through filters, shifted and turned, as planes of one colour image. Internal.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>

#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/image/internal/Frame.h"

namespace korimg {

/// A source of a composite: the output's pixel (x, y) is the source's at (x - dx, y - dy), turned about its
/// centre.
struct Channel {
  CVelImage* image;
  double dx, dy, degrees;

  double Sine() const { return std::sin(degrees * M_PI / 180); }
  double Cosine() const { return std::cos(degrees * M_PI / 180); }
  /// Answers the plane of a colour image that serves for a colour, or the only one of a mono image.
  int Plane(int ofColour) const { return image->IsColor() ? std::min(ofColour, image->GetPlanes() - 1) : 0; }
};

/// Fills the window's lines of a colour image from three sources, plane p from plane planes[p] of
/// channels[p], and calls done(rows) with the three locked rows of each line, from the window's left. A plane
/// whose flag is false is neither read nor written.
template <class F>
void WriteChannels(CVelImage& target, const Window& window, const std::array<Channel, 3>& channels,
                   const std::array<int, 3>& planes, const std::array<bool, 3>& isWritten, int useImageCentre,
                   int method, F&& done) {
  if (window.IsEmpty()) return;
  std::vector<CInterp> readers;
  for (int p = 0; p < 3; ++p) {
    const Channel& from = channels[p];
    CInterp& reader = readers.emplace_back(method);
    reader.SetBParam(CInterp::FormOf(from.dx, from.dy, from.degrees), from.image, window.left - from.dx,
                     window.right - from.dx, 0, 0.0f, planes[p], from.Sine(), from.Cosine(), 1.0,
                     useImageCentre);
    reader.SetLineCapacity(window.Width());
  }
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    const LockedLine lines[] = {{target, y, 0}, {target, y, 1}, {target, y, 2}};
    for (int p = 0; p < 3; ++p) {
      if (isWritten[p]) readers[p].GetBLine(y - channels[p].dy, &lines[p][window.left]);
    }
    done(std::array{&lines[0][window.left], &lines[1][window.left], &lines[2][window.left]});
    target.ShowProgress(1);
  });
}

}  // namespace korimg
