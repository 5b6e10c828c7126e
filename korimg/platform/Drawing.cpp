#include "korimg/platform/Drawing.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

struct HBITMAP__ {
  int width = 0, height = 0, bits = 0;
  long long lineBytes = 0;
  std::vector<RGBQUAD> colours;
  std::vector<unsigned char> pixels;

  unsigned char* Line(int y) { return pixels.data() + (height - 1LL - y) * lineBytes; }
  const unsigned char* Line(int y) const { return pixels.data() + (height - 1LL - y) * lineBytes; }
};

struct HDC__ {
  int bits = 32;
  HBITMAP bitmap = nullptr;
  CPalette* palette = nullptr;
  bool realized = false;
};

namespace {

using Value = std::uint32_t;  ///< a pixel as it is stored
using Combine = Value (*)(Value source, Value destination);

Value Load(const unsigned char* line, int x, int bits) {
  if (bits < 8) return line[1LL * x * bits / 8] >> (8 - bits - 1LL * x * bits % 8) & ((1u << bits) - 1);
  Value value = 0;
  std::memcpy(&value, line + 1LL * x * (bits / 8), bits / 8);
  return value;
}

void Store(unsigned char* line, int x, int bits, Value value) {
  if (bits >= 8) {
    std::memcpy(line + 1LL * x * (bits / 8), &value, bits / 8);
    return;
  }
  unsigned char& byte = line[1LL * x * bits / 8];
  const int shift = static_cast<int>(8 - bits - 1LL * x * bits % 8);
  const unsigned mask = ((1u << bits) - 1) << shift;
  byte = static_cast<unsigned char>((byte & ~mask) | (value << shift & mask));
}

/// Colour of a stored pixel, as in a line of 32 bits.
RGBQUAD ColourOf(const HDC__& dc, Value value) {
  const HBITMAP__& bitmap = *dc.bitmap;
  const auto byte = [](Value v) { return static_cast<std::uint8_t>(v); };
  if (bitmap.bits > 16) return {byte(value), byte(value >> 8), byte(value >> 16), 0};
  if (bitmap.bits == 16) {
    const auto five = [&](int shift) {
      const Value v = value >> shift & 31;
      return byte(v << 3 | v >> 2);
    };
    return {five(0), five(5), five(10), 0};
  }
  if (dc.realized && value < dc.palette->Entries().size()) {
    const PALETTEENTRY& entry = dc.palette->Entries()[value];
    return {entry.peBlue, entry.peGreen, entry.peRed, 0};
  }
  return value < bitmap.colours.size() ? bitmap.colours[value] : RGBQUAD{};
}

Value ValueOf(const HDC__& dc, const RGBQUAD& colour) {
  const int bits = dc.bitmap->bits;
  if (bits > 16) return colour.rgbBlue | colour.rgbGreen << 8 | colour.rgbRed << 16;
  if (bits == 16) return colour.rgbBlue >> 3 | colour.rgbGreen >> 3 << 5 | colour.rgbRed >> 3 << 10;
  int nearest = INT_MAX;
  Value best = 0;
  for (Value i = 0; i < 1u << bits; ++i) {
    const RGBQUAD entry = ColourOf(dc, i);
    const int b = entry.rgbBlue - colour.rgbBlue, g = entry.rgbGreen - colour.rgbGreen,
              r = entry.rgbRed - colour.rgbRed;
    if (b * b + g * g + r * r < nearest) {
      nearest = b * b + g * g + r * r;
      best = i;
    }
  }
  return best;
}

std::optional<Combine> CombineOf(unsigned long rop) {
  switch (rop) {
    case SRCCOPY:
      return [](Value s, Value) { return s; };
    case SRCPAINT:
      return [](Value s, Value d) { return s | d; };
    case SRCAND:
      return [](Value s, Value d) { return s & d; };
    case SRCINVERT:
      return [](Value s, Value d) { return s ^ d; };
    case SRCERASE:
      return [](Value s, Value d) { return s & ~d; };
    case NOTSRCCOPY:
      return [](Value s, Value) { return ~s; };
    case DSTINVERT:
      return [](Value, Value d) { return ~d; };
    case BLACKNESS:
      return [](Value, Value) { return Value{0}; };
    case WHITENESS:
      return [](Value, Value) { return ~Value{0}; };
    default:
      return std::nullopt;
  }
}

bool NeedsSource(unsigned long rop) {
  return rop != DSTINVERT && rop != BLACKNESS && rop != WHITENESS;
}

/// One axis of a copy: destination pixels from first to last - 1 for which both surfaces have one.
struct Axis {
  long long to, size, from, srcSize;
  long long first = 0, last = 0;

  Axis(int to, int size, int from, int srcSize, int extent, std::optional<int> srcExtent)
      : to(to), size(size), from(from), srcSize(srcSize) {
    first = std::max(0LL, -this->to);
    last = std::min(this->size, extent - this->to);
    while (srcExtent && first < last && Source(first) < 0)
      ++first;
    while (srcExtent && first < last && Source(last - 1) >= *srcExtent)
      --last;
  }
  long long Source(long long i) const { return from + i * srcSize / size; }
};

/// With a palette of greys where there is one; null for sizes and depths that do not exist, and without room.
HBITMAP NewBitmap(int width, int height, int bits) {
  const bool known = bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
  if (!known || width <= 0 || height <= 0) return nullptr;
  try {
    auto bitmap = std::make_unique<HBITMAP__>();
    bitmap->width = width;
    bitmap->height = height;
    bitmap->bits = bits;
    bitmap->lineBytes = (1LL * width * bits + 31) / 32 * 4;
    for (int i = 0, entries = bits <= 8 ? 1 << bits : 0; i < entries; ++i) {
      const auto grey = static_cast<std::uint8_t>(255 * i / (entries - 1));
      bitmap->colours.push_back({grey, grey, grey, 0});
    }
    bitmap->pixels.resize(bitmap->lineBytes * height);
    return bitmap.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

HBITMAP CreateDIBSection(const CDC*, const BITMAPINFO* info, unsigned, void** bits) {
  const BITMAPINFOHEADER& header = info->bmiHeader;
  HBITMAP bitmap = NewBitmap(header.biWidth, header.biHeight, header.biBitCount);
  if (!bitmap) return nullptr;
  std::copy_n(info->bmiColors, bitmap->colours.size(), bitmap->colours.begin());
  *bits = bitmap->pixels.data();
  return bitmap;
}

void DeleteObject(HBITMAP bitmap) {
  delete bitmap;
}

CDC::CDC() = default;
CDC::~CDC() = default;

bool CDC::CreateCompatibleDC(const CDC* dc) {
  if (dc && !dc->dc_) return false;
  const int bits = dc ? dc->GetDeviceCaps(BITSPIXEL) : 32;
  dc_ = std::make_unique<HDC__>();
  dc_->bits = bits;
  return true;
}

void CDC::DeleteDC() {
  dc_.reset();
}

void CDC::Attach(HBITMAP bitmap) {
  dc_ = std::make_unique<HDC__>();
  SelectObject(bitmap);
}

int CDC::GetDeviceCaps(int index) const {
  return index == BITSPIXEL && dc_ ? dc_->bits : 0;
}

HBITMAP CDC::SelectObject(HBITMAP bitmap) {
  if (!dc_) return nullptr;
  if (bitmap) dc_->bits = bitmap->bits;
  return std::exchange(dc_->bitmap, bitmap);
}

void CDC::SelectPalette(CPalette* palette, bool) {
  if (!dc_) return;
  dc_->palette = palette;
  dc_->realized = false;
}

unsigned CDC::RealizePalette() {
  if (!dc_ || !dc_->palette) return 0;
  dc_->realized = true;
  return static_cast<unsigned>(dc_->palette->Entries().size());
}

bool CDC::BitBlt(int x, int y, int width, int height, CDC* source, int srcX, int srcY, unsigned long rop) {
  return StretchBlt(x, y, width, height, source, srcX, srcY, width, height, rop);
}

bool CDC::StretchBlt(int x, int y, int width, int height, CDC* source, int srcX, int srcY, int srcWidth,
                     int srcHeight, unsigned long rop) {
  const auto combine = CombineOf(rop);
  HBITMAP to = dc_ ? dc_->bitmap : nullptr;
  HBITMAP from = source && source->dc_ && NeedsSource(rop) ? source->dc_->bitmap : nullptr;
  if (!combine || !to || (NeedsSource(rop) && !from)) return false;
  if (width <= 0 || height <= 0 || srcWidth <= 0 || srcHeight <= 0) return true;
  const auto extent = [&](int HBITMAP__::*size) { return from ? std::optional(from->*size) : std::nullopt; };
  const Axis across(x, width, srcX, srcWidth, to->width, extent(&HBITMAP__::width));
  const Axis down(y, height, srcY, srcHeight, to->height, extent(&HBITMAP__::height));
  const bool sameDepth = !from || from->bits == to->bits;
  const bool plainCopy = rop == SRCCOPY && sameDepth && to->bits >= 8 && width == srcWidth && from != to;
  for (long long j = down.first; j < down.last; ++j) {
    unsigned char* out = to->Line(static_cast<int>(down.to + j));
    const unsigned char* in = from ? from->Line(static_cast<int>(down.Source(j))) : nullptr;
    if (plainCopy && across.first < across.last) {
      const int bytes = to->bits / 8;
      std::memcpy(out + (across.to + across.first) * bytes, in + across.Source(across.first) * bytes,
                  (across.last - across.first) * bytes);
      continue;
    }
    for (long long i = across.first; i < across.last; ++i) {
      const int at = static_cast<int>(across.to + i);
      Value value = in ? Load(in, static_cast<int>(across.Source(i)), from->bits) : 0;
      if (!sameDepth) value = ValueOf(*dc_, ColourOf(*source->dc_, value));
      Store(out, at, to->bits, (*combine)(value, Load(out, at, to->bits)));
    }
  }
  return true;
}

unsigned long CDC::GetPixel(int x, int y) const {
  HBITMAP bitmap = dc_ ? dc_->bitmap : nullptr;
  if (!bitmap || x < 0 || y < 0 || x >= bitmap->width || y >= bitmap->height) return 0xFFFFFFFF;
  const RGBQUAD c = ColourOf(*dc_, Load(bitmap->Line(y), x, bitmap->bits));
  return c.rgbRed | c.rgbGreen << 8 | c.rgbBlue << 16;
}

CWnd::CWnd(int width, int height, int bitsPixel) : surface_(NewBitmap(width, height, bitsPixel)) {}

CWnd::~CWnd() {
  DeleteObject(surface_);
}

CPaintDC::CPaintDC(CWnd* window) {
  if (window && window->Surface()) {
    Attach(window->Surface());
  } else {
    CreateCompatibleDC(nullptr);
  }
}
