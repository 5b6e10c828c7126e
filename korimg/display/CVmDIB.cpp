#include "korimg/display/CVmDIB.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "korimg/display/CMemoryDIB.h"

CVmDIB::~CVmDIB() {
  CVmDIB::Empty();
}

const CRuntimeClass* CVmDIB::GetThisClass() {
  static const CRuntimeClass kClass = {"CVmDIB", CBaseDIB::GetThisClass()};
  return &kClass;
}

int CVmDIB::Create(CWnd* pWnd, int width, int height, PALETTEENTRY* pal, int flag) {
  return Create(manager_, pWnd, width, height, pal, flag);
}

int CVmDIB::Create(CWnd* pWnd, int width, int height, int flag) {
  return Create(manager_, pWnd, width, height, nullptr, flag);
}

int CVmDIB::Create(const std::shared_ptr<CVmManager>& manager, CWnd* pWnd, int width, int height, int flag) {
  return Create(manager, pWnd, width, height, nullptr, flag);
}

int CVmDIB::Create(const std::shared_ptr<CVmManager>& manager, CWnd* pWnd, int width, int height,
                   PALETTEENTRY* pal, int flag) {
  if (width <= 0 || height <= 0) return 0;
  Empty();
  MakeHeader(pWnd, width, height, pal);
  usageColors_ = static_cast<int>(bitCount_ < 16 ? DIB_PAL_COLORS : DIB_RGB_COLORS);
  pixelBits_ = bitCount_ == 16 ? 16 : bitCount_ > 16 ? 24 : 8;
  planes_ = 1;
  const auto progress = flag ? velora::ProgressWin::Create(korimg::MainWindow(), L"", false)
                             : std::shared_ptr<velora::Progress>();
  try {
    image_ = std::make_unique<CVmImage>(manager, width, height, planes_, pixelBits_ / 8, progress);
  } catch (const velora::CVmMemoryAllocationError&) {
    Empty();
    return 0;
  }
  manager_ = manager;
  const CPaintDC screen(pWnd);
  return dc_.CreateCompatibleDC(&screen);
}

void CVmDIB::Empty() {
  CBaseDIB::Empty();
  header_.clear();
  image_.reset();
  planes_ = -1;
  width_ = height_ = 0;
}

int CVmDIB::IsEmpty() const {
  return width_ < 1 || height_ < 1 || !dc_.GetSafeHdc() || !image_;
}

void CVmDIB::CopyLine(int x, int y, int width, unsigned char* out) {
  const unsigned char* in = image_->GetImageAdr(x, y, 0, true, false, nullptr);
  if (bitCount_ != 32) {
    std::memcpy(out, in, 1LL * width * (pixelBits_ / 8));
    return;
  }
  for (int i = 0; i < width; ++i) {
    const unsigned value = in[3 * i] | in[3 * i + 1] << 8 | in[3 * i + 2] << 16;
    std::memcpy(out + 4LL * i, &value, sizeof value);
  }
}

/// Calls draw(band, offset, lines) for each band of the source, of `lines` lines from `offset` on.
template <class Draw>
int CVmDIB::DrawBands(CWnd* pWnd, CDC* dc, int srcX, int srcY, int width, int height, Draw&& draw) {
  constexpr int kBandLines = 50;
  const bool inside =
      srcX >= 0 && srcY >= 0 && width > 0 && height > 0 && srcX <= width_ - width && srcY <= height_ - height;
  if (IsEmpty() || !dc || !dc->GetSafeHdc() || !inside) return 0;
  CMemoryDIB band;
  if (!band.Create(pWnd, width, std::min(height, kBandLines), 0) || band.GetBitCount() != bitCount_) return 0;
  for (int offset = 0; bitCount_ >= 8 && offset < height; offset += kBandLines) {
    const int lines = std::min(kBandLines, height - offset);
    for (int i = 0; i < lines; ++i) {
      CopyLine(srcX, srcY + offset + i, width, band.GetImageAdr8(0, i));
    }
    if (palette_) {
      band.GetDC()->SelectPalette(palette_, false);
      band.GetDC()->RealizePalette();
    }
    if (!draw(band, offset, lines)) return 0;
  }
  return 1;
}

int CVmDIB::BitBlt(CWnd* pWnd, CPaintDC* dc, int dstX, int dstY, int width, int height, int srcX, int srcY,
                   unsigned long rop) {
  return DrawBands(pWnd, dc, srcX, srcY, width, height, [&](CMemoryDIB& band, int offset, int lines) {
    return band.BitBlt(pWnd, dc, dstX, dstY + offset, width, lines, 0, 0, rop);
  });
}

int CVmDIB::StretchBlt(CWnd* pWnd, CDC* dc, int dstX, int dstY, int dstW, int dstH, int srcX, int srcY,
                       int srcW, int srcH, unsigned long rop) {
  return DrawBands(pWnd, dc, srcX, srcY, srcW, srcH, [&](CMemoryDIB& band, int offset, int lines) {
    const int y = static_cast<int>(std::floor(1.0 * offset * dstH / srcH));
    const int height = static_cast<int>(std::ceil(1.0 * lines * dstH / srcH));
    return band.StretchBlt(pWnd, dc, dstX, dstY + y, dstW, height, 0, 0, srcW, lines, rop);
  });
}
