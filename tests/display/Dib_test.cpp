// Bitmaps: addresses, formats, drawing on surfaces, copies.
#include <cstring>

#include <gtest/gtest.h>

#include "korimg/display/CMemoryDIB.h"
#include "korimg/display/CVmDIB.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Fills a bitmap by random colours, through the interface that both kinds share.
void Scribble(CBaseDIB& dib, int seed = 1) {
  for (int y = 0; y < dib.GetHeight(); ++y) {
    for (int x = 0; x < dib.GetWidth(); ++x) {
      dib.SetPixel(x, y, static_cast<unsigned long>(Noise(seed * 1000003 + y * 1009 + x) * 0xFFFFFF));
    }
  }
}

std::vector<unsigned long> Screen(CWnd& window, int width, int height) {
  const CPaintDC dc(&window);
  std::vector<unsigned long> colours;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      colours.push_back(dc.GetPixel(x, y));
    }
  }
  return colours;
}

TEST(MemoryDib, HeaderFollowsTheDepth) {
  struct Case {
    int bits, palette, usage, line;
  };
  for (const Case& c : {Case{1, 2, 1, 4}, Case{4, 16, 1, 4}, Case{8, 256, 1, 4}, Case{16, 0, 0, 8},
                        Case{24, 0, 0, 12}, Case{32, 0, 0, 12}}) {
    CWnd window(5, 5, c.bits);
    CMemoryDIB dib;
    EXPECT_TRUE(dib.IsEmpty());
    ASSERT_EQ(dib.Create(&window, 3, 7, 0), 1) << c.bits;
    EXPECT_FALSE(dib.IsEmpty());
    EXPECT_EQ(dib.GetBitCount(), c.bits);
    EXPECT_EQ(dib.GetPalColors(), c.palette);
    EXPECT_EQ(dib.GetUsageColors(), c.usage);
    EXPECT_EQ(dib.GetAlign(), c.line) << c.bits;
    const BITMAPINFOHEADER& h = *dib.GetHeader();
    EXPECT_EQ(h.biSize, 40u);
    EXPECT_EQ(h.biWidth, 3);
    EXPECT_EQ(h.biHeight, 7);
    EXPECT_EQ(h.biPlanes, 1);
    EXPECT_EQ(h.biBitCount, c.bits);
    EXPECT_EQ(h.biSizeImage, 7u * c.line);
    EXPECT_EQ(h.biClrUsed, static_cast<unsigned>(c.palette));
    EXPECT_EQ(dib.Create(&window, 0, 7, 0), 0);
    EXPECT_EQ(dib.Create(&window, 3, 0, 0), 0);
    dib.Empty();
    EXPECT_TRUE(dib.IsEmpty());
  }
}

TEST(MemoryDib, APaletteIsReversedAndSetsTheUsage) {
  CWnd window(5, 5, 4);
  std::vector<PALETTEENTRY> palette(16);
  for (int i = 0; i < 16; ++i) {
    palette[i] = {static_cast<unsigned char>(i), static_cast<unsigned char>(100 + i), 200, 7};
  }
  CMemoryDIB dib;
  ASSERT_EQ(dib.Create(&window, 3, 3, palette.data(), 0), 1);
  EXPECT_EQ(dib.GetUsageColors(), 0);
  EXPECT_EQ(dib.GetPalette()[9].rgbRed, 9);
  EXPECT_EQ(dib.GetPalette()[9].rgbGreen, 109);
  EXPECT_EQ(dib.GetPalette()[9].rgbBlue, 200);
  EXPECT_EQ(dib.GetPalette()[9].rgbReserved, 0);
}

TEST(Dibs, AddressesRunFromTheTop) {
  for (const int bits : {8, 16, 24, 32}) {
    CWnd window(5, 5, bits);
    CMemoryDIB memory;
    CVmDIB paged(TinyPool());
    const auto store = TinyPool();
    ASSERT_EQ(memory.Create(&window, 5, 4, 0), 1);
    ASSERT_EQ(paged.Create(store, &window, 5, 4, 0), 1);
    const int bytes = bits / 8, kept = bits == 32 ? 3 : bytes;
    const auto address = [bits](CBaseDIB& dib, int x, int y) {
      return bits == 8    ? dib.GetImageAdr8(x, y)
             : bits == 16 ? dib.GetImageAdr16(x, y)
             : bits == 24 ? dib.GetImageAdr24(x, y)
                          : dib.GetImageAdr32(x, y);
    };
    const unsigned char* last = address(memory, 0, 3);
    EXPECT_EQ(address(memory, 0, 0), last + 3 * memory.GetAlign());
    EXPECT_EQ(address(memory, 4, 2), last + memory.GetAlign() + 4 * bytes);
    EXPECT_EQ(address(paged, 4, 2) - address(paged, 0, 0), 2 * 5 * kept + 4 * kept);
    EXPECT_TRUE(memory.IsKindOf(CMemoryDIB::GetThisClass()));
    EXPECT_FALSE(memory.IsKindOf(CVmDIB::GetThisClass()));
    EXPECT_TRUE(paged.IsKindOf(CVmDIB::GetThisClass()) && paged.IsKindOf(CBaseDIB::GetThisClass()));
  }
}

TEST(Dibs, PixelsByDepth) {
  constexpr unsigned long kColour = 0x00FC8309;  // blue 252, green 131, red 9
  struct Case {
    int bits;
    std::vector<unsigned char> bytes;
  };
  for (const Case& c : {Case{8, {0x09}}, Case{16, {0x1F, 0x06}}, Case{24, {0xFC, 0x83, 0x09}},
                        Case{32, {0xFC, 0x83, 0x09, 0x77}}, Case{4, {0x77}}}) {
    CWnd window(5, 5, c.bits);
    CMemoryDIB dib;
    ASSERT_EQ(dib.Create(&window, 2, 2, 0), 1);
    for (const bool byPointer : {false, true}) {
      unsigned char* pixel = c.bits == 32 ? dib.GetImageAdr32(0, 1) : dib.GetImageAdr8(0, 1);
      std::memset(pixel, 0x77, 4);
      byPointer ? dib.SetPixel(pixel, kColour) : dib.SetPixel(0, 1, kColour);
      EXPECT_EQ(std::vector<unsigned char>(pixel, pixel + c.bytes.size()), c.bytes) << c.bits;
    }
  }
  std::uint16_t word = 0;
  CBaseDIB::SetPixel16(&word, 3, 5, 252, 4, 3);
  EXPECT_EQ(word, 31 << 10 | 1 << 5 | 0);
  CBaseDIB::SetPixel16(&word, 3, 4, 252, 4, 3);
  EXPECT_EQ(word, 31 << 10 | 0 << 5 | 0);
  CBaseDIB::SetPixel16(&word, 2, 4, 3, 4, 247);
  EXPECT_EQ(word, 0 << 10 | 1 << 5 | 31);
}

/// Draws parts of one picture from both kinds of bitmaps; the windows must show the same.
TEST(Dibs, BothKindsDrawTheSame) {
  constexpr int kWidth = 37, kHeight = 131;
  struct Case {
    int dstX, dstY, width, height, srcX, srcY;
    unsigned long rop;
  };
  const Case cases[] = {{0, 0, kWidth, kHeight, 0, 0, SRCCOPY},   {3, 5, 20, 101, 7, 30, SRCINVERT},
                        {-4, -6, kWidth, 49, 0, 51, SRCPAINT},    {30, 100, 30, 50, 1, 1, SRCAND},
                        {0, 0, kWidth, 50, 0, 0, NOTSRCCOPY},     {0, 9, 1, 1, 36, 130, SRCERASE},
                        {1, 1, 5, 60, 0, 0, DSTINVERT},           {2, 2, 5, 60, 0, 0, BLACKNESS},
                        {4, 20, 9, kHeight - 20, 0, 0, WHITENESS}};
  for (const int bits : {8, 16, 24, 32}) {
    CWnd window(kWidth, kHeight, bits), other(kWidth, kHeight, bits);
    CMemoryDIB memory;
    CVmDIB paged(TinyPool());
    const auto store = TinyPool();
    ASSERT_TRUE(memory.Create(&window, kWidth, kHeight, 0) &&
                paged.Create(store, &window, kWidth, kHeight, 1));
    Scribble(memory);
    Scribble(paged);
    for (const Case& c : cases) {
      CPaintDC dc(&window), otherDc(&other);
      EXPECT_EQ(memory.BitBlt(&window, &dc, c.dstX, c.dstY, c.width, c.height, c.srcX, c.srcY, c.rop), 1);
      EXPECT_EQ(paged.BitBlt(&other, &otherDc, c.dstX, c.dstY, c.width, c.height, c.srcX, c.srcY, c.rop), 1);
      EXPECT_EQ(Screen(window, kWidth, kHeight), Screen(other, kWidth, kHeight)) << bits << " " << c.rop;
    }
    // By whole factors every line is its own band's.
    CPaintDC dc(&window), otherDc(&other);
    for (const auto& [w, h] :
         {std::pair(kWidth * 2, kHeight * 3), std::pair(kWidth, 1), std::pair(12, 262)}) {
      const int srcH = h == 1 ? 1 : kHeight;
      EXPECT_EQ(memory.StretchBlt(&window, &dc, 0, 0, w, h, 0, 0, kWidth, srcH, SRCCOPY), 1);
      EXPECT_EQ(paged.StretchBlt(&other, &otherDc, 0, 0, w, h, 0, 0, kWidth, srcH, SRCCOPY), 1);
      EXPECT_EQ(Screen(window, kWidth, kHeight), Screen(other, kWidth, kHeight)) << bits << " " << h;
    }
  }
}

TEST(Dibs, ShrunkBandsLeaveNoGap) {
  constexpr int kWidth = 3, kHeight = 170;
  CWnd window(kWidth, kHeight, 32);
  CVmDIB dib(MemoryStore());
  const auto store = MemoryStore();
  ASSERT_EQ(dib.Create(store, &window, kWidth, kHeight, 0), 1);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      dib.SetPixel(x, y, 0x010000ul + y);
    }
  }
  for (const int height : {33, 101, 169}) {
    CPaintDC dc(&window);
    dc.BitBlt(0, 0, kWidth, kHeight, nullptr, 0, 0, BLACKNESS);
    ASSERT_EQ(dib.StretchBlt(&window, &dc, 0, 0, kWidth, height, 0, 0, kWidth, kHeight, SRCCOPY), 1);
    for (int y = 0; y < height; ++y) {
      const auto row = static_cast<double>(dc.GetPixel(1, y) & 255);
      EXPECT_NEAR(row, (y + 0.5) * kHeight / height, 1.5 + 1.0 * kHeight / height) << height << " " << y;
      EXPECT_EQ(dc.GetPixel(1, y) >> 8, 0x0100u) << "a gap at " << y;
    }
  }
}

TEST(Dibs, ColoursBetweenDepths) {
  CWnd deep(4, 4, 32), high(4, 4, 16), indexed(4, 4, 8);
  CMemoryDIB dib;
  ASSERT_EQ(dib.Create(&deep, 2, 1, 0), 1);
  dib.SetPixel(0, 0, 0x00FF8000ul);
  dib.SetPixel(1, 0, 0x00505050ul);
  CPaintDC highDc(&high), indexedDc(&indexed);
  EXPECT_EQ(dib.BitBlt(&high, &highDc, 1, 1, 2, 1, 0, 0, SRCCOPY), 1);
  EXPECT_EQ(highDc.GetPixel(1, 1), 0x00FF8400ul);
  EXPECT_EQ(dib.BitBlt(&indexed, &indexedDc, 0, 0, 2, 1, 0, 0, SRCCOPY), 1);
  EXPECT_EQ(indexedDc.GetPixel(1, 0), 0x00505050ul) << "the grey of the window's palette";

  // Numbers become colours by the palette that is realised.
  std::vector<PALETTEENTRY> entries(256);
  entries[7] = {10, 20, 30, 0};
  CPalette palette(entries);
  CVmDIB paged(MemoryStore());
  const auto store = MemoryStore();
  ASSERT_EQ(paged.Create(store, &indexed, 3, 3, 0), 1);
  EXPECT_EQ(paged.GetUsageColors(), 1);
  paged.SetPixel(2, 2, 7ul);
  paged.SetColorPalette(&palette);
  CPaintDC deepDc(&deep);
  EXPECT_EQ(paged.BitBlt(&indexed, &deepDc, 0, 0, 3, 3, 0, 0, SRCCOPY), 1);
  EXPECT_EQ(deepDc.GetPixel(2, 2), 0x001E140Aul);
}

TEST(Dibs, RefuseWhatIsNotThere) {
  CWnd window(8, 8, 32);
  CMemoryDIB memory, empty;
  CVmDIB paged(nullptr);
  const auto store = MemoryStore();
  EXPECT_EQ(paged.Create(&window, 5, 5, 0), 0) << "no store";
  EXPECT_TRUE(paged.IsEmpty());
  ASSERT_TRUE(memory.Create(&window, 5, 5, 0) && paged.Create(store, &window, 5, 5, 0));
  CPaintDC dc(&window);
  CDC none;
  EXPECT_EQ(memory.BitBlt(&window, nullptr, 0, 0, 5, 5, 0, 0, SRCCOPY), 0);
  EXPECT_EQ(memory.StretchBlt(&window, &none, 0, 0, 5, 5, 0, 0, 5, 5, SRCCOPY), 0);
  EXPECT_EQ(empty.BitBlt(&window, &dc, 0, 0, 5, 5, 0, 0, SRCCOPY), 0);
  EXPECT_EQ(paged.BitBlt(&window, nullptr, 0, 0, 5, 5, 0, 0, SRCCOPY), 0);
  EXPECT_EQ(paged.BitBlt(&window, &dc, 0, 0, 5, 5, 0, 1, SRCCOPY), 0) << "beyond the bitmap";
  EXPECT_EQ(paged.StretchBlt(&window, &dc, 0, 0, 5, 5, -1, 0, 2, 2, SRCCOPY), 0);
}

TEST(MemoryDib, CopiesFromBothKinds) {
  for (const int bits : {8, 16, 24, 32}) {
    CWnd window(8, 8, bits);
    CMemoryDIB source, target;
    CVmDIB paged(TinyPool());
    const auto store = TinyPool();
    ASSERT_TRUE(source.Create(&window, 21, 67, 0) && paged.Create(store, &window, 21, 67, 0));
    Scribble(source);
    Scribble(paged);
    const auto pixel = [bits](CMemoryDIB& dib, int x, int y) {
      unsigned char* p = dib.GetImageAdr8(0, y) + x * (bits / 8);
      return std::vector<unsigned char>(p, p + bits / 8);
    };
    for (const bool fromPaged : {false, true}) {
      const auto copy = [&](CRect* rect) {
        fromPaged ? target.CopyImage(&paged, rect) : target.CopyImage(&source, rect);
      };
      target.Empty();
      fromPaged ? target = paged : target = source;
      ASSERT_FALSE(target.IsEmpty());
      EXPECT_EQ(target.GetAlign(), source.GetAlign());
      EXPECT_EQ(pixel(target, 20, 66), pixel(source, 20, 66));
      EXPECT_EQ(pixel(target, 0, 0), pixel(source, 0, 0));
      // Into a twin only the rectangle is copied.
      Scribble(target, 2);
      const auto before = pixel(target, 1, 2);
      CRect rect(2, 2, 5, 4);
      copy(&rect);
      EXPECT_EQ(pixel(target, 1, 2), before);
      EXPECT_EQ(pixel(target, 2, 2), pixel(source, 2, 2)) << bits;
      EXPECT_EQ(pixel(target, 4, 3), pixel(source, 4, 3)) << bits;
      EXPECT_NE(pixel(target, 5, 3), pixel(source, 5, 3));
    }
    target.CopyImage(static_cast<CMemoryDIB*>(nullptr), nullptr);
    CMemoryDIB empty;
    target.CopyImage(&empty, nullptr);
    EXPECT_FALSE(target.IsEmpty()) << "an empty source does nothing";
  }
}

TEST(MemoryDib, GoesToGlobalMemoryWithoutItsPalette) {
  CWnd window(8, 8, 8);
  CMemoryDIB dib;
  EXPECT_EQ(dib.CreateHDIB(), nullptr);
  ASSERT_EQ(dib.Create(&window, 5, 2, 0), 1);
  dib.SetPixel(4, 1, 9ul);
  const HGLOBAL block = dib.CreateHDIB();
  ASSERT_EQ(GlobalSize(block), 40u + 2 * 8);
  const auto* bytes = static_cast<unsigned char*>(GlobalLock(block));
  EXPECT_EQ(std::memcmp(bytes, dib.GetHeader(), 40), 0);
  EXPECT_EQ(bytes[40 + 4], 9) << "the last line comes first";
  GlobalFree(block);
}

}  // namespace
