#include "korimg/display/CImgDrawText.h"

#include <algorithm>
#include <cstring>

#include "korimg/composite/CImgComposit.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

int CImgDrawText::Do(CVelImage* target, CPoint at, const CString& text, LOGFONTW* font, unsigned long colour,
                     int smooth) {
  constexpr int kWeight = 2, kNearest = 4, kOnLevels = 1;
  constexpr double kOpacity = 0.95;
  if (target->IsEmpty()) return 0;
  const auto mask = MakeMask(target->VmManager(), text, *font, smooth);
  const auto layer = mask ? MakeLayer(*mask, *target, colour) : nullptr;
  if (!layer) return 0;
  const long long right = 1LL * at.x + layer->GetWidth(), bottom = 1LL * at.y + layer->GetHeight();
  const Window box(std::max(at.x, 0), std::max(at.y, 0),
                   static_cast<int>(std::min<long long>(right, target->GetWidth())),
                   static_cast<int>(std::min<long long>(bottom, target->GetHeight())));
  if (box.IsEmpty()) return 0;
  // What lies under the box is composited as an image of its own, so that nothing around it changes.
  CVelImage under(target->VmManager(), Float, box.Width(), box.Height(), target->GetPlanes(), 1.0, 0.0, 1,
                  nullptr);
  const size_t bytes = box.Width() * sizeof(float);
  for (int p = 0; p < target->GetPlanes(); ++p) {
    under.SetLevel(p, target->GetLevelMin(p), target->GetLevelMax(p));
    for (int y = box.top; y < box.bottom; ++y) {
      std::memcpy(under.GetWritableLine(0, y - box.top, p), target->GetLine(box.left, y, p), bytes);
    }
  }
  CImgComposit mixed;
  MakeWorkImage(mixed, under);
  mixed.Do(&under, layer.get(), at.x - box.left, at.y - box.top, 0, 0, kWeight, kNearest, kOpacity, kOnLevels,
           0, 0, 0, nullptr, 0, -1);
  for (int p = 0; p < target->GetPlanes(); ++p) {
    for (int y = box.top; y < box.bottom; ++y) {
      std::memcpy(target->GetWritableLine(box.left, y, p), mixed.GetLine(0, y - box.top, p), bytes);
    }
  }
  return 1;
}

std::unique_ptr<CVelImage> CImgDrawText::MakeMask(const std::shared_ptr<CVmManager>& manager,
                                                  const CString& text, const LOGFONTW& font, int smooth) {
  const int factor = smooth ? 2 : 1;
  LOGFONTW drawn = font;
  drawn.lfHeight *= factor;
  drawn.lfWidth *= factor;
  const auto pixels = DrawTextPixels(text, drawn);
  if (!pixels) return nullptr;
  const int width = pixels->width / factor, height = pixels->height / factor;
  if (width < 1 || height < 1) return nullptr;
  try {
    auto mask = std::make_unique<CVelImage>(manager, Float, width, height, 1, 1.0, 0.0, 1, nullptr);
    mask->SetLevel(0, 0, 1);
    for (int y = 0; y < height; ++y) {
      float* line = mask->GetWritableLine(0, y, 0);
      for (int x = 0; x < width; ++x) {
        int covered = 0;
        for (int i = 0; i < factor * factor; ++i) {
          const int px = x * factor + i % factor, py = y * factor + i / factor;
          covered += pixels->covered[1LL * py * pixels->width + px];
        }
        line[x] = static_cast<float>(covered) / static_cast<float>(factor * factor);
      }
    }
    return mask;
  } catch (const velora::CVmMemoryAllocationError&) {
    return nullptr;
  }
}

std::unique_ptr<CVelImage> CImgDrawText::MakeLayer(CVelImage& mask, const CVelImage& target,
                                                   unsigned long colour) {
  std::vector<double> channels = {1.0 * (colour & 255), 1.0 * (colour >> 8 & 255),
                                  1.0 * (colour >> 16 & 255)};
  if (!target.IsColor()) {
    const auto [low, high] = std::minmax_element(channels.begin(), channels.end());
    channels = {(*low + *high) * 0.5};
  }
  try {
    auto layer = std::make_unique<CVelImage>(mask.VmManager(), Float, mask.GetWidth(), mask.GetHeight(),
                                             static_cast<int>(channels.size()), 1.0, 0.0, 1, nullptr);
    for (int p = 0; p < layer->GetPlanes(); ++p) {
      layer->SetLevel(p, 0, 1);
    }
    ForPlaneLines(*layer, Window(*layer, nullptr), Team::One, [&](int p, int y) {
      const float* in = mask.GetLine(0, y, 0);
      float* out = layer->GetWritableLine(0, y, p);
      const auto share = static_cast<float>(channels[p] / 255);
      for (int x = 0; x < mask.GetWidth(); ++x) {
        out[x] = in[x] * share;
      }
    });
    return layer;
  } catch (const velora::CVmMemoryAllocationError&) {
    return nullptr;
  }
}
