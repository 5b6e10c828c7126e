#include "korimg/display/CImgDrawText.h"

#include <algorithm>
#include <numeric>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

LOGFONTW Font(int height, int width = 0) {
  LOGFONTW font;
  font.lfHeight = height;
  font.lfWidth = width;
  const std::wstring face = L"VL Gothic";
  std::copy(face.begin(), face.end(), font.lfFaceName);
  return font;
}

std::shared_ptr<CVelImage> Mask(const CString& text, const LOGFONTW& font, int smooth) {
  static const auto store = MemoryStore();
  return CImgDrawText::MakeMask(store, text, font, smooth);
}

double Coverage(CVelImage& mask) {
  const std::vector<float> pixels = Pixels(mask);
  return std::accumulate(pixels.begin(), pixels.end(), 0.0) / static_cast<double>(pixels.size());
}

TEST(CImgDrawText, TheBoxFollowsFontAndText) {
  const auto once = Mask(L"M31", Font(24), 0), twice = Mask(L"M31M31", Font(24), 0),
             large = Mask(L"M31", Font(48), 0), square = Mask(L"M31", Font(-24), 0),
             wide = Mask(L"M31", Font(24, 30), 0);
  EXPECT_NEAR(once->GetHeight(), 24, 1) << "the height of a line";
  EXPECT_NEAR(large->GetHeight(), 48, 1);
  EXPECT_GT(square->GetHeight(), once->GetHeight()) << "the letters' square is smaller than the line";
  EXPECT_NEAR(twice->GetWidth(), 2 * once->GetWidth(), 2);
  EXPECT_NEAR(large->GetWidth(), 2 * once->GetWidth(), 3);
  EXPECT_GT(wide->GetWidth(), 2 * once->GetWidth());
  EXPECT_EQ(wide->GetHeight(), once->GetHeight());
  EXPECT_EQ(Mask(L"", Font(24), 0), nullptr);
  EXPECT_EQ(Mask(L"M31", Font(40000), 0), nullptr);
}

TEST(CImgDrawText, LettersCoverAPart) {
  for (const wchar_t* text : {L"M31", L"アンドロメダ銀河"}) {
    const auto mask = Mask(text, Font(32), 0);
    ASSERT_NE(mask, nullptr);
    EXPECT_EQ(mask->GetLevelMin(0), 0);
    EXPECT_EQ(mask->GetLevelMax(0), 1);
    for (const float v : Pixels(*mask)) {
      ASSERT_TRUE(v == 0 || v == 1) << v;
    }
    EXPECT_GT(Coverage(*mask), 0.05);
    EXPECT_LT(Coverage(*mask), 0.5);
  }
  // The letter stands where letters stand: an I is one upright bar.
  const auto bar = Mask(L"l", Font(64), 0);
  int rows = 0;
  for (int y = 0; y < bar->GetHeight(); ++y) {
    const float* line = bar->GetLine(0, y, 0);
    rows += std::any_of(line, line + bar->GetWidth(), [](float v) { return v > 0; });
  }
  EXPECT_GT(rows, 30);
  EXPECT_LT(rows, 60);
}

TEST(CImgDrawText, LooksOfTheFont) {
  const double plain = Coverage(*Mask(L"Messier", Font(32), 0));
  LOGFONTW bold = Font(32), underlined = Font(32), struck = Font(32);
  bold.lfWeight = 700;
  underlined.lfUnderline = 1;
  struck.lfStrikeOut = 1;
  EXPECT_GT(Coverage(*Mask(L"Messier", bold, 0)), 1.1 * plain);
  EXPECT_GT(Coverage(*Mask(L"Messier", underlined, 0)), plain + 0.02);
  EXPECT_GT(Coverage(*Mask(L"Messier", struck, 0)), plain + 0.01);
}

TEST(CImgDrawText, SmoothIsTheMeanOfTwiceTheSize) {
  const auto plain = Mask(L"NGC 7000", Font(32), 0), smooth = Mask(L"NGC 7000", Font(32), 1),
             large = Mask(L"NGC 7000", Font(64), 0);
  EXPECT_NEAR(smooth->GetWidth(), plain->GetWidth(), 3);
  EXPECT_NEAR(smooth->GetHeight(), plain->GetHeight(), 1);
  EXPECT_NEAR(Coverage(*smooth), Coverage(*plain), 0.04);
  const auto mean = [&](int, int x, int y) -> double {
    double sum = 0;
    for (int i = 0; i < 4; ++i) {
      sum += large->GetPixelGrayRaw(2 * x + i % 2, 2 * y + i / 2, 0);
    }
    return sum / 4;
  };
  EXPECT_EQ(Difference(*smooth, mean, 0), "");
}

TEST(CImgDrawText, LayersAreMasksInAColour) {
  constexpr unsigned long kColour = 0x0000C864;  // red 100, green 200, blue 0
  const auto mask = Mask(L"M42", Font(20), 1);
  const double shares[] = {100 / 255.0, 200 / 255.0, 0};
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto mono = Make(store, 3, 3, 1, Random(0, 1)), colour = Make(store, 3, 3, 3, Random(0, 1));
    const auto grey = CImgDrawText::MakeLayer(*mask, *mono, kColour),
               rgb = CImgDrawText::MakeLayer(*mask, *colour, kColour);
    ASSERT_EQ(grey->GetPlanes(), 1);
    ASSERT_EQ(rgb->GetPlanes(), 3);
    EXPECT_EQ(rgb->GetLevelMax(2), 1);
    EXPECT_EQ(
        Difference(
            *grey, [&](int, int x, int y) { return mask->GetPixelGrayRaw(x, y, 0) * 100 / 255.0; }, 1e-6),
        "");
    EXPECT_EQ(
        Difference(
            *rgb, [&](int p, int x, int y) { return mask->GetPixelGrayRaw(x, y, 0) * shares[p]; }, 1e-6),
        "");
  }
}

TEST(CImgDrawText, TextIsLaidOverItsBoxOnly) {
  constexpr unsigned long kColour = 0x0000C864;
  const double shares[] = {100 / 255.0, 200 / 255.0, 0};
  LOGFONTW font = Font(20);
  const auto mask = Mask(L"M42", font, 1);
  const PixelRule before = Random(50, 950);
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int planes : {1, 3}) {
      for (const CPoint at : {CPoint(11, 7), CPoint(-9, -5), CPoint(70, 35)}) {
        const auto image = Make(store, 90, 45, planes, before);
        CImgDrawText text;
        ASSERT_EQ(text.Do(image.get(), at, L"M42", &font, kColour, 1), 1);
        const auto expected = [&](int p, int x, int y) -> double {
          const int mx = x - at.x, my = y - at.y;
          if (mx < 0 || my < 0 || mx >= mask->GetWidth() || my >= mask->GetHeight())
            return static_cast<float>(before(p, x, y));
          const double share = planes == 1 ? 100 / 255.0 : shares[p];
          const double text = mask->GetPixelGrayRaw(mx, my, 0) * share * 255;
          return image->ToRaw(0.05 * image->To256(before(p, x, y), p) + 0.95 * text, p);
        };
        EXPECT_EQ(Difference(*image, expected, 1e-5), "") << planes << " at " << at.x;
      }
      const auto image = Make(store, 90, 45, planes, before);
      CImgDrawText text;
      EXPECT_EQ(text.Do(image.get(), CPoint(90, 0), L"M42", &font, kColour, 1), 0) << "beyond the image";
      EXPECT_EQ(text.Do(image.get(), CPoint(0, 0), L"", &font, kColour, 1), 0);
      EXPECT_EQ(Difference(*image, before, 1e-7), "");
    }
  }
}

}  // namespace
