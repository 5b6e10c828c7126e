// Members of the image object that work on its pixels in place, or copy them between images.
#include <algorithm>
#include <cstring>

#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

using ThresholdPipeline = int(halide_buffer_t*, float, float, halide_buffer_t*);

/// Pixels for which the condition holds become a value; a negative plane means all planes.
template <class Condition>
void Threshold(CVelImage& image, int plane, float threshold, float value, ThresholdPipeline* pipeline,
               Condition&& condition) {
  if (plane >= image.GetPlanes()) return;
  const int first = plane < 0 ? 0 : plane, last = plane < 0 ? image.GetPlanes() - 1 : plane;
  for (int p = first; p <= last; ++p) {
    if (IsContiguous(image)) {
      PlaneBuffer pixels(image, p, false);
      pipeline(pixels, threshold, value, pixels);
      continue;
    }
    for (int y = 0; y < image.GetHeight(); ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        line[x] = condition(line[x]) ? value : line[x];
      }
    }
  }
}

}  // namespace

void CVelImage::ThresholdEqual(int plane, float threshold, float value) {
  Threshold(*this, plane, threshold, value, threshold_eq_float, [=](float s) { return s == threshold; });
}

void CVelImage::ThresholdGreaterThan(int plane, float threshold, float value) {
  Threshold(*this, plane, threshold, value, threshold_gt_float, [=](float s) { return s > threshold; });
}

void CVelImage::ThresholdLessThan(int plane, float threshold, float value) {
  Threshold(*this, plane, threshold, value, threshold_lt_float, [=](float s) { return s < threshold; });
}

void CVelImage::ThresholdLessThanEqual(int plane, float threshold, float value) {
  Threshold(*this, plane, threshold, value, threshold_leq_float, [=](float s) { return s <= threshold; });
}

void CVelImage::ThresholdNotEqual(int plane, float threshold, float value) {
  Threshold(*this, plane, threshold, value, threshold_neq_float, [=](float s) { return s != threshold; });
}

void CVelImage::CutOutOfLevel() {
  for (int p = 0; p < GetPlanes(); ++p) {
    const double low = GetLevelMin(p), high = GetLevelMax(p);
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      float* line = GetWritableLine(0, y, p);
      for (int x = 0; x < GetWidth(); ++x) {
        const float s = line[x];
        line[x] = s < low ? static_cast<float>(low) : s > high ? static_cast<float>(high) : s;
      }
    });
  }
}

int CVelImage::CutOutOfZeroLevel() {
  const auto range = [this](int p) {
    return static_cast<float>(GetLevelMax(p)) - static_cast<float>(GetLevelMin(p));
  };
  const float range0 = range(0);
  for (int p = 0; p < GetPlanes(); ++p) {
    const auto m = static_cast<float>(GetLevelMin(p));
    const float r = range(p);
    SetLevel(p, 0.0, range0);
    if (IsContiguous(*this)) {
      PlaneBuffer pixels(*this, p, false);
      cut_out_of_zero_level_float(pixels, m, r, range0, pixels);
      continue;
    }
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      float* line = GetWritableLine(0, y, p);
      for (int x = 0; x < GetWidth(); ++x) {
        line[x] = NotNegative((line[x] - m) * range0 / r);
      }
    });
  }
  return 1;
}

void CVelImage::LiftUp(int lines) {
  if (lines <= 0 || IsEmpty()) return;
  for (int p = 0; p < GetPlanes(); ++p) {
    if (!IsContiguous(*this)) {
      for (int y = lines; y < GetHeight(); ++y) {
        const float* from = GetLine(0, y, p);
        std::memcpy(GetWritableLine(0, y - lines, p), from,
                    static_cast<size_t>(GetWidth()) * GetBytesPixel());
      }
      continue;
    }
    TemporaryPlane copy(*VmManager(), GetWidth(), GetHeight());
    copy_float(PlaneBuffer(*this, p), copy.Buffer());
    const int shift = std::min(lines, GetHeight() - 1);
    paste_rect_float(copy.Buffer(), 0, GetWidth(), shift, GetHeight(), 0, shift,
                     PlaneBuffer(*this, p, false));
  }
}

void CVelImage::Paste(CVelImage* src, CRect* rect) {
  if (src == this || !Fits(*src, *this)) return;
  const Window window(*this, rect);
  if (window.IsEmpty()) return;
  for (int p = 0; p < GetPlanes(); ++p) {
    if (MayRunPipelines(*this, *src)) {
      paste_float(PlaneBuffer(*src, p), window.left, window.right, window.top, window.bottom, window.left,
                  window.top, PlaneBuffer(*this, p, false));
      continue;
    }
    for (int y = window.top; y < window.bottom; ++y) {
      const float* from = src->GetLine(window.left, y, p);
      std::memcpy(GetWritableLine(window.left, y, p), from, sizeof(float) * window.Width());
    }
  }
}

void CVelImage::PixelBlt(int dstX, int dstY, int width, int height, CVelImage* src, int srcX, int srcY,
                         int convertLevel) {
  if (GetPlanes() != src->GetPlanes()) return;
  const auto limit = [](int value, int high) { return std::min(std::max(value, 0), high); };
  dstX = limit(dstX, GetWidth());
  dstY = limit(dstY, GetHeight());
  srcX = limit(srcX, src->GetWidth());
  srcY = limit(srcY, src->GetHeight());
  width = std::min(limit(width, GetWidth() - dstX), src->GetWidth() - srcX);
  height = std::min(limit(height, GetHeight() - dstY), src->GetHeight() - srcY);
  if (width <= 0 || height <= 0) return;

  std::unique_ptr<CVelImage> copy;  // of an image that is pasted into itself
  if (src == this) src = (copy = Clone(nullptr)).get();
  const Team team = MayRunPipelines(*this, *src) ? Team::All : Team::One;
  for (int p = 0; p < GetPlanes(); ++p) {
    ForLines(team, 0, height, [&](int y) {
      const float* in = src->GetLine(srcX, srcY + y, p);
      float* out = GetWritableLine(dstX, dstY + y, p);
      if (!convertLevel) {
        std::memcpy(out, in, sizeof(float) * width);
        return;
      }
      for (int x = 0; x < width; ++x) {
        out[x] = ToRaw(src->To256(in[x], p), p);
      }
    });
  }
}
