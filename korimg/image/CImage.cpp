#include "korimg/image/CImage.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/Debug.h"

namespace {

template <class T>
T Load(const unsigned char* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <class T>
void Store(unsigned char* at, T value) {
  std::memcpy(at, &value, sizeof value);
}

/// Rounds and limits in double, so that no number that does not fit ever meets a cast.
template <class T>
T ToInteger(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kLow = std::numeric_limits<T>::min(), kHigh = std::numeric_limits<T>::max();
  return static_cast<T>(std::min(std::max(std::round(value), kLow), kHigh));
}

void Encode(unsigned char* at, CImage::DataType bits, bool isSigned, double value) {
  switch (bits) {
    case CImage::UInt8:
      return Store(at, ToInteger<unsigned char>(value));
    case CImage::Int16:
      return Store(at, ToInteger<unsigned short>(value));
    case CImage::Int32:
      return isSigned ? Store(at, ToInteger<int>(value))
                      : Store(at, static_cast<int>(ToInteger<unsigned>(value)));
    case CImage::Float:
      return Store(at, static_cast<float>(value));
    case CImage::Double:
      return Store(at, value);
  }
}

/// Extremes and sum of numbers, NaN passed over.
struct Extremes {
  double min = std::numeric_limits<double>::infinity();
  double max = -std::numeric_limits<double>::infinity();
  double sum = 0;
  long long count = 0;

  void Add(double value) {
    if (std::isnan(value)) return;
    min = std::min(min, value);
    max = std::max(max, value);
    sum += value;
    ++count;
  }
  void Add(const Extremes& other) {
    min = std::min(min, other.min);
    max = std::max(max, other.max);
    sum += other.sum;
    count += other.count;
  }
};

/// The same for a line of floats, by vectors. The compiler's own ones for plain loops take twice the time.
Extremes ExtremesOf(const float* line, int width) {
  using Floats = float __attribute__((vector_size(16)));
  using Doubles = double __attribute__((vector_size(32)));
  constexpr int kFloats = 4, kVectors = 4, kStep = kVectors * kFloats;
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  struct {
    Floats low[kVectors], high[kVectors];
    Doubles sum[kVectors] = {};
  } lanes;
  const int whole = width - width % kStep;
  korimg::RunInLongVectors([&]() KORIMG_IN_LOOP {
    auto found = lanes;  // in registers
    std::fill_n(found.low, kVectors, Floats{} + kInfinity);
    std::fill_n(found.high, kVectors, Floats{} - kInfinity);
    for (int x = 0; x < whole; x += kStep) {
      for (int k = 0; k < kVectors; ++k) {
        Floats v;
        std::memcpy(&v, line + x + k * kFloats, sizeof v);
        found.low[k] = v < found.low[k] ? v : found.low[k];
        found.high[k] = v > found.high[k] ? v : found.high[k];
        found.sum[k] += __builtin_convertvector(v, Doubles);
      }
    }
    lanes = found;
  });
  Extremes all;
  for (int lane = 0; lane < kStep; ++lane) {
    const int k = lane / kFloats, j = lane % kFloats;
    all.Add({lanes.low[k][j], lanes.high[k][j], lanes.sum[k][j], whole / kStep});
  }
  int x = whole;
  if (std::isnan(all.sum)) {  // a NaN, or infinities of both signs: the line again, one by one
    all = {};
    x = 0;
  }
  for (; x < width; ++x) {
    all.Add(line[x]);
  }
  return all;
}

/// Runs what may find no room in the store; the reason goes to the debug lines.
template <class F>
bool Try(F&& allocate) {
  try {
    allocate();
    return true;
  } catch (const velora::CVmMemoryAllocationError& error) {
    korimg::DebugLine(error.what());
    return false;
  }
}

}  // namespace

CImage::CImage() = default;

CImage::CImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height, int planes,
               double bscale, double bzero, bool isSigned, const ProgressPtr& progress)
    : bits_(bits), signed_(isSigned), bscale_(bscale), bzero_(bzero) {
  vmImage_ = NewStore(manager, width, height, planes, bits, progress);
  axes_ = {width, height, planes};
  SetPlanes(planes);
}

CImage::CImage(const CImage& other, const ProgressPtr& progress) {
  if (!other.IsEmpty()) vmImage_ = std::make_unique<CVmImage>(*other.vmImage_, progress);
  CopyRecord(other);
}

CImage::~CImage() = default;

void CImage::Empty() {
  vmImage_.reset();
}

std::unique_ptr<CVmImage> CImage::NewStore(const std::shared_ptr<CVmManager>& manager, int width, int height,
                                           int planes, DataType bits, const ProgressPtr& progress,
                                           Contents contents) const {
  auto store = std::make_unique<CVmImage>(manager, width, height, planes, GetBytesPixel(bits), progress);
  for (int p = 0; p < planes && contents == Contents::Zero; ++p) {
    store->Clear(p);
  }
  return store;
}

bool CImage::AllocImage(const std::shared_ptr<CVmManager>& manager, const ProgressPtr& progress) {
  return Try([&] {
    vmImage_ = NewStore(manager, GetWidth(), GetHeight(), GetPlanes(), bits_, progress);
    SetPlanes(GetPlanes());
  });
}

bool CImage::ChangeSize(int width, int height, const ProgressPtr& progress, Contents contents) {
  if (!IsEmpty() && width == GetWidth() && height == GetHeight()) return true;
  return Try([&] {
    velora::ScopedProgress steps(progress, 1);
    vmImage_ = NewStore(VmManager(), width, height, GetPlanes(), bits_, progress, contents);
    axes_[0] = width;
    axes_[1] = height;
    steps.Step(0);
  });
}

bool CImage::ChangePlanes(int planes, const ProgressPtr& progress) {
  if (planes == GetPlanes()) return true;
  return Try([&] {
    auto store = NewStore(VmManager(), GetWidth(), GetHeight(), planes, bits_, progress);
    const int kept = std::min(planes, GetPlanes());
    velora::ScopedProgress steps(progress, kept * GetHeight());
    for (int p = 0; p < kept; ++p) {
      for (int y = 0; y < GetHeight(); ++y) {
        std::memcpy(store->GetImageAdr(0, y, p, false, false, nullptr),
                    vmImage_->GetImageAdr(0, y, p, true, false, nullptr), store->GetBytesPerLine());
        steps.Step(p * GetHeight() + y);
      }
    }
    vmImage_ = std::move(store);
    SetPlanes(planes);
  });
}

bool CImage::ChangeBits(DataType bits, bool isSigned, ChangeBitsLevel level, const ProgressPtr& progress) {
  return Try([&] {
    auto store =
        NewStore(VmManager(), GetWidth(), GetHeight(), GetPlanes(), bits, progress, Contents::Undefined);
    const int from = GetBytesPixel(), to = GetBytesPixel(bits);
    velora::ScopedProgress steps(progress, GetPlanes() * GetHeight());
    for (int p = 0; p < GetPlanes(); ++p) {
      for (int y = 0; y < GetHeight(); ++y) {
        const unsigned char* in = vmImage_->GetImageAdr(0, y, p, true, false, nullptr);
        unsigned char* out = store->GetImageAdr(0, y, p, false, false, nullptr);
        for (int x = 0; x < GetWidth(); ++x) {
          Encode(out + x * to, bits, isSigned, GetPixel(in + x * from));
        }
        steps.Step(p * GetHeight() + y);
      }
      if (level == ScaleLevel) {
        SetLevel(p, ApplyBaseScaleOffset(GetLevelMin(p)), ApplyBaseScaleOffset(GetLevelMax(p)));
      }
    }
    vmImage_ = std::move(store);
    bits_ = bits;
    signed_ = isSigned;
    bscale_ = 1;
    bzero_ = 0;
  });
}

std::unique_ptr<CImage> CImage::Clone(const ProgressPtr& progress) const {
  return std::make_unique<CImage>(*this, progress);
}

std::unique_ptr<CImage> CImage::CloneWithoutImage(const ProgressPtr& progress) const {
  auto clone = std::make_unique<CImage>();
  if (!IsEmpty())
    clone->vmImage_ = NewStore(VmManager(), GetWidth(), GetHeight(), GetPlanes(), bits_, progress);
  clone->CopyRecord(*this);
  return clone;
}

bool CImage::Create(const CImage& other, const ProgressPtr& progress) {
  if (this == &other) return true;
  const bool fits = !IsEmpty() && !other.IsEmpty() && axes_ == other.axes_ &&
                    GetBytesPixel() == other.GetBytesPixel() && VmManager() == other.VmManager();
  return Try([&] {
    if (!fits) {
      vmImage_ = other.IsEmpty() ? nullptr
                                 : NewStore(other.VmManager(), other.GetWidth(), other.GetHeight(),
                                            other.GetPlanes(), other.bits_, progress, Contents::Undefined);
    }
    CopyRecord(other);
  });
}

bool CImage::CopyImage(const CImage& other, const ProgressPtr& progress) {
  if (this == &other) return true;
  return Try([&] {
    vmImage_ = other.IsEmpty() ? nullptr : std::make_unique<CVmImage>(*other.vmImage_, progress);
    CopyRecord(other);
  });
}

void CImage::CopyRecord(const CImage& other) {
  bits_ = other.bits_;
  signed_ = other.signed_;
  dimension_ = other.dimension_;
  axes_ = other.axes_;
  bscale_ = other.bscale_;
  bzero_ = other.bzero_;
  levelMin_ = other.levelMin_;
  levelMax_ = other.levelMax_;
  levelRange_ = other.levelRange_;
  ownLevel_ = other.ownLevel_;
  saveableFormat_ = other.saveableFormat_;
  saveableFile_ = other.saveableFile_;
  orgFileName_ = other.orgFileName_;
  orgFileFormat_ = other.orgFileFormat_;
  orgBitsPixel_ = other.orgBitsPixel_;
  orgPlanes_ = other.orgPlanes_;
  orgBayer_ = other.orgBayer_;
  orgHoneyComb_ = other.orgHoneyComb_;
  orgDevelopment_ = other.orgDevelopment_;
  orgWidth_ = other.orgWidth_;
  orgHeight_ = other.orgHeight_;
  bayer_ = other.bayer_;
  honeyComb_ = other.honeyComb_;
  rawImageBits_ = other.rawImageBits_;
  development_ = other.development_;
  header_ = other.header_;
  cullX_ = other.cullX_;
  cullY_ = other.cullY_;
}

void CImage::Swap(CImage& other) {
  if (this == &other) return;
  CImage keep;
  keep.CopyRecord(*this);
  CopyRecord(other);
  other.CopyRecord(keep);
  std::swap(vmImage_, other.vmImage_);
}

bool CImage::Fill(int plane, double value) {
  if (IsEmpty() || plane < 0 || plane >= GetPlanes()) return false;
  const double stored = (value - bzero_) / bscale_;
  if (stored == 0 && !std::signbit(stored)) {
    vmImage_->Clear(plane);
    return true;
  }
  const int bytes = GetBytesPixel();
  korimg::ForLines(korimg::Team::All, 0, GetHeight(), [&](int y) {
    unsigned char* line = vmImage_->GetImageAdr(0, y, plane, false, false, nullptr);
    if (bits_ == Float) {
      std::fill_n(reinterpret_cast<float*>(line), GetWidth(), static_cast<float>(stored));
      return;
    }
    for (int x = 0; x < GetWidth(); ++x) {
      Encode(line + x * bytes, bits_, signed_, stored);
    }
  });
  return true;
}

bool CImage::SetLevel(int plane, double min, double max) {
  if (plane < 0 || plane >= static_cast<int>(levelMin_.size())) return false;
  levelMin_[plane] = min;
  levelMax_[plane] = max;
  levelRange_[plane] = max - min;
  return true;
}

bool CImage::SetLevelMin(int plane, double min) {
  return plane >= 0 && plane < static_cast<int>(levelMin_.size()) && SetLevel(plane, min, levelMax_[plane]);
}

bool CImage::SetLevelMax(int plane, double max) {
  return plane >= 0 && plane < static_cast<int>(levelMin_.size()) && SetLevel(plane, levelMin_[plane], max);
}

void CImage::SetPlanes(int planes) {
  axes_[2] = planes;
  dimension_ = planes < 2 ? 2 : 3;
  const auto resize = [planes](std::vector<double>& levels, double first) {
    levels.resize(planes, levels.empty() ? first : levels[0]);
  };
  resize(levelMin_, 0);
  resize(levelMax_, 1);
  resize(levelRange_, 1);
}

bool CImage::AttachDIB(const std::shared_ptr<CVmManager>& manager, HDIB dib, HWND window,
                       const wchar_t* text) {
  const auto* bytes = static_cast<const unsigned char*>(GlobalLock(dib));
  const long long size = static_cast<long long>(GlobalSize(dib));
  if (!bytes || size < static_cast<long long>(sizeof(BITMAPINFOHEADER))) return false;
  const auto header = Load<BITMAPINFOHEADER>(bytes);
  const int bits = header.biBitCount;
  const bool hasPalette = bits == 1 || bits == 4 || bits == 8;
  if ((!hasPalette && bits != 24 && bits != 32) || header.biCompression != 0 || header.biPlanes != 1 ||
      header.biSize < sizeof header || header.biWidth <= 0 || header.biHeight == 0 ||
      header.biHeight == std::numeric_limits<int>::min()) {
    return false;
  }
  const int width = header.biWidth, height = std::abs(header.biHeight);
  const long long entries =
      hasPalette ? (header.biClrUsed ? header.biClrUsed : 1LL << bits) : header.biClrUsed;
  const long long stride = (1LL * width * bits + 31) / 32 * 4;
  const long long pixels = header.biSize + entries * 4;
  if ((hasPalette && entries > (1LL << bits)) || pixels + stride * height > size) return false;

  const unsigned char* palette = bytes + header.biSize;
  bool grey = hasPalette;
  for (long long i = 0; grey && i < entries; ++i) {
    grey = palette[4 * i] == palette[4 * i + 1] && palette[4 * i] == palette[4 * i + 2];
  }
  CImage image(manager, UInt8, width, height, grey ? 1 : 3, 1, 0, false, nullptr);
  velora::ScopedProgress steps(window ? velora::ProgressWin::Create(window, text, false) : nullptr, height);
  for (int y = 0; y < height; ++y) {
    const unsigned char* line = bytes + pixels + stride * (header.biHeight > 0 ? height - 1 - y : y);
    for (int p = 0; p < image.GetPlanes(); ++p) {
      unsigned char* out = image.vmImage_->GetImageAdr(0, y, p, false, false, nullptr);
      for (int x = 0; x < width; ++x) {
        if (!hasPalette) {
          out[x] = line[x * (bits / 8) + 2 - p];
          continue;
        }
        const int bit = x * bits;
        const long long index = (line[bit / 8] >> (8 - bits - bit % 8)) & ((1 << bits) - 1);
        out[x] = index < entries ? palette[4 * index + 2 - p] : 0;
      }
    }
    steps.Step(y);
  }
  for (int p = 0; p < image.GetPlanes(); ++p) {
    image.SetLevel(p, 0, 255);
  }
  image.SetOrgBitsPixel(grey ? Gray8 : Rgb24);
  image.SetOrgPlanes(image.GetPlanes());
  image.SetOrgWidth(width);
  image.SetOrgHeight(height);
  Swap(image);
  return true;
}

std::tuple<double, double> CImage::GetMinMax(int plane) {
  const auto [min, max, average] = GetMinMaxAvr(plane);
  return {min, max};
}

void CImage::GetMinMax(int plane, double* min, double* max) {
  std::tie(*min, *max) = GetMinMax(plane);
}

std::tuple<double, double, double> CImage::GetMinMaxAvr(int plane) {
  const auto lines = korimg::MapLines(0, GetHeight(), [&](int y) {
    const unsigned char* line = vmImage_->GetImageAdr(0, y, plane, true, false, nullptr);
    if (bits_ == Float && bscale_ == 1 && bzero_ == 0) {
      return ExtremesOf(reinterpret_cast<const float*>(line), GetWidth());
    }
    Extremes extremes;
    for (int x = 0; x < GetWidth(); ++x) {
      extremes.Add(GetPixel(line + x * GetBytesPixel()));
    }
    return extremes;
  });
  Extremes all;
  for (const Extremes& line : lines) {
    all.Add(line);
  }
  if (all.count == 0) return {0, 0, 0};
  return {all.min, all.max, all.sum / static_cast<double>(all.count)};
}

void CImage::GetMinMaxAvr(int plane, double* min, double* max, double* average) {
  std::tie(*min, *max, *average) = GetMinMaxAvr(plane);
}

std::tuple<double, double, double> CImage::GetMinMaxMode(int plane, int bins, int useGrid) {
  constexpr int kDefaultBins = 5000;
  if (bins <= 0) bins = kDefaultBins;
  const auto [min, max] = GetMinMax(plane);
  if (!(max > min) || std::isinf(max - min)) return {min, max, min};
  const double scale = bins / (max - min);
  std::vector<long long> histogram(bins);
  const auto count = [&, min = min](double value) {
    if (!std::isnan(value)) ++histogram[static_cast<int>(std::min((value - min) * scale, bins - 1.0))];
  };
  const bool grid = useGrid != 0 && IsHistogramCullParam();
  const int rows = grid ? static_cast<int>(cullY_.size()) : GetHeight();
  const int columns = grid ? static_cast<int>(cullX_.size()) : GetWidth();
  for (int j = 0; j < rows; ++j) {
    const unsigned char* line = vmImage_->GetImageAdr(0, grid ? cullY_[j] : j, plane, true, false, nullptr);
    for (int i = 0; i < columns; ++i) {
      count(GetPixel(line + (grid ? cullX_[i] : i) * GetBytesPixel()));
    }
  }
  const auto peak = std::max_element(histogram.begin(), histogram.end()) - histogram.begin();
  return {min, max, min + (static_cast<double>(peak) + 0.5) / scale};
}

void CImage::GetMinMaxMode(int plane, double* min, double* max, double* mode, int bins, int useGrid) {
  std::tie(*min, *max, *mode) = GetMinMaxMode(plane, bins, useGrid);
}

double CImage::GetPixel(int x, int y, int plane) {
  return GetPixel(vmImage_->GetImageAdr(x, y, plane, true, false, nullptr));
}

double CImage::GetPixel(const unsigned char* pixel) const {
  double value = 0;
  switch (static_cast<int>(bits_)) {
    case UInt8:
      value = *pixel;
      break;
    case Int16:
      value = Load<unsigned short>(pixel);
      break;
    case Int32:
      value = signed_ ? Load<int>(pixel) : static_cast<double>(Load<unsigned>(pixel));
      break;
    case Float:
      value = Load<float>(pixel);
      break;
    case Double:
      value = Load<double>(pixel);
      break;
    default:
      break;
  }
  return ApplyBaseScaleOffset(value);
}

std::optional<std::tuple<int, int>> CImage::GetHistogramCull() const {
  if (!IsHistogramCullParam()) return std::nullopt;
  return std::tuple(static_cast<int>(cullX_.size()), static_cast<int>(cullY_.size()));
}

bool CImage::GetHistogramCull(int* countX, int* countY) const {
  const auto counts = GetHistogramCull();
  if (!countX || !countY || !counts) return false;
  std::tie(*countX, *countY) = *counts;
  return true;
}

int CImage::GetBytesPixel(int bits) {
  switch (bits) {
    case UInt8:
      return 1;
    case Int16:
      return 2;
    case Int32:
    case Float:
      return 4;
    case Double:
      return 8;
    default:
      return 0;
  }
}
