// Images to bitmaps, against display values in double.
#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "korimg/display/CMemoryDIB.h"
#include "korimg/display/CVmDIB.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

int Shown(CVelImage& image, int x, int y, int channel) {
  const int plane = image.GetPlanes() < 3 ? 0 : channel;
  const double v = image.GetPixelGrayRaw(x, y, plane), low = image.GetLevelMin(plane),
               high = image.GetLevelMax(plane);
  if (!(v > low)) return 0;
  return v >= high ? 255 : static_cast<int>((v - low) / (high - low) * 255);
}

/// The pixel of a screen of so many bits, and how far a step of one in each channel may move it.
std::vector<int> Unpacked(CBaseDIB& dib, int x, int y) {
  const bool paged = dib.IsKindOf(CVmDIB::GetThisClass());
  unsigned char* p;
  switch (dib.GetBitCount()) {
    case 8:
      return {*dib.GetImageAdr8(x, y)};
    case 16: {
      std::uint16_t word;
      std::memcpy(&word, dib.GetImageAdr16(x, y), 2);
      return {word >> 10, word >> 5 & 31, word & 31};
    }
    default:
      p = dib.GetBitCount() == 24 ? dib.GetImageAdr24(x, y) : dib.GetImageAdr32(x, y);
      if (dib.GetBitCount() == 24 || paged) return {p[2], p[1], p[0]};
      return {p[2], p[1], p[0], p[3]};
  }
}

std::unique_ptr<CBaseDIB> NewDib(bool paged, const std::shared_ptr<CVmManager>& store, int bits, int width,
                                 int height) {
  CWnd window(1, 1, bits);
  std::unique_ptr<CBaseDIB> dib;
  if (paged) {
    dib = std::make_unique<CVmDIB>(store);
  } else {
    dib = std::make_unique<CMemoryDIB>();
  }
  EXPECT_EQ(dib->Create(&window, width, height, 0), 1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      dib->SetPixel(x, y, 0x00112233ul);
    }
  }
  return dib;
}

bool Agree(int got, int want, int step) {
  return std::abs(got - want) <= step;
}

/// Each channel within one step of the display value; packed forms within what that step can move.
void ExpectShown(CVelImage& image, CBaseDIB& dib, int x, int y, const std::string& name) {
  const std::vector<int> got = Unpacked(dib, x, y);
  const int r = Shown(image, x, y, 0), g = Shown(image, x, y, 1), b = Shown(image, x, y, 2);
  const int want[] = {r, g, b};
  switch (dib.GetBitCount()) {
    case 8:
      if (image.GetPlanes() < 3) {
        ASSERT_TRUE(Agree(got[0], r, 1)) << name;
      } else {
        const int packed = got[0];
        ASSERT_TRUE(Agree(packed >> 6, b >> 6, (b & 63) == 63 || (b & 63) == 0) &&
                    Agree(packed >> 3 & 7, g >> 5, (g & 31) == 31 || (g & 31) == 0) &&
                    Agree(packed & 7, r >> 5, (r & 31) == 31 || (r & 31) == 0))
            << name;
      }
      return;
    case 16:
      for (int c = 0; c < 3; ++c) {
        const int v = std::min(want[c] + ((x + y) % 2 ? 0 : 4), 255);
        ASSERT_TRUE(Agree(got[c], v >> 3, (v & 7) == 7 || (v & 7) == 0)) << name;
      }
      return;
    default:
      for (int c = 0; c < 3; ++c) {
        ASSERT_TRUE(Agree(got[c], want[c], 1)) << name << ": " << got[c] << " for " << want[c];
      }
  }
}

TEST(ToDib, EveryDepthStoreAndRectangle) {
  const auto memory = MemoryStore(), pool = TinyPool();
  for (const auto& [width, height] :
       {std::pair(1, 1), std::pair(3, 2), std::pair(1, 71), std::pair(67, 131)}) {
    const std::vector<OptionalRect> rects = {std::nullopt,
                                             CRect(1, 1, width + 9, height - 1),
                                             CRect(-3, -3, 30, 40),
                                             CRect(width - 1, 0, width + 5, height),
                                             CRect(width + 3, height + 3, width + 9, height + 9),
                                             CRect(5, 5, 2, 2)};
    for (const int planes : {1, 3}) {
      for (const auto& store : {memory, pool}) {
        const auto image = Make(store, width, height, planes, Wild(0, 1000));
        for (const int bits : {8, 16, 24, 32}) {
          for (const auto& [paged, dibStore] :
               {std::pair(false, memory), std::pair(true, memory), std::pair(true, pool)}) {
            for (OptionalRect rect : rects) {
              const auto dib = NewDib(paged, dibStore, bits, width, height);
              const std::vector<int> before = Unpacked(*dib, 0, 0);
              image->ToDIB(dib.get(), Address(rect));
              const std::string name = std::to_string(bits) + " bits, " + std::to_string(planes) + " planes";
              for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                  const bool inside = !rect || (x >= std::min(rect->left, width - 1) && x < rect->right &&
                                                y >= std::min(rect->top, height - 1) && y < rect->bottom);
                  if (inside) {
                    ExpectShown(*image, *dib, x, y, name);
                  } else {
                    ASSERT_EQ(Unpacked(*dib, x, y), before) << name << " " << x << " " << y;
                  }
                }
              }
              if (testing::Test::HasFatalFailure()) return;
            }
          }
        }
      }
    }
  }
}

TEST(ToDib, EndsOfTheLevelsAndNaN) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto image = Make(store, 19, 3, 1, [](int, int x, int) -> double {
      const double values[] = {100, 900, std::nan(""), INFINITY, -INFINITY, 100.5, 899, 500};
      return values[x % 8];
    });
    for (const int bits : {8, 24, 32}) {
      const auto dib = NewDib(false, store, bits, 19, 3);
      image->ToDIB(dib.get(), nullptr);
      const int want[] = {0, 255, 0, 255, 0, 0, 254, 127};
      for (int x = 0; x < 19; ++x) {
        EXPECT_EQ(Unpacked(*dib, x, 1)[0], want[x % 8]) << bits << " " << x;
      }
    }
  }
}

TEST(ToDib, TheFourthByteAndOtherSizes) {
  for (const bool contiguous : {true, false}) {
    const auto image = Make(contiguous ? MemoryStore() : TinyPool(), 9, 4, 3, Random(0, 1000));
    const auto dib = NewDib(false, nullptr, 32, 9, 4), wider = NewDib(false, nullptr, 32, 10, 4);
    dib->GetImageAdr32(4, 2)[3] = 77;
    image->ToDIB(dib.get(), nullptr);
    EXPECT_EQ(dib->GetImageAdr32(4, 2)[3], contiguous ? 0 : 77);
    image->ToDIB(wider.get(), nullptr);
    EXPECT_EQ(Unpacked(*wider, 4, 2), (std::vector<int>{0x33, 0x22, 0x11, 0}));
  }
}

/// A packed bitmap, taken apart.
struct Packed {
  BITMAPINFOHEADER header;
  std::vector<unsigned char> bytes;
  int entries, align;

  explicit Packed(HDIB block) {
    const auto* at = static_cast<unsigned char*>(GlobalLock(block));
    bytes.assign(at, at + GlobalSize(block));
    GlobalFree(block);
    std::memcpy(&header, bytes.data(), sizeof header);
    entries = header.biBitCount == 8 ? 256 : 0;
    align = (header.biWidth * header.biBitCount / 8 + 3) / 4 * 4;
  }
  const unsigned char* Line(int y) const {
    return &bytes[40 + 4 * entries + 1LL * (header.biHeight - 1 - y) * align];
  }
  const unsigned char* Entry(int i) const { return &bytes[40 + 4 * i]; }
};

TEST(GetDib, GreysAndTrueColour) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int width : {1, 2, 4, 31, 203}) {
      for (const auto& [planes, bits] : {std::pair(1, 8), std::pair(1, 24), std::pair(3, 24)}) {
        const auto image = Make(store, width, 37, planes, Wild(0, 1000));
        const Packed dib(image->GetDib(bits));
        ASSERT_EQ(dib.header.biWidth, width);
        ASSERT_EQ(dib.header.biHeight, 37);
        ASSERT_EQ(dib.header.biBitCount, bits);
        ASSERT_EQ(dib.header.biSizeImage, 37u * dib.align);
        ASSERT_EQ(dib.bytes.size(), (bits == 8 ? 1064u : 40u) + 37u * dib.align);
        const int step = bits / 8, slack = planes == 3 ? 1 : 0;
        for (int y = 0; y < 37; ++y) {
          for (int x = 0; x < width; ++x) {
            for (int c = 0; c < step; ++c) {
              ASSERT_NEAR(dib.Line(y)[step * x + c], Shown(*image, x, y, 2 - c), slack)
                  << width << " " << bits;
            }
          }
          for (int i = step * width; i < dib.align; ++i) {
            ASSERT_EQ(dib.Line(y)[i], 0) << "padding";
          }
        }
        for (int i = 0; bits == 8 && i < 256; ++i) {
          ASSERT_EQ(dib.Entry(i)[0] + dib.Entry(i)[1] + dib.Entry(i)[2], 3 * i);
        }
      }
    }
  }
}

TEST(GetDib, PopularColours) {
  // 300 colours with few repeats beyond 256 of them, on a grid of 5 bits, so that entries are exact.
  const auto level = [](int v5) { return (v5 * 8 + 4) / 255.0; };
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto image = Make(store, 300, 8, 3, [&](int p, int x, int y) {
      const int colour = x < 256 || y == 0 ? x : x - 256;  // those from 256 on occur once
      const int v5[] = {colour % 32, colour / 32 * 2, 5};
      return level(v5[p]);
    });
    image->SetLevel(0, 0, 1);
    image->SetLevel(1, 0, 1);
    image->SetLevel(2, 0, 1);
    const Packed dib(image->GetDib(8));
    ASSERT_EQ(dib.bytes.size(), 1064u + 8 * 300);
    std::map<int, int> seen;
    for (int x = 0; x < 300; ++x) {
      for (int y = 0; y < 8; ++y) {
        const unsigned char* entry = dib.Entry(dib.Line(y)[x]);
        const bool popular = x < 256 || y > 0;
        for (int c = 0; c < 3; ++c) {
          const int want = Shown(*image, x, y, c) >> 3;
          ASSERT_NEAR(entry[2 - c] >> 3, want, popular ? 0 : 4) << x << " " << y << " " << c;
        }
        ++seen[dib.Line(y)[x]];
      }
    }
    EXPECT_EQ(seen.size(), 256u);
    // Entry 0 belongs to the most frequent colours, of which the lowest bin comes first.
    EXPECT_EQ(dib.Entry(0)[0] >> 3, 5);
    EXPECT_EQ(dib.Entry(0)[1], 0);
    EXPECT_EQ(dib.Entry(0)[2], 0);
  }
}

TEST(GetDib, OtherDepthsAndEmptyImages) {
  const auto image = Make(MemoryStore(), 3, 3, 1, Random(0, 1000));
  for (const int bits : {0, 1, 4, 16, 32}) {
    EXPECT_EQ(image->GetDib(bits), nullptr);
  }
  EXPECT_EQ(CVelImage().GetDib(24), nullptr);
}

TEST(GetDib, ComesBackThroughAttach) {
  const auto store = MemoryStore();
  const auto image = Make(store, 13, 7, 3, Random(0, 1000));
  for (const int bits : {8, 24}) {
    const HDIB dib = image->GetDib(bits);
    CVelImage back;
    ASSERT_EQ(back.AttachDIB(store, dib), 1);
    GlobalFree(dib);
    const double slack = bits == 8 ? 8 : 1;  // 91 colours of 5 bits fit into the palette
    EXPECT_EQ(Difference(
                  back,
                  [&](int p, int x, int y) {
                    return std::abs(back.GetPixelGrayRaw(x, y, p) - Shown(*image, x, y, p)) <= slack
                               ? back.GetPixelGrayRaw(x, y, p)
                               : -1;
                  },
                  0),
              "");
  }
}

}  // namespace
