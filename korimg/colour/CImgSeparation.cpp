#include "korimg/colour/CImgSeparation.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// The planes that a channel is the mean of, and those that its levels come from.
struct Channel {
  int first, second;
  int lower, upper;
};

constexpr Channel kChannels[] = {{0, 0, 0, 0}, {1, 1, 1, 1}, {2, 2, 2, 2},
                                 {1, 2, 1, 2}, {0, 2, 0, 2}, {0, 1, 0, 2}};

}  // namespace

void CImgSeparation::Do(CVelImage* src, int channel, int show) {
  if (channel < 0 || channel > 5) return;
  if (IsEmpty() || GetPlanes() != 1 || src->IsEmpty() || src->GetPlanes() != 3 || !SameSize(*src, *this))
    return;
  const ProgressScope progress(*this, show, 6137, GetHeight());
  const Channel& c = kChannels[channel];
  SetLevel(0, (src->GetLevelMin(c.lower) + src->GetLevelMin(c.upper)) * 0.5,
           (src->GetLevelMax(c.lower) + src->GetLevelMax(c.upper)) * 0.5);
  ForLines(Team::All, 0, GetHeight(), [&](int y) {
    const float *first = src->GetLine(0, y, c.first), *second = src->GetLine(0, y, c.second);
    float* out = GetWritableLine(0, y, 0);
    for (int x = 0; x < GetWidth(); ++x) {
      out[x] = static_cast<float>((static_cast<double>(first[x]) + second[x]) * 0.5);
    }
    ShowProgress(1);
  });
}
