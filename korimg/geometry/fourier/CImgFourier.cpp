#include "korimg/geometry/fourier/CImgFourier.h"

#include <algorithm>

#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/geometry/fourier/CFft.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

enum Message : int { Shift = 6150, Rotation = 6151, Transform = 6190 };

/// The top left window of a rectangle whose sides are the largest powers of two.
Window PowerOfTwoWindow(const Window& w) {
  return {w.left, w.top, w.left + CFft::GetFloorPowerOf2(w.Width()),
          w.top + CFft::GetFloorPowerOf2(w.Height())};
}

/// The first columns and rows of an array, as the pipelines see them.
Halide::Runtime::Buffer<float, 3> Elements(CFftd& fft, int array, int width, int height) {
  Halide::Runtime::Buffer<float, 3> elements(&fft.GetArray(array)->re, 2, fft.GetWidth(), fft.GetHeight());
  elements.crop(1, 0, width);
  elements.crop(2, 0, height);
  return elements;
}

}  // namespace

void CImgFourier::PutImage(CVelImage& real, CVelImage* imaginary, int plane, CFftd& fft, int array,
                           const Window& window, bool steps) {
  const auto room = [&](const CVelImage& image, const Window& w) {
    return Window(w.left, w.top, std::min({w.right, image.GetWidth(), w.left + fft.GetWidth()}),
                  std::min({w.bottom, image.GetHeight(), w.top + fft.GetHeight()}));
  };
  Window w = room(real, window);
  if (imaginary) w = room(*imaginary, w);
  if (w.IsEmpty()) return;
  if (!imaginary && MayRunPipelines(real)) {
    PlaneBuffer pixels(real, plane);
    pixels.SetMin(-w.left, -w.top);
    auto elements = Elements(fft, array, w.Width(), w.Height());
    put_fft_real_float(pixels, elements);
    return;
  }
  const int imaginaryPlane = imaginary ? std::min(plane, imaginary->GetPlanes() - 1) : 0;
  ForLines(Team::All, w.top, w.bottom, [&](int y) {
    dcomplex* row = fft.GetArray(array) + static_cast<size_t>(y - w.top) * fft.GetWidth();
    const float* re = real.GetLine(w.left, y, plane);
    const float* im = imaginary ? imaginary->GetLine(w.left, y, imaginaryPlane) : nullptr;
    for (int x = 0; x < w.Width(); ++x) {
      row[x] = {re[x], im ? im[x] : 0.0f};
    }
    if (steps) ShowProgress(1);
  });
}

void CImgFourier::PutPair(CVelImage& other, CFftd& fft, const Window& window) {
  ForLines(Team::All, 0, fft.GetHeight(), [&](int y) {
    dcomplex* row = fft.GetArray(0) + static_cast<size_t>(y) * fft.GetWidth();
    const auto count = [&](const CVelImage& image) {
      const Window w(window.left, window.top + y, std::min(window.right, image.GetWidth()),
                     std::min(window.bottom, image.GetHeight()));
      return w.IsEmpty() ? 0 : w.Width();
    };
    const auto line = [&](CVelImage& image) { return image.GetLine(window.left, window.top + y, 0); };
    const int re = count(*this), im = count(other), both = std::min(re, im);
    float const *a = re > 0 ? line(*this) : nullptr, *b = im > 0 ? line(other) : nullptr;
    for (int x = 0; x < both; ++x) {
      row[x] = {a[x], b[x]};
    }
    for (int x = both; x < re; ++x) {
      row[x].re = a[x];
    }
    for (int x = both; x < im; ++x) {
      row[x].im = b[x];
    }
  });
}

void CImgFourier::GetImage(CVelImage* real, CVelImage* imaginary, int plane, CFftd& fft, int array) {
  for (CVelImage* image : {real, imaginary}) {
    if (!image || plane >= image->GetPlanes()) continue;
    const int width = std::min(image->GetWidth(), fft.GetWidth()),
              height = std::min(image->GetHeight(), fft.GetHeight());
    const bool imaginaryPart = image == imaginary;
    if (MayRunPipelines(*image)) {
      PlaneBuffer pixels(*image, plane, false);
      pixels.Crop(width, height);
      auto elements = Elements(fft, array, width, height);
      (imaginaryPart ? get_fft_imaginary_float : get_fft_real_float)(elements, pixels);
      continue;
    }
    ForLines(Team::All, 0, height, [&](int y) {
      const dcomplex* row = fft.GetArray(array) + static_cast<size_t>(y) * fft.GetWidth();
      float* line = image->GetWritableLine(0, y, plane);
      for (int x = 0; x < width; ++x) {
        line[x] = imaginaryPart ? row[x].im : row[x].re;
      }
    });
  }
}

int CImgFourier::Begin(CFftd& fft, CVelImage& other, CRect* rect, int& outWidth, int& outHeight,
                       Window& window) {
  window = Window(*this, rect);
  if (rect) window = PowerOfTwoWindow(window);
  outWidth = window.Width();
  outHeight = window.Height();
  if (window.IsEmpty() || other.IsEmpty() || !fft.Create(outWidth, outHeight)) return 0;
  outWidth = fft.GetWidth();
  outHeight = fft.GetHeight();
  fft.SetProgressImg(this);
  return 1;
}

int CImgFourier::CalcShiftByPOC(CVelImage* other, CVelImage* surface, double blur, CRect* rect, double& dx,
                                double& dy, double& peak, int& outWidth, int& outHeight, int progress) {
  dx = dy = peak = 0;
  CFftd fft;
  Window window(0, 0, 0, 0);
  if (!Begin(fft, *other, rect, outWidth, outHeight, window)) return 0;
  const ProgressScope display(*this, progress, Shift, static_cast<int>(outHeight * (blur > 0 ? 19.5 : 18.5)));
  PutPair(*other, fft, window);
  fft.CorrelateParts();

  CVelImage sharp(VmManager(), Float, outWidth, outHeight, 1, 1.0, 0.0, 1, nullptr);
  CImgFilterBlur blurred;
  MakeWorkImage(blurred, sharp);
  GetImage(&sharp, nullptr, 0, fft, 0);
  blurred.GaussianFilter(blur > 0 ? blur : 1.0, &sharp, nullptr, 0);
  if (blur > 0) {
    PutImage(blurred, nullptr, 0, fft, 0, Window(blurred, nullptr));
    fft.PeakOfPOC(nullptr, nullptr, dx, dy, peak);
  } else {
    int x = 0, y = 0;
    blurred.GetMaxPixel(0, nullptr, x, y);
    x = std::max(x, 0);  // -1 stands for the first pixel
    y = std::max(y, 0);
    fft.PeakOfPOC(&x, &y, dx, dy, peak);
  }
  GetImage(surface, nullptr, 0, fft, 0);
  ShowProgressRest();
  return 1;
}

void CImgFourier::PolarSpectra(CFftd& fft, CVelImage& other, const Window& window, int r0) {
  PutImage(*this, nullptr, 0, fft, 0, window);
  PutImage(other, nullptr, 0, fft, 1, window);
  for (const int p : {0, 1}) {
    fft.Windowing(p);
    fft.Do(0, p);
    fft.ToAmpPhase(p);
    fft.ToLogPolar(r0, 1, 0, 180, 1, p);
  }
}

int CImgFourier::CalcRotByRIPOC(CVelImage* other, CVelImage* polarA, CVelImage* polarB, CRect* rect,
                                double& degrees, int& outWidth, int& outHeight, int progress) {
  degrees = 0;
  CFftd fft;
  Window window(0, 0, 0, 0);
  if (!Begin(fft, *other, rect, outWidth, outHeight, window)) return 0;
  const ProgressScope display(*this, progress, Rotation, static_cast<int>(outHeight * 28.5));
  PolarSpectra(fft, *other, window, 0);
  if (polarA && polarB) {
    GetImage(polarA, nullptr, 0, fft, 0);
    GetImage(polarB, nullptr, 0, fft, 1);
  }
  ForLines(Team::All, 0, outHeight, [&](int y) {
    dcomplex* a = fft.GetArray(0) + static_cast<size_t>(y) * outWidth;
    const dcomplex* b = fft.GetArray(1) + static_cast<size_t>(y) * outWidth;
    for (int x = 0; x < outWidth; ++x) {
      a[x].im = b[x].re;
    }
  });
  fft.CorrelateParts();

  // Images of the same scale meet near the middle row.
  constexpr int kBand = 20;
  CVelImage sharp(VmManager(), Float, outWidth, outHeight, 1, 1.0, 0.0, 1, nullptr);
  CImgFilterBlur blurred;
  MakeWorkImage(blurred, sharp);
  GetImage(&sharp, nullptr, 0, fft, 0);
  CRect band(0, outHeight / 2 - kBand, outWidth, outHeight / 2 + kBand);
  blurred.GaussianFilter(1.0, &sharp, &band, 0);
  int x = 0, y = 0;
  blurred.GetMaxPixel(0, &band, x, y);
  if (x < 0) {
    x = 0;
    y = std::max(outHeight / 2 - kBand, 0);
  }
  double dx = 0, dy = 0, peak = 0;
  fft.PeakOfPOC(&x, &y, dx, dy, peak);
  degrees = dx * 180.0 / outWidth;
  ShowProgressRest();
  return 1;
}

int CImgFourier::CalcRotByRIPOC_1D(CVelImage* other, CVelImage* polarA, CVelImage* polarB, CRect* rect,
                                   double& degrees, int& outWidth, int& outHeight, int progress) {
  degrees = 0;
  CFftd fft;
  Window window(0, 0, 0, 0);
  if (!Begin(fft, *other, rect, outWidth, outHeight, window)) return 0;
  const ProgressScope display(*this, progress, Rotation, outHeight * 23);
  PolarSpectra(fft, *other, window, outHeight / 16);
  for (const int p : {0, 1}) {
    fft.Windowing(p);
    fft.Do1D(0, p);
  }
  GetImage(polarA, nullptr, 0, fft, 0);
  fft.CalcPOC1D();
  fft.Do1D(1, 0);
  fft.SwapX(0);
  double dx = 0;
  fft.PeakOfPOC1D(dx);
  GetImage(polarB, nullptr, 0, fft, 0);
  degrees = dx * 180.0 / outWidth;
  ShowProgressRest();
  return 1;
}

int CImgFourier::Do(int inverse, int reIm, int window, CVelImage* secondInput, CVelImage* output1,
                    CVelImage* output2, CRect* rect, int progress) {
  CFftd fft;
  const Window w = PowerOfTwoWindow(Window(*this, rect));
  if (w.IsEmpty() || !fft.Create(w.Width(), w.Height())) return 0;
  constexpr int kSteps = 100;
  const ProgressScope display(*this, progress, Transform, GetPlanes() * kSteps);
  for (int p = 0; p < GetPlanes(); ++p) {
    fft.Init();
    PutImage(*this, secondInput, p, fft, 0, w, false);
    if (inverse && !reIm) fft.ToReIm(0);
    if (window) fft.Windowing(0);
    fft.Do(inverse != 0, 0);
    if (!inverse && !reIm) fft.ToAmpPhase(0);
    GetImage(output1, output2, p, fft, 0);
    ShowProgress(kSteps);
  }
  return 1;
}

int CImgFourier::DoLogPolar(CVelImage* output, CRect* rect, int logTone, int progress) {
  CFftd fft;
  const Window w = PowerOfTwoWindow(Window(*this, rect));
  if (w.IsEmpty() || !fft.Create(w.Width(), w.Height())) return 0;
  constexpr int kSteps = 100;
  const ProgressScope display(*this, progress, Transform, GetPlanes() * kSteps);
  for (int p = 0; p < GetPlanes(); ++p) {
    fft.Init();
    PutImage(*this, nullptr, p, fft, 0, w, false);
    fft.ToLogPolar(w.Height() / 16, 1, 0, 180, logTone, 0);
    GetImage(output, nullptr, p, fft, 0);
    ShowProgress(kSteps);
  }
  return 1;
}
