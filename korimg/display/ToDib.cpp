// Pixels on their way to the screen and into packed bitmaps.
#include <algorithm>
#include <climits>
#include <cstring>
#include <type_traits>
#include <utility>

#include "korimg/display/CVmDIB.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

using Byte = unsigned char;

/// Display values of a plane, in the arithmetic of T.
template <class T>
struct Shown {
  T min, max, range, ratio;

  Shown(const CVelImage& image, int plane)
      : min(static_cast<T>(image.GetLevelMin(plane))),
        max(static_cast<T>(image.GetLevelMax(plane))),
        range(static_cast<T>(image.GetLevelRange(plane))),
        ratio(255 / range) {}

  /// On the screen's path by one multiplication, in packed bitmaps by the division.
  KORIMG_IN_LOOP T Inside(T v) const {
    if constexpr (std::is_same_v<T, float>) return (v - min) * ratio;
    return (v - min) / range * 255;
  }
  void Line(const float* in, Byte* out, int width) const {
    RunInLongVectors([&]() KORIMG_IN_LOOP {
      // Copies, to stay in registers: bytes may alias anything.
      const Shown local = *this;
      const float* const from = in;
      Byte* const to = out;
      for (int x = 0, n = width; x < n; ++x) {
        const T v = from[x];
        to[x] =
            static_cast<Byte>(v > local.min ? v < local.max ? static_cast<int>(local.Inside(v)) : 255 : 0);
      }
    });
  }
};

/// Display values of a line: one plane's of a mono image, else red, green and blue.
template <class T>
class ShownLine {
 public:
  ShownLine(CVelImage& image, int left, int width) : image_(image), left_(left), width_(width) {
    const int planes = image.GetPlanes() < 3 ? 1 : 3;
    for (int p = 0; p < planes; ++p) {
      planes_.emplace_back(image, p);
    }
    values_.resize(1LL * planes * width);
  }
  bool IsColour() const { return planes_.size() == 3; }
  void Read(int y) {
    for (size_t p = 0; p < planes_.size(); ++p) {
      planes_[p].Line(image_.GetLine(left_, y, static_cast<int>(p)), &values_[p * width_], width_);
    }
  }
  const Byte* Plane(int p) const { return &values_[IsColour() ? 1LL * p * width_ : 0]; }

 private:
  CVelImage& image_;
  int left_, width_;
  std::vector<Shown<T>> planes_;
  std::vector<Byte> values_;
};

/// Blue, green and red, `Step` bytes a pixel.
template <int Step, class T>
void WriteBgr(const ShownLine<T>& line, Byte* out, int width) {
  RunInLongVectors([&]() KORIMG_IN_LOOP {
    Byte const *r = line.Plane(0), *g = line.Plane(1), *b = line.Plane(2);
    Byte* __restrict to = out;
    for (int x = 0, n = width; x < n; ++x) {
      to[Step * x] = b[x];
      to[Step * x + 1] = g[x];
      to[Step * x + 2] = r[x];
    }
  });
}

/// Grey, or 2 bits of blue, 3 of green and 3 of red.
void Write8(const ShownLine<float>& line, Byte* out, int width) {
  const Byte *r = line.Plane(0), *g = line.Plane(1), *b = line.Plane(2);
  if (!line.IsColour()) {
    std::memcpy(out, r, width);
    return;
  }
  for (int x = 0; x < width; ++x) {
    out[x] = static_cast<Byte>((b[x] & 0xC0) | (g[x] >> 2 & 0x38) | r[x] >> 5);
  }
}

void Write16(const ShownLine<float>& line, Byte* out, int left, int y, int width) {
  const Byte *r = line.Plane(0), *g = line.Plane(1), *b = line.Plane(2);
  for (int x = 0; x < width; ++x) {
    CBaseDIB::SetPixel16(reinterpret_cast<std::uint16_t*>(out) + x, left + x, y, r[x], g[x], b[x]);
  }
}

/// Left and top stay inside the bitmap, where a rectangle of an image would be cut away.
Window WindowOf(const CBaseDIB& dib, const CRect* rect) {
  const int width = dib.GetWidth(), height = dib.GetHeight();
  if (!rect) return {0, 0, width, height};
  return {std::clamp(rect->left, 0, width - 1), std::clamp(rect->top, 0, height - 1),
          std::clamp(rect->right, 0, width), std::clamp(rect->bottom, 0, height)};
}

/// Interleaved bytes of a window, as a pipeline writes them; `first` is the address of its first pixel.
class BitmapBuffer {
 public:
  BitmapBuffer(Byte* first, const Window& window, int channels, long long lineStep)
      : buffer_(first, 3, Shape(window, channels, lineStep).data()) {}
  operator halide_buffer_t*() { return buffer_.raw_buffer(); }  // NOLINT: an argument of a pipeline

 private:
  static std::array<halide_dimension_t, 3> Shape(const Window& window, int channels, long long lineStep) {
    return {halide_dimension_t{window.left, window.Width(), channels},
            halide_dimension_t{window.top, window.Height(), static_cast<int>(lineStep)},
            halide_dimension_t{0, channels, 1}};
  }
  Halide::Runtime::Buffer<std::uint8_t> buffer_;
};

/// Calls a pipeline of bitmaps with the image's planes, a mono one three times, and levels of its type.
template <class Level, class Pipeline>
void RunBitmap(Pipeline&& pipeline, CVelImage& image, BitmapBuffer out) {
  const int green = image.GetPlanes() < 3 ? 0 : 1, blue = 2 * green;
  const auto min = [&](int p) { return static_cast<Level>(image.GetLevelMin(p)); };
  const auto range = [&](int p) { return static_cast<Level>(image.GetLevelRange(p)); };
  pipeline(PlaneBuffer(image, 0), PlaneBuffer(image, green), PlaneBuffer(image, blue), min(0), range(0),
           min(green), range(green), min(blue), range(blue), out);
}

/// 32 bits by pipeline; false where planes or bitmap do not lie in one piece that pipelines can address.
bool RunPipeline(CVelImage& image, CBaseDIB& dib, const CVmDIB* store, const Window& window) {
  const bool whole = !store || store->GetVmImage()->GetAllocationPolicy() != CVmManager::Paged;
  const long long lineBytes = store ? store->GetVmImage()->GetBytesPerLine() : dib.GetAlign();
  if (!IsContiguous(image) || !whole || lineBytes * window.Height() > INT_MAX) return false;
  Byte* first = dib.GetImageAdr32(window.left, window.top);
  if (store) {
    RunBitmap<float>(image_buffer_32bit_float, image, BitmapBuffer(first, window, 3, lineBytes));
  } else {
    RunBitmap<double>(todib32_float, image, BitmapBuffer(first, window, 4, -lineBytes));
  }
  return true;
}

}  // namespace

void CVelImage::ToDIB(CBaseDIB* dib, CRect* rect) {
  if (!dib || dib->IsEmpty() || IsEmpty() || dib->GetWidth() != GetWidth() ||
      dib->GetHeight() != GetHeight()) {
    return;
  }
  const Window window = WindowOf(*dib, rect);
  if (window.IsEmpty()) return;
  const auto* store = dib->IsKindOf(CVmDIB::GetThisClass()) ? static_cast<const CVmDIB*>(dib) : nullptr;
  const int bits = dib->GetBitCount(), width = window.Width();
  if (bits == 32 && RunPipeline(*this, *dib, store, window)) return;
  ShownLine<float> line(*this, window.left, width);
  for (int y = window.top; y < window.bottom; ++y) {
    line.Read(y);
    switch (bits) {
      case 8:
        Write8(line, dib->GetImageAdr8(window.left, y), width);
        break;
      case 16:
        Write16(line, dib->GetImageAdr16(window.left, y), window.left, y, width);
        break;
      case 24:
        WriteBgr<3>(line, dib->GetImageAdr24(window.left, y), width);
        break;
      case 32:
        (store ? WriteBgr<3, float> : WriteBgr<4, float>)(line, dib->GetImageAdr32(window.left, y), width);
        break;
      default:
        return;
    }
  }
}

namespace {

/// A packed bitmap in the making, in a block of global memory.
class PackedBitmap {
 public:
  PackedBitmap(BITMAPINFOHEADER header, int entries)
      : lineBytes_((1LL * header.biWidth * (header.biBitCount / 8) + 3) & ~3LL), height_(header.biHeight) {
    header.biSizeImage = static_cast<std::uint32_t>(lineBytes_ * height_);
    const size_t first = sizeof header + 4LL * entries;
    block_ = GlobalAlloc(GHND, first + lineBytes_ * height_);
    if (!block_) return;
    auto* bytes = static_cast<Byte*>(GlobalLock(block_));
    std::memcpy(bytes, &header, sizeof header);
    palette_ = bytes + sizeof header;
    lines_ = bytes + first;
  }
  ~PackedBitmap() { GlobalFree(block_); }
  PackedBitmap(const PackedBitmap&) = delete;
  PackedBitmap& operator=(const PackedBitmap&) = delete;

  explicit operator bool() const { return block_ != nullptr; }
  void SetEntry(int i, Byte r, Byte g, Byte b) {
    palette_[4 * i] = b;
    palette_[4 * i + 1] = g;
    palette_[4 * i + 2] = r;
  }
  Byte* Line(int y) { return lines_ + (height_ - 1LL - y) * lineBytes_; }
  long long LineBytes() const { return lineBytes_; }
  /// Null when there was no memory.
  HDIB Release() {
    GlobalUnlock(block_);
    return std::exchange(block_, nullptr);
  }

 private:
  long long lineBytes_;
  int height_;
  HGLOBAL block_ = nullptr;
  Byte* palette_ = nullptr;
  Byte* lines_ = nullptr;
};

void WriteLines24(CVelImage& image, PackedBitmap& dib) {
  ShownLine<double> line(image, 0, image.GetWidth());
  for (int y = 0; y < image.GetHeight(); ++y) {
    line.Read(y);
    WriteBgr<3>(line, dib.Line(y), image.GetWidth());
  }
}

constexpr int kColours = 256;
constexpr int kBins = 1 << 15;

/// 5 bits of each of red, green and blue.
int BinOf(Byte r, Byte g, Byte b) {
  return r >> 3 << 10 | g >> 3 << 5 | b >> 3;
}

/// The 8 bits that 5 bits of a bin stand for.
int ChannelOf(int bin, int shift) {
  const int v = bin >> shift & 31;
  return v << 3 | v >> 2;
}

int Distance(int binA, int binB) {
  const auto square = [&](int shift) {
    const int d = ChannelOf(binA, shift) - ChannelOf(binB, shift);
    return d * d;
  };
  return square(10) + square(5) + square(0);
}

/// The bins that occur most, the fullest first, of equal ones the lower.
std::vector<int> PopularBins(const std::vector<int>& counts) {
  std::vector<int> bins;
  for (int i = 0; i < kBins; ++i) {
    if (counts[i]) bins.push_back(i);
  }
  std::stable_sort(bins.begin(), bins.end(), [&](int a, int b) { return counts[a] > counts[b]; });
  if (bins.size() > kColours) bins.resize(kColours);
  return bins;
}

/// Number of the nearest entry, of equally near ones the lower.
Byte NearestEntry(const std::vector<int>& palette, int bin) {
  const auto nearest = std::min_element(palette.begin(), palette.end(),
                                        [bin](int a, int b) { return Distance(a, bin) < Distance(b, bin); });
  return static_cast<Byte>(nearest - palette.begin());
}

}  // namespace

HDIB CVelImage::GetDib(int bits) {
  if (IsEmpty() || (bits != 8 && bits != 24)) return nullptr;
  BITMAPINFOHEADER header;
  header.biWidth = GetWidth();
  header.biHeight = GetHeight();
  header.biBitCount = static_cast<std::uint16_t>(bits);
  const bool colour = GetPlanes() >= 3;
  if (bits == 8) return colour ? GetDib8Color(header) : GetDib8Mono(header);
  return colour ? GetDib24Color(header) : GetDib24Mono(header);
}

HDIB CVelImage::GetDib8Mono(const BITMAPINFOHEADER& header) {
  PackedBitmap dib(header, kColours);
  if (!dib) return nullptr;
  for (int i = 0; i < kColours; ++i) {
    dib.SetEntry(i, static_cast<Byte>(i), static_cast<Byte>(i), static_cast<Byte>(i));
  }
  const Shown<double> shown(*this, 0);
  for (int y = 0; y < GetHeight(); ++y) {
    shown.Line(GetLine(0, y, 0), dib.Line(y), GetWidth());
  }
  return dib.Release();
}

HDIB CVelImage::GetDib24Mono(const BITMAPINFOHEADER& header) {
  PackedBitmap dib(header, 0);
  if (dib) WriteLines24(*this, dib);
  return dib.Release();
}

HDIB CVelImage::GetDib24Color(const BITMAPINFOHEADER& header) {
  PackedBitmap dib(header, 0);
  if (!dib) return nullptr;
  if (IsContiguous(*this) && dib.LineBytes() * GetHeight() <= INT_MAX) {
    RunBitmap<double>(todib32_float, *this,
                      BitmapBuffer(dib.Line(0), {0, 0, GetWidth(), GetHeight()}, 3, -dib.LineBytes()));
  } else {
    WriteLines24(*this, dib);
  }
  return dib.Release();
}

HDIB CVelImage::GetDib8Color(const BITMAPINFOHEADER& header) {
  constexpr int kMostCounted = 32000;
  PackedBitmap dib(header, kColours);
  if (!dib) return nullptr;
  ShownLine<double> line(*this, 0, GetWidth());
  const auto forBins = [&](auto&& use) {
    for (int y = 0; y < GetHeight(); ++y) {
      line.Read(y);
      Byte const *r = line.Plane(0), *g = line.Plane(1), *b = line.Plane(2);
      for (int x = 0; x < GetWidth(); ++x) {
        use(x, y, BinOf(r[x], g[x], b[x]));
      }
    }
  };
  std::vector<int> counts(kBins);
  forBins([&](int, int, int bin) { counts[bin] += counts[bin] < kMostCounted; });

  const std::vector<int> palette = PopularBins(counts);
  std::vector<Byte> entries(kBins);
  for (int i = 0; i < kBins; ++i) {
    if (counts[i]) entries[i] = NearestEntry(palette, i);
  }
  for (int i = 0; i < static_cast<int>(palette.size()); ++i) {
    const auto channel = [&](int shift) { return static_cast<Byte>(ChannelOf(palette[i], shift)); };
    dib.SetEntry(i, channel(10), channel(5), channel(0));
  }
  forBins([&](int x, int y, int bin) { dib.Line(y)[x] = entries[bin]; });
  return dib.Release();
}
