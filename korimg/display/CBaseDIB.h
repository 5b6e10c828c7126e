#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "korimg/platform/CRect.h"
#include "korimg/platform/Drawing.h"

/// A bitmap of the screen's depth: its header, and the interface to its pixels, which derived classes keep.
/// y runs from the top for all callers. Colours are 0x00BBGGRR. Positions are the caller's to keep inside.
/// Used from one thread.
class KORIMG_API CBaseDIB : public CObject {
 public:
  ~CBaseDIB() override;
  CBaseDIB(const CBaseDIB&) = delete;
  CBaseDIB& operator=(const CBaseDIB&) = delete;

  static const CRuntimeClass* GetThisClass();
  const CRuntimeClass* GetRuntimeClass() const override { return GetThisClass(); }

  /// Makes the bitmap in the depth of the window (32 bits without one); what it held before is gone. A
  /// CMemoryDIB is zeroed, a CVmDIB holds anything. pal has an entry for each colour of the depth. A CVmDIB
  /// shows its progress when flag is non-zero. 1, or 0 for no size and when there is no room.
  virtual int Create(CWnd* pWnd, int width, int height, PALETTEENTRY* pal, int flag) = 0;
  virtual int Create(CWnd* pWnd, int width, int height, int flag) = 0;
  virtual void Empty();
  virtual int IsEmpty() const = 0;
  /// Copies to a context; 1, or 0 without one on either side, and for a source that leaves a CVmDIB.
  virtual int BitBlt(CWnd* pWnd, CPaintDC* dc, int dstX, int dstY, int width, int height, int srcX, int srcY,
                     unsigned long rop) = 0;
  virtual int StretchBlt(CWnd* pWnd, CDC* dc, int dstX, int dstY, int dstW, int dstH, int srcX, int srcY,
                         int srcW, int srcH, unsigned long rop) = 0;
  /// Answers the address of a pixel of this many bits. A CVmDIB keeps 3 bytes for a pixel of 32 bits, and its
  /// addresses are good as those of its store.
  virtual unsigned char* GetImageAdr8(int x, int y) = 0;
  virtual unsigned char* GetImageAdr16(int x, int y) = 0;
  virtual unsigned char* GetImageAdr24(int x, int y) = 0;
  virtual unsigned char* GetImageAdr32(int x, int y) = 0;

  const BITMAPINFOHEADER* GetHeader() const {
    return header_.empty() ? nullptr : &reinterpret_cast<const BITMAPINFO*>(header_.data())->bmiHeader;
  }
  /// Answers the GetPalColors() entries of the bitmap's own palette.
  const RGBQUAD* GetPalette() const {
    return reinterpret_cast<const RGBQUAD*>(header_.data() + sizeof(BITMAPINFOHEADER));
  }
  CDC* GetDC() { return &dc_; }
  int GetBitCount() const { return bitCount_; }
  int GetUsageColors() const { return usageColors_; }
  int GetPalColors() const { return palColors_; }
  int GetAlign() const { return lineBytes_; }  ///< bytes of a line
  int GetWidth() const { return width_; }
  int GetHeight() const { return height_; }

  // Forms by depth take the colour's low byte (8), 5-5-5 (16), or blue, green, red (24 and 32, where a fourth
  // byte stays).
  void SetPixel(int x, int y, unsigned long colour);
  void SetPixel(void* pixel, unsigned long colour);
  void SetPixel8(int x, int y, unsigned long colour) { SetPixel8(GetImageAdr8(x, y), colour); }
  static void SetPixel8(unsigned char* p, unsigned long colour) { *p = static_cast<unsigned char>(colour); }
  void SetPixel16(int x, int y, unsigned long colour) {
    SetPixel16(reinterpret_cast<std::uint16_t*>(GetImageAdr16(x, y)), colour);
  }
  static void SetPixel16(std::uint16_t* p, unsigned long colour) {
    SetPixel16(p, static_cast<int>(colour & 255), static_cast<int>(colour >> 8 & 255),
               static_cast<int>(colour >> 16 & 255));
  }
  static void SetPixel16(std::uint16_t* p, int r, int g, int b) {
    *p = static_cast<std::uint16_t>((r & 248) << 7 | (g & 248) << 2 | b >> 3);
  }
  /// Writes a colour dithered by the place: 4 is added on even x + y.
  static void SetPixel16(std::uint16_t* p, int x, int y, int r, int g, int b) {
    const int add = (x + y) & 1 ? 0 : 4;
    const auto raised = [add](int v) { return v + add < 255 ? v + add : 255; };
    SetPixel16(p, raised(r), raised(g), raised(b));
  }
  void SetPixel24(int x, int y, unsigned long colour) { SetPixel24(GetImageAdr24(x, y), colour); }
  static void SetPixel24(unsigned char* p, unsigned long colour) {
    p[0] = static_cast<unsigned char>(colour >> 16);
    p[1] = static_cast<unsigned char>(colour >> 8);
    p[2] = static_cast<unsigned char>(colour);
  }
  void SetPixel32(int x, int y, unsigned long colour) { SetPixel24(GetImageAdr32(x, y), colour); }

 protected:
  CBaseDIB() = default;

  /// Fills the header for the depth of the window, with the palette if one is given, and all fields.
  void MakeHeader(CWnd* pWnd, int width, int height, const PALETTEENTRY* pal);
  /// Takes a copy of another bitmap's header and fields.
  void CopyHeader(const CBaseDIB& source);
  const BITMAPINFO* Info() const { return reinterpret_cast<const BITMAPINFO*>(header_.data()); }

  CDC dc_;
  std::vector<unsigned char> header_;  ///< a BITMAPINFO with all of its palette
  int bitCount_ = 0;
  int usageColors_ = 0;
  int palColors_ = 0;
  int lineBytes_ = 0;
  int width_ = 0;
  int height_ = 0;
};
