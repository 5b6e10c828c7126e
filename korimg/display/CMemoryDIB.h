#pragma once

#include "korimg/display/CBaseDIB.h"

class CVmDIB;

/// A bitmap in memory with a device context of its own. Its lines lie bottom line first.
class KORIMG_API CMemoryDIB : public CBaseDIB {
 public:
  CMemoryDIB() = default;
  ~CMemoryDIB() override;
  CMemoryDIB& operator=(CMemoryDIB& source);
  CMemoryDIB& operator=(CVmDIB& source);

  static const CRuntimeClass* GetThisClass();
  const CRuntimeClass* GetRuntimeClass() const override { return GetThisClass(); }

  int Create(CWnd* pWnd, int width, int height, PALETTEENTRY* pal, int flag) override;
  int Create(CWnd* pWnd, int width, int height, int flag) override;
  void Empty() override;
  int IsEmpty() const override;
  int BitBlt(CWnd* pWnd, CPaintDC* dc, int dstX, int dstY, int width, int height, int srcX, int srcY,
             unsigned long rop) override;
  int StretchBlt(CWnd* pWnd, CDC* dc, int dstX, int dstY, int dstW, int dstH, int srcX, int srcY, int srcW,
                 int srcH, unsigned long rop) override;
  unsigned char* GetImageAdr8(int x, int y) override { return Address(x, y, 1); }
  unsigned char* GetImageAdr16(int x, int y) override { return Address(x, y, 2); }
  unsigned char* GetImageAdr24(int x, int y) override { return Address(x, y, 3); }
  unsigned char* GetImageAdr32(int x, int y) override { return Address(x, y, 4); }

  /// Copies the rectangle, which the caller keeps inside; all of it without one. This bitmap becomes a twin
  /// of the source first unless it is one and a rectangle is given: what lies outside is zero then. An empty
  /// source does nothing.
  void CopyImage(CMemoryDIB* source, CRect* rect);
  void CopyImage(CVmDIB* source, CRect* rect);
  /// Copies the header and the pixels, without the palette, in a block that the caller frees; null without
  /// room.
  HGLOBAL CreateHDIB() const;

 private:
  unsigned char* Address(int x, int y, int bytes) {
    return bits_ + (height_ - y - 1LL) * lineBytes_ + 1LL * x * bytes;
  }
  int MakeSection();
  /// True when there is a bitmap to copy into.
  bool BecomeTwin(CBaseDIB& source, const CRect* rect);

  HBITMAP bitmap_ = nullptr;
  unsigned char* bits_ = nullptr;
};
