// Drawing surfaces in memory, with the shape of the Windows interface: bitmaps whose pixels are plain memory,
// device contexts that copy between them, and windows that hold what was drawn.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "korimg/platform/CObject.h"
#include "korimg/platform/Export.h"
#include "korimg/platform/GlobalMemory.h"

struct PALETTEENTRY {
  std::uint8_t peRed = 0;
  std::uint8_t peGreen = 0;
  std::uint8_t peBlue = 0;
  std::uint8_t peFlags = 0;
};

/// An entry of a bitmap's own palette.
struct RGBQUAD {
  std::uint8_t rgbBlue = 0;
  std::uint8_t rgbGreen = 0;
  std::uint8_t rgbRed = 0;
  std::uint8_t rgbReserved = 0;
};

/// A header with the first of the palette's entries that follow it.
struct BITMAPINFO {
  BITMAPINFOHEADER bmiHeader;
  RGBQUAD bmiColors[1];
};

/// What the palette of a bitmap holds: colours, or numbers of the entries of the device's palette.
constexpr unsigned DIB_RGB_COLORS = 0;
constexpr unsigned DIB_PAL_COLORS = 1;

/// How source and destination are combined, bit by bit.
constexpr unsigned long SRCCOPY = 0x00CC0020;
constexpr unsigned long SRCPAINT = 0x00EE0086;    ///< or
constexpr unsigned long SRCAND = 0x008800C6;      ///< and
constexpr unsigned long SRCINVERT = 0x00660046;   ///< exclusive or
constexpr unsigned long SRCERASE = 0x00440328;    ///< source and not destination
constexpr unsigned long NOTSRCCOPY = 0x00330008;  ///< not source
constexpr unsigned long DSTINVERT = 0x00550009;   ///< not destination
constexpr unsigned long BLACKNESS = 0x00000042;
constexpr unsigned long WHITENESS = 0x00FF0062;

/// Index of GetDeviceCaps: bits of a pixel.
constexpr int BITSPIXEL = 12;

using HBITMAP = struct HBITMAP__*;
using HDC = struct HDC__*;

class CDC;

/// Makes a bitmap of 1, 4, 8, 16 (5-5-5), 24 or 32 bits, zeroed, bottom line first, lines padded to 4 bytes.
/// *bits is the address of its pixels, valid until DeleteObject. Null for other headers and when there is no
/// memory.
KORIMG_API HBITMAP CreateDIBSection(const CDC* dc, const BITMAPINFO* info, unsigned usage, void** bits);
KORIMG_API void DeleteObject(HBITMAP bitmap);

/// Colours that stand for the numbers of an indexed bitmap once they are realised.
class KORIMG_API CPalette : public CObject {
 public:
  explicit CPalette(std::vector<PALETTEENTRY> entries) : entries_(std::move(entries)) {}
  const std::vector<PALETTEENTRY>& Entries() const { return entries_; }

 private:
  std::vector<PALETTEENTRY> entries_;
};

/// A device context: draws on the bitmap that is selected into it. Everything is clipped to both surfaces.
/// Equal depths are copied as they are, others by colour, into an indexed bitmap by its nearest entry.
class KORIMG_API CDC : public CObject {
 public:
  CDC();
  ~CDC() override;
  CDC(const CDC&) = delete;
  CDC& operator=(const CDC&) = delete;

  HDC GetSafeHdc() const { return dc_.get(); }
  /// Makes a context in memory of the other's depth; null stands for a screen of 32 bits. False for one
  /// without a handle.
  bool CreateCompatibleDC(const CDC* dc);
  void DeleteDC();
  int GetDeviceCaps(int index) const;
  /// Selects a bitmap, which stays its owner's. Gives the one that was selected.
  HBITMAP SelectObject(HBITMAP bitmap);
  /// Selects a palette, which stays its owner's; forceBackground is without effect on surfaces in memory.
  void SelectPalette(CPalette* palette, bool forceBackground);
  /// Lets the selected palette stand for the numbers of the bitmap; gives the number of its entries.
  unsigned RealizePalette();

  bool BitBlt(int x, int y, int width, int height, CDC* source, int srcX, int srcY, unsigned long rop);
  /// Copies scaled: pixel i of n takes that of floor(i * source size / n). Sizes below 1 draw nothing.
  bool StretchBlt(int x, int y, int width, int height, CDC* source, int srcX, int srcY, int srcWidth,
                  int srcHeight, unsigned long rop);
  /// Answers the colour of a pixel as 0x00BBGGRR; 0xFFFFFFFF outside.
  unsigned long GetPixel(int x, int y) const;

 protected:
  void Attach(HBITMAP bitmap);

 private:
  std::unique_ptr<HDC__> dc_;
};

/// A window: the surface that is drawn on, which its host shows.
class KORIMG_API CWnd : public CObject {
 public:
  CWnd(int width, int height, int bitsPixel);
  ~CWnd() override;
  CWnd(const CWnd&) = delete;
  CWnd& operator=(const CWnd&) = delete;

  HBITMAP Surface() const { return surface_; }

 private:
  HBITMAP surface_;
};

/// Draws on a window.
class KORIMG_API CPaintDC : public CDC {
 public:
  explicit CPaintDC(CWnd* window);
};
