// Selections, masks, and what they leave of an operation's result.
#include <gtest/gtest.h>

#include "korimg/image/CImageMask.h"
#include "korimg/image/CImageSelection.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kWidth = 37, kHeight = 29;

/// A selection that is a disc, with a whole line and an empty one.
CImageSelection Disc() {
  CImageSelection selection;
  selection.SetHeight(kHeight);
  for (int y = 0; y < kHeight; ++y) {
    const int half = static_cast<int>(std::sqrt(std::max(0, 144 - (y - 14) * (y - 14))));
    selection.SetInOut(y, 20 - half, 20 + half);
  }
  selection.SetAllLine(3, 1);
  selection.SetAllLine(4, 0);
  return selection;
}

bool InDisc(int x, int y) {
  if (y == 3 || y == 4) return y == 3;
  const int square = 144 - (y - 14) * (y - 14);
  return std::abs(x - 20) <= static_cast<int>(std::sqrt(std::max(0, square)));
}

struct Case {
  const char* name;
  bool selects, reverseSelection, masks, reverseMask, window, selectionMask;
};

TEST(ApplyMask, AllRoutesTakeBackWhatIsNotMeant) {
  const Case cases[] = {
      {"selection", true, false, false, false, false, false},
      {"selection reversed, in a window", true, true, false, false, true, false},
      {"mask", false, false, true, false, false, false},
      {"mask reversed", false, false, true, true, false, false},
      {"mask in a window", false, false, true, false, true, false},
      {"both", true, false, true, false, false, false},
      {"both reversed, in a window", true, true, true, true, true, false},
      {"a mask that stands for the selection", true, false, true, false, false, true},
  };
  for (const Case& c : cases) {
    for (const int otherPlanes : {1, 3}) {
      OnEveryPath([&](const StoreCase& store) {
        const auto image = Make(store.make(), kWidth, kHeight, 3, Random(100, 900));
        const auto before = Make(store.make(), kWidth, kHeight, 3, Random(100, 900));
        const auto other = Make(store.make(), kWidth, kHeight, otherPlanes, Random(100, 900, 2));
        const auto shares = Make(store.make(), kWidth, kHeight, 3, Random(-100, 1100, 3));
        shares->SetPixelGrayRaw(5, 5, NAN, 0);
        CImageSelection selection = Disc();
        selection.SetReverse(c.reverseSelection);
        const CString file = c.selectionMask ? L"" : L"mask.fits";
        CImageMask mask(c.masks ? shares.get() : nullptr, 0, 0, c.reverseMask, file, 0);
        CRect window(4, 2, 30, 25);
        image->ApplyMask(c.window ? &window : nullptr, c.selects ? &selection : nullptr, other.get(), &mask,
                         0);
        const bool zeros = c.masks && !c.selects && store.name != "paged";
        const auto expected = [&](int p, int x, int y) -> double {
          const double t = before->GetPixelGrayRaw(x, y, p);
          const double o = other->GetPixelGrayRaw(x, y, std::min(p, otherPlanes - 1));
          if (c.window && (x < 4 || x >= 30 || y < 2 || y >= 25)) return zeros ? 0 : t;
          if (c.selects && !c.selectionMask && InDisc(x, y) == c.reverseSelection) return o;
          if (!c.masks) return t;
          const double v = (shares->GetPixelGrayRaw(x, y, 0) - 100) / 800.0;
          const double m = v > 0 ? std::min(v, 1.0) : 0;
          return c.reverseMask ? o * m + t * (1 - m) : t * m + o * (1 - m);
        };
        ASSERT_EQ(Difference(*image, expected, 1e-5), "")
            << c.name << ' ' << store.name << ' ' << otherPlanes;
      });
    }
  }
}

TEST(ApplyMask, AWindowAsWideAsAWideImageBlendsAllItsRows) {
  const auto image = Make(MemoryStore(), kWidth, kHeight, 1, Random(100, 900));
  const auto other = Make(MemoryStore(), kWidth, kHeight, 1, Random(100, 900, 2));
  const auto shares = Make(MemoryStore(), kWidth, kHeight, 1, [](int, int, int) { return 100; });
  CImageMask mask(shares.get(), 1, 0, 0, L"", 0);
  CRect rows(0, 0, kWidth, 3);
  image->ApplyMask(&rows, nullptr, other.get(), &mask, 0);
  EXPECT_EQ(Difference(*image, *other), "");
  // Of an image higher than wide the same rows are a window, and what is beyond them becomes 0.
  const auto high = Make(MemoryStore(), kHeight, kWidth, 1, Random(100, 900)),
             otherHigh = Make(MemoryStore(), kHeight, kWidth, 1, Random(100, 900, 2)),
             sharesHigh = Make(MemoryStore(), kHeight, kWidth, 1, [](int, int, int) { return 100; });
  CImageMask highMask(sharesHigh.get(), 1, 0, 0, L"", 0);
  CRect top(0, 0, kHeight, 3);
  high->ApplyMask(&top, nullptr, otherHigh.get(), &highMask, 0);
  EXPECT_EQ(Difference(
                *high, [&](int, int x, int y) { return y < 3 ? otherHigh->GetPixelGrayRaw(x, y, 0) : 0; }, 0),
            "");
}

TEST(ApplyMask, NothingHappensWithoutSomethingToDo) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), kWidth, kHeight, 1, Wild(100, 900));
    const auto before = Make(store.make(), kWidth, kHeight, 1, Wild(100, 900));
    const auto other = Make(store.make(), kWidth, kHeight, 1, Random(100, 900, 2));
    const auto small = Make(store.make(), kWidth, kHeight - 1, 1, Random(100, 900, 2));
    const auto flat = Make(store.make(), kWidth, kHeight, 1, Random(100, 900, 3));
    flat->SetLevel(0, 500, 500);
    CImageSelection none, disc = Disc();
    none.SetHeight(kHeight);
    CImageMask noMask, degenerate(flat.get(), 0, 1, 0, L"mask.fits", 0),
        misfit(small.get(), 0, 1, 0, L"mask.fits", 0);
    CRect part(2, 2, 9, 9), outside(50, 50, 60, 60);
    image->ApplyMask(nullptr, &disc, nullptr, nullptr, 0);
    image->ApplyMask(nullptr, &none, other.get(), &noMask, 0);
    image->ApplyMask(&part, nullptr, other.get(), &degenerate, 0);
    image->ApplyMask(nullptr, &disc, other.get(), &degenerate, 0);
    image->ApplyMask(nullptr, &disc, small.get(), nullptr, 0);
    image->ApplyMask(nullptr, nullptr, other.get(), &misfit, 0);
    image->ApplyMask(&outside, &disc, other.get(), nullptr, 0);
    EXPECT_EQ(Difference(*image, *before), "") << store.name;
  }
}

TEST(CImageSelection, LinesAndTheirLimits) {
  CImageSelection s;
  EXPECT_TRUE(s.IsAllSelection() && s.IsNoSelection());
  EXPECT_FALSE(s.SetInOut(0, 1, 2));
  EXPECT_FALSE(s.GetBool(0, 0));
  s.SetHeight(3);
  EXPECT_TRUE(s.IsAllSelection() && s.IsNoSelection());
  EXPECT_TRUE(s.GetBool(2, 1000));
  EXPECT_FALSE(s.GetBool(3, 0));  // the spare line
  EXPECT_FALSE(s.GetBool(4, 0));
  EXPECT_FALSE(s.GetBool(-1, 0));
  EXPECT_FALSE(s.SetInOut(-1, 0, 1));
  EXPECT_FALSE(s.SetAllLine(4, 1));
  EXPECT_TRUE(s.SetInOut(1, 5, 7));
  EXPECT_FALSE(s.IsAllSelection() || s.IsNoSelection());
  EXPECT_TRUE(s.SetInOut(2, -1, 7));
  CImageSelection copy;
  copy = s;
  s.SetAllLine(1, 0);
  for (int x = 0; x < 10; ++x) {
    EXPECT_EQ(copy.GetBool(1, x), x >= 5 && x <= 7);
    EXPECT_EQ(copy.GetAlpha(2, x), 1.0f);
    EXPECT_FALSE(s.GetBool(1, x));
  }
  for (const auto& [in, out] : {std::pair(5, 7), {-2, 0}, {-1, 0}, {0, 100}, {7, 5}, {8, 9}, {-7, 3}}) {
    s.SetInOut(0, in, out);
    const auto [first, end] = s.GetRange(0, 9);
    for (int x = 0; x < 9; ++x) {
      EXPECT_EQ(s.GetBool(0, x), x >= first && x < end) << in << ' ' << out << ' ' << x;
    }
  }
  s.SetAllSelection();
  EXPECT_TRUE(s.IsAllSelection() && s.IsNoSelection());
  EXPECT_FALSE(s.GetBool(0, 0));
  s.SetHeight(0);
  EXPECT_FALSE(s.GetBool(0, 0));
}

}  // namespace
