#include "session/compose/internal/CommonArea.h"

#include <algorithm>
#include <cmath>

namespace korimg::session {
namespace {

/// Narrows a span of x to where slope x + offset lies in 0 to last.
void Narrow(double& left, double& right, double slope, double offset, double last) {
  constexpr double kRounding = 1e-6;  // pixels
  if (std::abs(slope) < 1e-12) {
    if (!(offset >= -kRounding && offset <= last + kRounding)) right = left - 1;
    return;
  }
  double a = -offset / slope, b = (last - offset) / slope;
  if (a > b) std::swap(a, b);
  left = std::max(left, std::ceil(a - kRounding));
  right = std::min(right, std::floor(b + kRounding));
}

}  // namespace

CRect CommonArea(int width, int height, const std::vector<Placement>& images) {
  // What images share is convex: between two rows that have a span, all rows have it.
  std::vector<int> first(height, 0), last(height, width - 1);
  for (const Placement& image : images) {
    const double radians = image.degrees * M_PI / 180, sine = std::sin(radians), cosine = std::cos(radians);
    const double cx = image.width * 0.5, cy = image.height * 0.5;
    for (int y = 0; y < height; ++y) {
      // The position on the image is (cosine X - sine Y + cx, cy - (sine X + cosine Y)).
      const double up = cy - y + image.dy, across = -cx - image.dx;
      double left = first[y], right = last[y];
      Narrow(left, right, cosine, cosine * across - sine * up + cx, image.width - 1);
      Narrow(left, right, -sine, cy - sine * across - cosine * up, image.height - 1);
      const bool isEmpty = left > right;
      first[y] = isEmpty ? width : static_cast<int>(left);
      last[y] = isEmpty ? -1 : static_cast<int>(right);
    }
  }
  CRect best(0, 0, 0, 0);
  long long most = 0;
  for (int top = 0; top < height; ++top) {
    for (int bottom = top; bottom < height; ++bottom) {
      const int left = std::max(first[top], first[bottom]), right = std::min(last[top], last[bottom]);
      const long long pixels = (right - left + 1LL) * (bottom - top + 1);
      if (right < left) continue;
      if (pixels > most) most = pixels, best = CRect(left, top, right + 1, bottom + 1);
    }
    // No rectangle from a lower row on is larger.
    if (1LL * width * (height - top - 1) <= most) break;
  }
  return best;
}

}  // namespace korimg::session
