// What a stack is told of its frames' pixels beside their values: their variances, and which are marked.
#include <algorithm>
#include <cmath>
#include <limits>

#include "korimg/composite/stacking/CImgStack.h"
#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/WarpRows.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

/// Rows of a band's planes from one to the next.
struct BandShape {
  int width, rows, planes;
  long long At(int plane, int row) const { return (1LL * row * planes + plane) * width; }
};

/// How far from its place a pixel is made of others.
double ReachOf(int method) {
  switch (method) {
    case CInterp::MethodBilinear:
      return 1;
    case CInterp::MethodLanczos3:
      return 3;
    case CInterp::MethodNearest:
      return 0.5;
    default:
      return 2;
  }
}

/// A shift by whole pixels; none for another map.
bool IsWholeShift(const CFrameMap& map, const CFrameMap::Pose& pose) {
  constexpr double kNone = 1e-6;
  const auto isWhole = [](double v) { return std::abs(v - std::round(v)) < kNone; };
  return map.IsRigid() && std::abs(pose.degrees) < kNone && isWhole(pose.dx) && isWhole(pose.dy);
}

void CopyShifted(CVelImage& frame, int plane, int dx, int dy, int y0, const BandShape& shape, int to,
                 float* out) {
  for (int row = 0; row < shape.rows; ++row) {
    float* line = out + shape.At(to, row);
    const int y = y0 + row - dy, first = std::clamp(dx, 0, shape.width),
              end = std::clamp(frame.GetWidth() + dx, first, shape.width);
    const bool isThere = y >= 0 && y < frame.GetHeight();
    std::fill_n(line, shape.width, std::numeric_limits<float>::quiet_NaN());
    if (isThere && end > first) std::copy_n(frame.GetLine(first - dx, y, plane), end - first, line + first);
  }
}

/// Places that rounding leaves just off the frame, where the frame's values are on it, get the nearest
/// pixel's variance.
void FillEdges(CVelImage& frame, int plane, const MapRows& from, const BandShape& shape, int to,
               const int* valid, float* out) {
  for (int row = 0; row < shape.rows; ++row) {
    const long long first = shape.At(to, row);
    int off = 0;
    RunInLongVectors([&off, there = valid + first, found = out + first, width = shape.width]()
                         KORIMG_IN_LOOP {
                           int count = 0;
                           for (int x = 0; x < width; ++x) {
                             count += (there[x] != 0) & (found[x] < 0);
                           }
                           off = count;
                         });
    for (int x = 0; off > 0 && x < shape.width; ++x) {
      if (!valid[first + x] || !(out[first + x] < 0)) continue;
      --off;
      const Point place = from.At(x, row);
      const auto inside = [](double v, int size) {
        return static_cast<int>(std::clamp(std::round(v), 0.0, size - 1.0));
      };
      out[first + x] =
          *frame.GetLine(inside(place.x, frame.GetWidth()), inside(place.y, frame.GetHeight()), plane);
    }
  }
}

}  // namespace

void CImgStack::SetQualityMaps(CVelImage* variance, CVelImage* flags) {
  varianceMap_ = variance;
  flagMap_ = flags;
  variances_.resize(variance ? Slots() : 0);
}

int CImgStack::StoreQuality(int slot, CVelImage* variance, std::span<const Mark> marks, int yStart, int yEnd,
                            const CFrameMap& map, int method, int width, int height) {
  const BandShape shape{Target().GetWidth(), EndOfBand(yStart, yEnd) - yStart, Target().GetPlanes()};
  if (slot < 0 || slot >= Slots() || shape.rows <= 0 || CInterp::GetString(method).IsEmpty()) return 0;
  int* const valid = Band(slot).Valid();
  const CFrameMap::Pose pose = map.PoseOf(width, height);
  const bool isWhole = IsWholeShift(map, pose);
  const MapRows from(map.Inverse(), shape.width, yStart, shape.rows);
  if (variance && varianceMap_) {
    auto& out = variances_[slot];
    if (!out) out = std::make_unique<CLineData>(Band(slot).Size());
    for (int p = 0; p < shape.planes; ++p) {
      const int plane = p < variance->GetPlanes() ? p : 0;
      if (isWhole) {
        CopyShifted(*variance, plane, static_cast<int>(std::round(pose.dx)),
                    static_cast<int>(std::round(pose.dy)), yStart, shape, p, out->Values());
        continue;
      }
      constexpr float kOff = -1;
      WarpRows(*variance, plane, from, method, kOff,
               {out->Values() + shape.At(p, 0), nullptr, shape.width, shape.rows, shape.At(0, 1)},
               TapWeights::Squared);
      FillEdges(*variance, plane, from, shape, p, valid, out->Values());
    }
  }
  const double reach = isWhole ? 0.5 : ReachOf(method);
  for (const Mark& mark : marks) {
    const auto place = map({static_cast<double>(mark.x), static_cast<double>(mark.y)});
    if (!place) continue;
    // Maps of lenses stretch a little.
    const int about = static_cast<int>(std::ceil(1.5 * reach)), x0 = static_cast<int>(std::floor(place->x)),
              y0 = static_cast<int>(std::floor(place->y));
    for (int y = std::max(y0 - about, yStart); y <= std::min(y0 + 1 + about, yStart + shape.rows - 1); ++y) {
      for (int x = std::max(x0 - about, 0); x <= std::min(x0 + 1 + about, shape.width - 1); ++x) {
        const Point at = from.At(x, y - yStart);
        if (!(std::abs(at.x - mark.x) < reach && std::abs(at.y - mark.y) < reach)) continue;
        int& flag = valid[shape.At(mark.plane, y - yStart) + x];
        flag |= flag != 0 ? Marked : 0;
      }
    }
  }
  return 1;
}
