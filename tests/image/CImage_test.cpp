#include <cstring>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

TEST(CImage, PixelTypes) {
  for (const auto& [bits, bytes] : {std::pair(8, 1), {16, 2}, {32, 4}, {-32, 4}, {-64, 8}, {0, 0}, {64, 0}}) {
    EXPECT_EQ(CImage::GetBytesPixel(bits), bytes) << bits;
  }
  const unsigned char ones[8] = {255, 255, 255, 255, 255, 255, 255, 255};
  const auto store = MemoryStore();
  const auto decode = [&](CImage::DataType type, bool isSigned) {
    return CImage(store, type, 1, 1, 1, 2.0, 5.0, isSigned, nullptr).GetPixel(ones);
  };
  EXPECT_EQ(decode(CImage::UInt8, false), 255 * 2 + 5);
  EXPECT_EQ(decode(CImage::Int16, false), 65535 * 2 + 5);
  EXPECT_EQ(decode(CImage::Int32, true), -1 * 2 + 5);
  EXPECT_EQ(decode(CImage::Int32, false), 4294967295.0 * 2 + 5);
}

TEST(CImage, EmptyImage) {
  CImage image;
  EXPECT_TRUE(image.IsEmpty());
  EXPECT_TRUE(image.IsOnMemory());
  EXPECT_EQ(image.VmManager(), nullptr);
  EXPECT_EQ(image.GetBlockShape(), std::tuple(0, 0));
  EXPECT_EQ(image.GetBlockCount(), 0);
  EXPECT_EQ(image.GetLinesPerBlock(), 0);
  EXPECT_FALSE(image.Fill(0, 1));
}

TEST(CImage, PlanesDecideTheDimension) {
  CImage image;
  for (const auto& [planes, dimension] : {std::pair(1, 2), {2, 3}, {3, 3}}) {
    image.SetPlanes(planes);
    EXPECT_EQ(image.GetDimension(), dimension);
    EXPECT_EQ(image.IsColor(), dimension > 2);
    EXPECT_EQ(image.GetLevelRange(planes - 1), 1) << "no level range is ever 0 by itself";
  }
}

TEST(CImage, LevelsKeepTheirRange) {
  const auto image = Make(MemoryStore(), 2, 2, 3, Random(0, 1));
  EXPECT_TRUE(image->CImage::SetLevelMin(1, 10));
  EXPECT_TRUE(image->CImage::SetLevelMax(1, 30));
  EXPECT_EQ(image->GetLevelRange(1), 20);
  for (const int plane : {-1, 3}) {
    EXPECT_FALSE(image->CImage::SetLevel(plane, 0, 1));
    EXPECT_FALSE(image->CImage::SetLevelMin(plane, 0));
  }
}

TEST(CImage, ChangePlanesKeepsThePixelsItCan) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 71, 33, 1, Random(0, 1));
    const PixelRule expected = [](int p, int x, int y) {
      return p ? 0 : static_cast<float>(Random(0, 1)(p, x, y));
    };
    ASSERT_TRUE(image->ChangePlanes(3, nullptr));
    EXPECT_EQ(Difference(*image, expected, 0), "");
    EXPECT_EQ(image->GetLevelMax(2), 900) << "new planes get plane 0's levels";
    ASSERT_TRUE(image->ChangePlanes(1, nullptr));
    EXPECT_EQ(Difference(*image, expected, 0), "");
  }
}

TEST(CImage, NewPixelsAreZeroInMemoryUsedBefore) {
  for (const StoreCase& store : Stores()) {
    const auto manager = store.make();
    const auto dirty = [&] { Make(manager, 40, 30, 3, [](int, int, int) { return 7; }); };
    const auto zero = [](int, int, int) { return 0.0; };
    dirty();
    CVelImage made(manager, CImage::Float, 40, 30, 3, 1.0, 0.0, 1, nullptr);
    EXPECT_EQ(Difference(made, zero, 0), "") << store.name;
    CVelImage resized(manager, CImage::Float, 4, 3, 3, 1.0, 0.0, 1, nullptr);
    dirty();
    ASSERT_TRUE(resized.ChangeSize(40, 30, nullptr));
    EXPECT_EQ(Difference(resized, zero, 0), "") << store.name;
    CVelImage grown(manager, CImage::Float, 40, 30, 1, 1.0, 0.0, 1, nullptr);
    dirty();
    ASSERT_TRUE(grown.ChangePlanes(3, nullptr));
    EXPECT_EQ(Difference(grown, zero, 0), "") << store.name;
  }
}

TEST(CVelImage, IsCreatedWithZerosBeforeScaleAndOffset) {
  for (const StoreCase& store : Stores()) {
    const auto manager = store.make();
    const CVelImage shape(manager, CImage::Float, 33, 21, 3, 2.0, 7.0, 1, nullptr);
    CVelImage image;
    for (int i = 0; i < 2; ++i) {  // in fresh memory, and in what it holds already
      ASSERT_TRUE(image.Create(shape, nullptr));
      EXPECT_EQ(Difference(
                    image, [](int, int, int) { return 0; }, 0),
                "")
          << store.name;
      EXPECT_EQ(static_cast<CImage&>(image).GetPixel(5, 6, 1), 7);
      Paint(image, Random(1, 2));
    }
  }
}

TEST(CImage, ChangeBitsConvertsAndLimits) {
  for (const StoreCase& store : Stores()) {
    const auto manager = store.make();
    CImage image(manager, CImage::Float, 4, 1, 1, 2.0, 10.0, true, nullptr);
    const float stored[] = {-100, 0.2f, 1e10f, std::nanf("")};
    std::memcpy(image.GetVmImage()->GetImageAdr(0, 0, 0, false, false, nullptr), stored, sizeof stored);
    image.SetLevel(0, 1, 2);
    ASSERT_TRUE(image.ChangeBits(CImage::UInt8, false, CImage::ScaleLevel, nullptr));
    const double expected[] = {0, 10, 255, 0};  // 0.2 x 2 + 10 is rounded
    for (int x = 0; x < 4; ++x) {
      EXPECT_EQ(image.GetPixel(x, 0, 0), expected[x]) << store.name << " " << x;
    }
    EXPECT_EQ(image.GetLevelMin(0), 12);
    EXPECT_EQ(image.GetLevelMax(0), 14);
    ASSERT_TRUE(image.ChangeBits(CImage::Double, true, CImage::KeepLevel, nullptr));
    EXPECT_EQ(image.GetPixel(2, 0, 0), 255);
  }
}

TEST(CImage, MeasuresPassOverNaN) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      const PixelRule rule = [](int p, int x, int y) {
        return (x + y) % 5 == 1 ? std::nan("") : Random(-50, 50)(p, x, y);
      };
      const auto image = Make(store.make(), width, height, 2, rule);
      double min = INFINITY, max = -INFINITY, sum = 0;
      int count = 0;
      for (const float v :
           Pixels(*Make(MemoryStore(), width, height, 1, [&](int, int x, int y) { return rule(1, x, y); }))) {
        if (std::isnan(v)) continue;
        min = std::min<double>(min, v), max = std::max<double>(max, v), sum += v, ++count;
      }
      const auto [low, high, average] = image->GetMinMaxAvr(1);
      EXPECT_EQ(low, min);
      EXPECT_EQ(high, max);
      EXPECT_NEAR(average, sum / count, 1e-9);
    }
    const auto blank = Make(store.make(), 5, 5, 1, [](int, int, int) { return std::nan(""); });
    EXPECT_EQ(blank->GetMinMaxAvr(0), std::tuple(0, 0, 0));
  }
}

TEST(CImage, MeasuresArePhysicalAndTheSameForAnyTeam) {
  const auto store = MemoryStore();
  CImage image(store, CImage::Float, 100, 100, 1, 2.0, 10.0, true, nullptr);
  image.Fill(0, 30);
  EXPECT_EQ(image.GetMinMax(0), std::tuple(30, 30));
  EXPECT_EQ(image.GetMinMaxMode(0, 100, 0), std::tuple(30, 30, 30));

  const auto noise = Make(store, 997, 313, 1, [](int, int x, int y) {
    return x % 3 ? 40 + Noise(x + 997 * y) : 100 * Noise(x * y + 1);  // most pixels lie from 40 to 41
  });
  const auto [min, max, mode] = noise->GetMinMaxMode(0, 100, 0);
  EXPECT_NEAR(mode, 40.5, 1);
  const WithThreads one(1);
  const auto alone = noise->GetMinMaxAvr(0);
  const WithThreads many(7);
  EXPECT_EQ(noise->GetMinMaxAvr(0), alone);
}

TEST(CImage, SampleGrid) {
  CImage image;
  int x = 0, y = 0;
  EXPECT_FALSE(image.GetHistogramCull(&x, &y));
  image.GetHistogramCullXRef() = {1, 2, 3};
  EXPECT_FALSE(image.IsHistogramCullParam());
  image.GetHistogramCullYRef() = {4, 5};
  EXPECT_TRUE(image.GetHistogramCull(&x, &y));
  EXPECT_EQ(std::pair(x, y), std::pair(3, 2));
  EXPECT_FALSE(image.GetHistogramCull(nullptr, &y));
}

TEST(CImage, CopiesBringTheWholeRecord) {
  const auto src = Make(MemoryStore(), 9, 7, 3, Random(0, 1));
  src->SetOwnLevel(true);
  src->SetOrgFileName(L"ß 星.fits");
  src->SetOrgBitsPixel(CImage::Gray16);
  src->SetBayerImage(true);
  src->GetHeader()->SetCameraModel(L"camera");
  src->GetHeader()->SetExposureTime(0.004);
  src->GetHeader()->SetExposureShutterSpeed(L"1/250");
  src->GetHistogramCullXRef() = {1};
  const auto check = [](CImage& image) {
    EXPECT_TRUE(image.HasOwnLevel() && image.IsBayerImage() && !image.IsCcd());
    EXPECT_EQ(image.GetOrgFileName(), L"ß 星.fits");
    EXPECT_EQ(image.GetOrgBitsPixel(), CImage::Gray16);
    EXPECT_EQ(image.GetLevelMax(2), 950);
    EXPECT_EQ(image.GetHistogramCullXRef().size(), 1u);
    CString speed;
    EXPECT_TRUE(image.GetHeader()->GetExposureShutterSpeed(speed));
    EXPECT_STREQ(speed, L"1/250");
    EXPECT_EQ(image.GetWidth(), 9);
  };
  check(*src->CImage::Clone(nullptr));
  check(*src->CImage::CloneWithoutImage(nullptr));
  CVelImage created, copied;
  ASSERT_TRUE(created.Create(*src, nullptr));
  check(created);
  EXPECT_EQ(Difference(
                created, [](int, int, int) { return 0; }, 0),
            "");
  ASSERT_EQ(copied.CopyImage(*src, nullptr, nullptr), 1);
  check(copied);
  EXPECT_EQ(Difference(copied, *src), "");
  copied.Swap(&created);
  check(created);
  EXPECT_EQ(Difference(created, *src), "");
  CVelImage& same = created;
  created = same;
  EXPECT_EQ(Difference(created, *src), "") << "an image assigned to itself is left alone";
}

/// A packed bitmap: header, palette and bottom-up lines.
HDIB Bitmap(int width, int height, int bits, const std::vector<unsigned char>& palette,
            const std::vector<unsigned char>& lines) {
  BITMAPINFOHEADER header;
  header.biWidth = width;
  header.biHeight = height;
  header.biBitCount = static_cast<std::uint16_t>(bits);
  header.biClrUsed = static_cast<std::uint32_t>(palette.size() / 4);
  const HDIB dib = GlobalAlloc(GHND, sizeof header + palette.size() + lines.size());
  auto* at = static_cast<unsigned char*>(GlobalLock(dib));
  std::memcpy(at, &header, sizeof header);
  std::copy(palette.begin(), palette.end(), at + sizeof header);
  std::copy(lines.begin(), lines.end(), at + sizeof header + palette.size());
  return dib;
}

TEST(CImage, AttachesBitmaps) {
  const std::vector<unsigned char> grey = {0, 0, 0, 0, 255, 255, 255, 0},
                                   redBlue = {0, 0, 200, 0, 100, 0, 0, 0};
  struct Case {
    const char* name;
    HDIB dib;
    int planes;
    std::vector<float> pixels;  // plane by plane, top line first
  };
  const std::vector<Case> cases = {
      {"1 bit", Bitmap(2, 2, 1, grey, {0x80, 0, 0, 0, 0x40, 0, 0, 0}), 1, {0, 255, 255, 0}},
      {"1 bit, top down", Bitmap(2, -2, 1, grey, {0x80, 0, 0, 0, 0x40, 0, 0, 0}), 1, {255, 0, 0, 255}},
      {"4 bits in colour", Bitmap(2, 1, 4, redBlue, {0x10, 0, 0, 0}), 3, {0, 200, 0, 0, 100, 0}},
      {"8 bits", Bitmap(2, 1, 8, grey, {1, 0, 0, 0}), 1, {255, 0}},
      {"24 bits", Bitmap(1, 2, 24, {}, {1, 2, 3, 0, 4, 5, 6, 0}), 3, {6, 3, 5, 2, 4, 1}},
      {"32 bits", Bitmap(1, 1, 32, {}, {1, 2, 3, 9}), 3, {3, 2, 1}},
  };
  const auto store = TinyPool();
  for (const Case& c : cases) {
    CVelImage image;
    ASSERT_EQ(image.AttachDIB(store, c.dib), 1) << c.name;
    EXPECT_EQ(image.GetPlanes(), c.planes) << c.name;
    EXPECT_EQ(Pixels(image), c.pixels) << c.name;
    EXPECT_EQ(image.GetLevelRange(0), 255);
    EXPECT_EQ(image.GetBits(), CImage::Float);
    GlobalFree(c.dib);
  }
}

TEST(CImage, RefusesBitmapsThatAreBroken) {
  const HDIB shortened = Bitmap(100, 100, 24, {}, {1, 2, 3, 0}), odd = Bitmap(1, 1, 16, {}, {0, 0, 0, 0}),
             flat = Bitmap(0, 1, 24, {}, {}),
             palette = Bitmap(1, 1, 8, std::vector<unsigned char>(4 * 300), {0, 0, 0, 0}),
             tiny = GlobalAlloc(GHND, 3), lowest = Bitmap(1, -2147483647 - 1, 24, {}, {0, 0, 0, 0});
  for (const HDIB dib : {shortened, odd, flat, palette, tiny, lowest, HDIB()}) {
    CVelImage image;
    EXPECT_EQ(image.AttachDIB(MemoryStore(), dib), 0);
    EXPECT_TRUE(image.IsEmpty());
    GlobalFree(dib);
  }
}

}  // namespace
