// Calibration of the image object by dark and flat frames.
#include <cmath>

#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// The plane of a calibration frame that serves plane p of an image.
int PlaneOf(const CVelImage& frame, int p) {
  return frame.IsColor() ? p : 0;
}

/// Where the gamma curve of a flat starts: its maximum less twice its range.
float FlatOrigin(float minimum, float maximum) {
  const float range = maximum - minimum;
  return static_cast<float>(static_cast<double>(maximum) - 2.0 * range);
}

/// One flat division; a divisor that is not above 0 leaves the pixel.
inline float Divide(float pixel, float average, float divisor) {
  return divisor > 0.0f ? average * pixel / divisor : pixel;
}

}  // namespace

float CVelImage::FlatGamma(float value, float maximum, float origin, double gamma) {
  const float span = maximum - origin;
  return static_cast<float>(std::pow(static_cast<double>((value - origin) / span), gamma) * span + origin);
}

void CVelImage::DarkClbrtn(CVelImage* dark, int show) {
  if (!Serves(*dark, *this)) return;
  const Window whole(*this, nullptr);
  const ProgressScope progress(*this, show, 6106, GetHeight() * GetPlanes());
  if (MayRunPipelines(*dark, *this)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      dark_float(PlaneBuffer(*dark, PlaneOf(*dark, p)), PlaneBuffer(*this, p, false));
    }
    return;
  }
  ForPlaneLines(*this, whole, Team::All, [&](int p, int y) {
    const float* k = dark->GetLine(0, y, PlaneOf(*dark, p));
    float* pixel = GetWritableLine(0, y, p);
    for (int x = 0; x < GetWidth(); ++x) {
      pixel[x] = NotNegative(pixel[x] - k[x]);
    }
  });
}

void CVelImage::FlatClbrtn(CVelImage* flat, float fOffset, double gamma, int show) {
  if (!flat || !(gamma > 0) || !Serves(*flat, *this)) return;
  flat->CalcMinMax();
  if (MayRunPipelines(*this, *flat)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      const int q = PlaneOf(*flat, p);
      const float maximum = flat->GetMaxPixel(q), minimum = flat->GetMinPixel(q);
      if (minimum == maximum) return;
      const float origin = FlatOrigin(minimum, maximum);
      flat_with_gamma_float(PlaneBuffer(*flat, q), maximum, origin, static_cast<float>(gamma), fOffset,
                            FlatGamma(flat->GetAvrPixel(q), maximum, origin, gamma),
                            PlaneBuffer(*this, p, false));
    }
    return;
  }
  const ProgressScope progress(*this, show, 6105, GetHeight() * GetPlanes());
  bool useFlat = true;
  for (int p = 0; p < GetPlanes(); ++p) {
    const int q = PlaneOf(*flat, p);
    const float maximum = flat->GetMaxPixel(q), minimum = flat->GetMinPixel(q);
    // A constant plane ends the use of the flat, for the planes after it too.
    useFlat = useFlat && minimum != maximum;
    const float origin = FlatOrigin(minimum, maximum);
    const float average = useFlat ? FlatGamma(flat->GetAvrGrayRaw(q), maximum, origin, gamma) : 0.0f;
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      if (useFlat) {
        const float* f = flat->GetLine(0, y, q);
        float* pixel = GetWritableLine(0, y, p);
        for (int x = 0; x < GetWidth(); ++x) {
          pixel[x] = Divide(pixel[x], average, FlatGamma(f[x], maximum, origin, gamma) + average * fOffset);
        }
      }
      ShowProgress(1);
    });
  }
}

void CVelImage::FlatClbrtn(CVelImage* flat, CRect* rect, int show) {
  if (!Serves(*flat, *this)) return;
  const Window window(*this, rect);
  const float average = flat->GetAvrGrayRaw(0);
  if (MayRunPipelines(*this, *flat)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      // A partial window divides the zeros of its temporary: it ends up as 0.
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return flat_float(PlaneBuffer(*flat, PlaneOf(*flat, p)), average, out);
      });
    }
    return;
  }
  const ProgressScope progress(*this, show, 6105, GetHeight() * GetPlanes());
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const float* f = flat->GetLine(0, y, PlaneOf(*flat, p));
    float* pixel = GetWritableLine(0, y, p);
    // The window's left edge sets the length of the run alone; the run starts at column 0.
    for (int x = 0; x < window.Width(); ++x) {
      pixel[x] = Divide(pixel[x], average, f[x]);
    }
  });
}

int CVelImage::DarkFlat(CVelImage* source, CVelImage* dark, CVelImage* flat, float* minima, float* maxima,
                        float* averages, float fOffset, double gamma, CRect* rect, int show) {
  if (!source || (!dark && !flat)) return 0;
  if (flat && (!minima || !maxima || !averages)) return 0;
  const bool fits =
      Fits(*source, *this) && (!dark || Serves(*dark, *this)) && (!flat || Serves(*flat, *this));
  if (!IsEmpty() && !fits) return 0;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6195, window.Lines(*this));
  bool useFlat = flat != nullptr;
  for (int p = 0; p < GetPlanes(); ++p) {
    const int i = flat ? PlaneOf(*flat, p) : 0;
    float average = 0, maximum = 0, origin = 0;
    useFlat = useFlat && minima[i] != maxima[i];
    if (useFlat) {
      maximum = maxima[i];
      origin = FlatOrigin(minima[i], maximum);
      average = gamma > 0 ? FlatGamma(averages[i], maximum, origin, gamma) : averages[i];
    }
    const float offset = average * fOffset;
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      const float* s = source->GetLine(window.left, y, p);
      const float* k = dark ? dark->GetLine(window.left, y, PlaneOf(*dark, p)) : nullptr;
      const float* f = useFlat ? flat->GetLine(window.left, y, i) : nullptr;
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        out[x] = k ? NotNegative(s[x] - k[x]) : s[x];
      }
      if (f && gamma > 0) {
        for (int x = 0; x < window.Width(); ++x) {
          out[x] = Divide(out[x], average, FlatGamma(f[x], maximum, origin, gamma) + offset);
        }
      } else if (f) {
        for (int x = 0; x < window.Width(); ++x) {
          out[x] = Divide(out[x], average, f[x] + offset);
        }
      }
      ShowProgress(1);
    });
  }
  return flat && !useFlat ? -1 : 1;
}
