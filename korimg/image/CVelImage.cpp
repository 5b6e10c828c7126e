// Lifecycle of the image object, its levels, and the change between mono and colour.
#include "korimg/image/CVelImage.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "korimg/colour/CColor.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/platform/CException.h"
#include "korimg/platform/StringTable.h"

namespace {

CVelImage::ProgressPtr WindowProgress(HWND window, const wchar_t* text) {
  return window ? velora::ProgressWin::Create(window, text, false) : nullptr;
}

}  // namespace

CVelImage::CVelImage() {
  Init();
}

CVelImage::CVelImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height,
                     int planes, double bscale, double bzero, int isSigned, const ProgressPtr& progress)
    : CImage(manager, bits, width, height, planes, bscale, bzero, isSigned != 0, progress) {
  Init();
}

CVelImage::CVelImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height,
                     int planes, double bscale, double bzero, int isSigned, HWND window, const wchar_t* text)
    : CVelImage(manager, bits, width, height, planes, bscale, bzero, isSigned,
                velora::ProgressWin::Create(window, text, false)) {}

CVelImage::CVelImage(const CVelImage& other, const ProgressPtr& progress) : CImage(other, progress) {
  CopyInternal(other);
}

CVelImage::CVelImage(const CVelImage& other, HWND window, const wchar_t* text)
    : CVelImage(other, WindowProgress(window, text)) {}

CVelImage::~CVelImage() {
  GetPixelGrayRawBufInit();
}

CVelImage& CVelImage::operator=(const CVelImage& other) {
  if (this != &other) CopyImageInternal(other, nullptr, nullptr);
  return *this;
}

void CVelImage::Init() {
  std::fill_n(minPixel_, 3, 0.0f);
  std::fill_n(maxPixel_, 3, 0.0f);
  std::fill_n(avrPixel_, 3, 0.0f);
  InitStdPtCtr();
  showCrossGauge_ = 0;
  showCrossGaugeCircle_ = 0;
  showColorScrollGauge_ = 0;
  crossGaugeCircleR_ = 100.0;
  crossGaugePt_.Set(-100, -100);
  colorScrollGaugePa_ = 0;
  for (CfPoint& point : colorScrollGaugePt_) {
    point.Set(0, 0);
  }
  skySize_ = 0;
  starPt_ = skyPt_ = pickupPt_ = centerPt_ = CPoint(-100, -100);
  DeleteDirectImage();
}

/// What copies take along beside pixels and record.
void CVelImage::CopyInternal(const CVelImage& other) {
  progressWindow_ = other.progressWindow_;
  std::copy(std::begin(other.stdPt_), std::end(other.stdPt_), stdPt_);
  stdCtr_ = other.stdCtr_;
  std::copy_n(other.minPixel_, 3, minPixel_);
  std::copy_n(other.maxPixel_, 3, maxPixel_);
  std::copy_n(other.avrPixel_, 3, avrPixel_);
}

std::unique_ptr<CVelImage> CVelImage::Clone(const ProgressPtr& progress) const {
  return std::make_unique<CVelImage>(*this, progress);
}

std::unique_ptr<CVelImage> CVelImage::CloneWithoutImage(const ProgressPtr& progress) const {
  auto clone = std::make_unique<CVelImage>();
  if (!clone->Create(*this, progress)) clone.reset();
  return clone;
}

bool CVelImage::Create(const CVelImage& other, const ProgressPtr& progress) {
  if (this == &other) return true;
  GetPixelGrayRawBufInit();
  if (!CImage::Create(other, progress)) return false;
  CopyInternal(other);
  DeleteDirectImage();
  for (int p = 0; p < GetPlanes() && !IsEmpty(); ++p) {
    GetVmImage()->Clear(p);
  }
  return true;
}

int CVelImage::Create(const CVelImage& other, HWND window, const wchar_t* text) {
  return Create(other, WindowProgress(window, text));
}

int CVelImage::CopyImage(const CVelImage& other, HWND window, const wchar_t* text) {
  try {
    CopyImageInternal(other, window, text);
    return 1;
  } catch (CMemoryException* error) {
    error->Delete();
  } catch (const std::bad_alloc&) {
    // As above: the answer says it.
  }
  return 0;
}

void CVelImage::CopyImageInternal(const CVelImage& other, HWND window, const wchar_t* text) {
  if (this == &other) return;
  GetPixelGrayRawBufInit();
  CImage::Empty();
  CopyInternal(other);
  DeleteDirectImage();
  if (!CImage::CopyImage(other, velora::ProgressWin::Create(window, text, false)))
    throw new CMemoryException();
}

void CVelImage::Swap(CVelImage* other) {
  if (this == other) return;
  GetPixelGrayRawBufInit();
  other->GetPixelGrayRawBufInit();
  std::swap(progressWindow_, other->progressWindow_);
  std::swap(stdPt_, other->stdPt_);
  std::swap(stdCtr_, other->stdCtr_);
  std::swap(minPixel_, other->minPixel_);
  std::swap(maxPixel_, other->maxPixel_);
  std::swap(avrPixel_, other->avrPixel_);
  CImage::Swap(*other);
}

void CVelImage::CopyStdPtCtr(CVelImage* other) {
  stdPt_[0] = other->stdPt_[0];
  stdPt_[1] = other->stdPt_[1];
  stdCtr_ = other->stdCtr_;
}

int CVelImage::AttachDIB(const std::shared_ptr<CVmManager>& manager, HDIB dib) {
  try {
    return CImage::AttachDIB(manager, dib, nullptr, nullptr) && ChangeBits(Float, true, ScaleLevel, nullptr);
  } catch (const velora::CVmMemoryAllocationError&) {
    return 0;
  }
}

int CVelImage::ToColor() {
  if (IsColor()) return 1;
  const double min = GetLevelMin(0), max = GetLevelMax(0);
  const auto progress = velora::ProgressWin::Create(progressWindow_, korimg::LoadString(6170).c_str(), false);
  if (!ChangePlanes(3, progress)) return 0;
  for (int p = 0; p < 3; ++p) {
    SetLevel(p, min, max);
  }
  return 1;
}

int CVelImage::ToColor(CVelImage* src, int message) {
  if (IsColor()) return 1;
  if (src->IsEmpty() || !korimg::SameSize(*this, *src) || !ToColor()) return 0;
  const korimg::ProgressScope progress(*this, message, 6130, GetHeight());
  korimg::ForLines(korimg::Team::All, 0, GetHeight(), [&](int y) {
    for (int p = 0; p < 3; ++p) {
      const float* in = src->GetLine(0, y, src->IsColor() && src != this ? p : 0);
      float* out = GetWritableLine(0, y, p);
      if (in != out) std::memcpy(out, in, sizeof(float) * GetWidth());
    }
    ShowProgress(1);
  });
  return 1;
}

int CVelImage::ToGray() {
  if (!IsColor()) return 1;
  const double min = GetLevelMin(0), max = GetLevelMax(0);
  const auto progress = velora::ProgressWin::Create(progressWindow_, korimg::LoadString(6170).c_str(), false);
  if (!ChangePlanes(1, progress)) return 0;
  SetLevel(0, min, max);
  return 1;
}

int CVelImage::ToGray(CVelImage* src, int message) {
  if (!IsColor()) return 1;
  if (src == this || src->GetPlanes() < 3 || !korimg::SameSize(*this, *src)) return 0;
  if (!ToGray()) return 0;
  // The source alone decides on the pipeline; a paged target gets its plane from a temporary.
  if (src->GetAllocationPolicy() != CVmManager::Paged) {
    const auto run = [&](halide_buffer_t* out) {
      korimg::PlaneBuffer r(*src, 0), g(*src, 1), b(*src, 2);
      return tograyraw_float(r, g, b, src->GetLevelMin(0), src->GetLevelRange(0), src->GetLevelMin(1),
                             src->GetLevelRange(1), src->GetLevelMin(2), src->GetLevelRange(2),
                             GetLevelMin(0), GetLevelRange(0), out);
    };
    return korimg::WriteThroughPlane(*this, 0, korimg::Window(*this, nullptr), *src->VmManager(), run) == 0;
  }
  const korimg::ProgressScope progress(*this, message, 6129, GetHeight());
  korimg::ForLines(korimg::Team::All, 0, GetHeight(), [&](int y) {
    float const *r = src->GetLine(0, y, 0), *g = src->GetLine(0, y, 1), *b = src->GetLine(0, y, 2);
    float* out = GetWritableLine(0, y, 0);
    for (int x = 0; x < GetWidth(); ++x) {
      out[x] = ToRaw(src->GetPixelBright256f(r + x, g + x, b + x), 0);
    }
    ShowProgress(1);
  });
  return 1;
}

int CVelImage::MakeDirectImage() {
  const size_t width = GetWidth(), size = width * GetHeight();
  for (int p = 0; p < std::min(GetPlanes(), 3); ++p) {
    try {
      // One line and one pixel more, of zeros: positions at the far edges read there.
      directImage_[p].assign(size + width + 1, 0.0f);
    } catch (const std::bad_alloc&) {
      throw new CMemoryException();
    }
    for (int y = 0; y < GetHeight(); ++y) {
      std::memcpy(directImage_[p].data() + y * width, GetLine(0, y, p), width * sizeof(float));
    }
  }
  return 1;
}

void CVelImage::DeleteDirectImage() {
  for (std::vector<float>& plane : directImage_) {
    std::vector<float>().swap(plane);
  }
}

double CVelImage::CalcBrightL(double r, double g, double b) {
  static constexpr double kLimit = 5000.0;
  const auto scaled = [](double v) { return std::min(std::max(v, -kLimit), kLimit) / 255.0; };
  CColor color;
  color.RgbToLab(scaled(r), scaled(g), scaled(b));
  color.LabToRgb(color.GetL(), 0, 0);
  return color.GetR() * 255.0;
}

bool CVelImage::SetLevel(int plane, double min, double max) {
  if (plane != -1) return CImage::SetLevel(plane, min, max);
  if (!IsColor()) return CImage::SetLevel(0, min, max);
  const double range = GetLevelRange(0);
  const double low = (min - GetLevelMin(0)) / range, high = (max - GetLevelMax(0)) / range;
  for (int p = 0; p < GetPlanes(); ++p) {
    if (p == 0 || range == 0) {
      CImage::SetLevel(p, min, max);  // no proportion to a range of 0: all planes get the pair
      continue;
    }
    const double own = GetLevelRange(p);
    CImage::SetLevel(p, GetLevelMin(p) + own * low, GetLevelMax(p) + own * high);
  }
  return true;
}
