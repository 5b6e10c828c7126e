#include "korimg/display/CMemoryDIB.h"

#include <cstring>

#include "korimg/display/CVmDIB.h"

CMemoryDIB::~CMemoryDIB() {
  CMemoryDIB::Empty();
}

const CRuntimeClass* CMemoryDIB::GetThisClass() {
  static const CRuntimeClass kClass = {"CMemoryDIB", CBaseDIB::GetThisClass()};
  return &kClass;
}

int CMemoryDIB::Create(CWnd* pWnd, int width, int height, int flag) {
  return Create(pWnd, width, height, nullptr, flag);
}

int CMemoryDIB::Create(CWnd* pWnd, int width, int height, PALETTEENTRY* pal, int) {
  if (width <= 0 || height <= 0) return 0;
  Empty();
  MakeHeader(pWnd, width, height, pal);
  const CPaintDC screen(pWnd);
  return dc_.CreateCompatibleDC(&screen) && MakeSection();
}

int CMemoryDIB::MakeSection() {
  void* bits = nullptr;
  bitmap_ = CreateDIBSection(&dc_, Info(), static_cast<unsigned>(usageColors_), &bits);
  if (!bitmap_) {
    Empty();
    return 0;
  }
  bits_ = static_cast<unsigned char*>(bits);
  dc_.SelectObject(bitmap_);
  return 1;
}

void CMemoryDIB::Empty() {
  CBaseDIB::Empty();
  header_.clear();
  DeleteObject(bitmap_);
  bitmap_ = nullptr;
  bits_ = nullptr;
  width_ = height_ = 0;
}

int CMemoryDIB::IsEmpty() const {
  return width_ < 1 || height_ < 1 || !dc_.GetSafeHdc() || !bits_;
}

int CMemoryDIB::BitBlt(CWnd*, CPaintDC* dc, int dstX, int dstY, int width, int height, int srcX, int srcY,
                       unsigned long rop) {
  if (!dc || !dc->GetSafeHdc() || !dc_.GetSafeHdc()) return 0;
  return dc->BitBlt(dstX, dstY, width, height, &dc_, srcX, srcY, rop);
}

int CMemoryDIB::StretchBlt(CWnd*, CDC* dc, int dstX, int dstY, int dstW, int dstH, int srcX, int srcY,
                           int srcW, int srcH, unsigned long rop) {
  if (!dc || !dc->GetSafeHdc() || !dc_.GetSafeHdc()) return 0;
  return dc->StretchBlt(dstX, dstY, dstW, dstH, &dc_, srcX, srcY, srcW, srcH, rop);
}

bool CMemoryDIB::BecomeTwin(CBaseDIB& source, const CRect* rect) {
  const bool isTwin = !IsEmpty() && width_ == source.GetWidth() && height_ == source.GetHeight() &&
                      bitCount_ == source.GetBitCount() && usageColors_ == source.GetUsageColors() &&
                      palColors_ == source.GetPalColors();
  if (rect && isTwin) return true;
  Empty();
  CopyHeader(source);
  return dc_.CreateCompatibleDC(source.GetDC()) && MakeSection();
}

void CMemoryDIB::CopyImage(CMemoryDIB* source, CRect* rect) {
  if (!source || source == this || source->IsEmpty() || !BecomeTwin(*source, rect)) return;
  const CRect r = rect ? *rect : CRect(0, 0, width_, height_);
  // Pixels of less than a byte are copied by their bytes.
  const long long first = 1LL * r.left * bitCount_ / 8, last = (1LL * r.right * bitCount_ + 7) / 8;
  for (int y = r.top; y < r.bottom && first < last; ++y) {
    std::memcpy(GetImageAdr8(0, y) + first, source->GetImageAdr8(0, y) + first, last - first);
  }
}

void CMemoryDIB::CopyImage(CVmDIB* source, CRect* rect) {
  if (!source || source->IsEmpty() || !BecomeTwin(*source, rect)) return;
  const CRect r = rect ? *rect : CRect(0, 0, width_, height_);
  // The store has no form for pixels of less than a byte.
  for (int y = r.top; y < r.bottom && r.left < r.right && bitCount_ >= 8; ++y) {
    source->CopyLine(r.left, y, r.Width(), Address(r.left, y, bitCount_ / 8));
  }
}

CMemoryDIB& CMemoryDIB::operator=(CMemoryDIB& source) {  // NOLINT: CopyImage passes itself over
  CopyImage(&source, nullptr);
  return *this;
}

CMemoryDIB& CMemoryDIB::operator=(CVmDIB& source) {
  CopyImage(&source, nullptr);
  return *this;
}

HGLOBAL CMemoryDIB::CreateHDIB() const {
  if (IsEmpty()) return nullptr;
  const BITMAPINFOHEADER& header = *GetHeader();
  HGLOBAL block = GlobalAlloc(GHND, sizeof header + header.biSizeImage);
  if (!block) return nullptr;
  auto* bytes = static_cast<unsigned char*>(GlobalLock(block));
  std::memcpy(bytes, &header, sizeof header);
  std::memcpy(bytes + sizeof header, bits_, header.biSizeImage);
  GlobalUnlock(block);
  return block;
}
