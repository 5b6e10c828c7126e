#include "korimg/colour/CImgRgbCmpst.h"

#include "korimg/colour/internal/Channels.h"
#include "korimg/platform/StringTable.h"

using namespace korimg;

void CImgRgbCmpst::Do(CVelImage* red, double redX, double redY, double redDegrees, CVelImage* green,
                      double greenX, double greenY, double greenDegrees, CVelImage* blue, double blueX,
                      double blueY, double blueDegrees, int useImageCentre, int method, CRect* rect,
                      int* mask, int show, CString caption) {
  const std::array channels = {Channel{red, redX, redY, redDegrees},
                               Channel{green, greenX, greenY, greenDegrees},
                               Channel{blue, blueX, blueY, blueDegrees}};
  std::array<int, 3> planes{};
  std::array<bool, 3> isWritten{};
  for (int p = 0; p < 3; ++p) {
    const Channel& from = channels[p];
    planes[p] = from.Plane(p);
    isWritten[p] = !mask || mask[p] != 0;
    SetLevel(p, from.image->GetLevelMin(planes[p]), from.image->GetLevelMax(planes[p]));
  }
  constexpr int kComposing = 6108;
  const Window window(*this, rect);
  if (caption.IsEmpty()) caption = LoadString(kComposing).c_str();
  const ProgressScope progress(*this, show, static_cast<const wchar_t*>(caption), window.Height());
  WriteChannels(*this, window, channels, planes, isWritten, useImageCentre, method, [](const auto&) {});
}
