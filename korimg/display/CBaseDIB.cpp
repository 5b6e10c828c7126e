#include "korimg/display/CBaseDIB.h"

#include <cstring>

CBaseDIB::~CBaseDIB() = default;

const CRuntimeClass* CBaseDIB::GetThisClass() {
  static const CRuntimeClass kClass = {"CBaseDIB", CObject::GetThisClass()};
  return &kClass;
}

void CBaseDIB::Empty() {
  dc_.DeleteDC();
}

void CBaseDIB::MakeHeader(CWnd* pWnd, int width, int height, const PALETTEENTRY* pal) {
  width_ = width;
  height_ = height;
  bitCount_ = CPaintDC(pWnd).GetDeviceCaps(BITSPIXEL);
  palColors_ = bitCount_ <= 8 ? 1 << bitCount_ : 0;
  usageColors_ = static_cast<int>(!pal && palColors_ ? DIB_PAL_COLORS : DIB_RGB_COLORS);
  lineBytes_ = static_cast<int>(((1LL * width * bitCount_ + 7) / 8 + 3) & ~3LL);

  BITMAPINFOHEADER header;
  header.biWidth = width;
  header.biHeight = height;
  header.biBitCount = static_cast<std::uint16_t>(bitCount_);
  header.biSizeImage = static_cast<std::uint32_t>(1LL * lineBytes_ * height);
  header.biClrUsed = static_cast<std::uint32_t>(palColors_);
  header_.assign(sizeof header + palColors_ * sizeof(RGBQUAD), 0);
  std::memcpy(header_.data(), &header, sizeof header);
  for (int i = 0; pal && i < palColors_; ++i) {
    const RGBQUAD entry = {pal[i].peBlue, pal[i].peGreen, pal[i].peRed, 0};
    std::memcpy(&header_[sizeof header + i * sizeof entry], &entry, sizeof entry);
  }
}

void CBaseDIB::CopyHeader(const CBaseDIB& source) {
  header_ = source.header_;
  bitCount_ = source.bitCount_;
  usageColors_ = source.usageColors_;
  palColors_ = source.palColors_;
  lineBytes_ = source.lineBytes_;
  width_ = source.width_;
  height_ = source.height_;
}

void CBaseDIB::SetPixel(int x, int y, unsigned long colour) {
  switch (bitCount_) {
    case 8:
      return SetPixel8(x, y, colour);
    case 16:
      return SetPixel16(x, y, colour);
    case 24:
      return SetPixel24(x, y, colour);
    case 32:
      return SetPixel32(x, y, colour);
    default:
      return;
  }
}

void CBaseDIB::SetPixel(void* pixel, unsigned long colour) {
  switch (bitCount_) {
    case 8:
      return SetPixel8(static_cast<unsigned char*>(pixel), colour);
    case 16:
      return SetPixel16(static_cast<std::uint16_t*>(pixel), colour);
    case 24:
    case 32:
      return SetPixel24(static_cast<unsigned char*>(pixel), colour);
    default:
      return;
  }
}
