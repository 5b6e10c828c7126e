#include <array>
#include <numeric>

#include <gtest/gtest.h>

#include "korimg/image/CVelImage.h"
#include "korimg/platform/Messages.h"
#include "korimg/platform/StringTable.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// The members that only operations see.
struct Measured : CVelImage {
  using CVelImage::GetHeightOfHistogram;
  using CVelImage::HstAntialias;
};

bool IsPaged(const StoreCase& store) {
  return store.name == "paged";
}

struct Bounds {
  int left, top, right, bottom;
  Bounds(const OptionalRect& rect, int width, int height)
      : left(rect ? std::max(rect->left, 0) : 0),
        top(rect ? std::max(rect->top, 0) : 0),
        right(rect ? std::min(rect->right, width) : width),
        bottom(rect ? std::min(rect->bottom, height) : height) {}
};

/// All values of a window, rows after each other. Plane -1: brightness on the 256 scale.
std::vector<double> Values(CVelImage& image, const OptionalRect& rect, int plane) {
  const Bounds b(rect, image.GetWidth(), image.GetHeight());
  std::vector<double> values;
  for (int y = b.top; y < b.bottom; ++y) {
    for (int x = b.left; x < b.right; ++x) {
      const auto raw = [&](int p) -> double { return image.GetPixelGrayRaw(x, y, p); };
      const auto to256 = [&](int p) {
        return (raw(p) - image.GetLevelMin(p)) / image.GetLevelRange(p) * 255;
      };
      values.push_back(plane >= 0 ? raw(plane) : 0.299 * to256(0) + 0.587 * to256(1) + 0.114 * to256(2));
    }
  }
  return values;
}

/// Counts numbers without dither. Contiguous stores pile up what lies beyond the ends, paged ones leave it
/// out.
std::vector<int> Counted(const std::vector<double>& values, int bins, double min, double max, bool pilesUp) {
  std::vector<int> hist(bins);
  const double scale = (pilesUp ? std::max(bins, 2) - 1 : bins) / (max - min);
  for (const double v : values) {
    if (std::isnan(v) || (!pilesUp && !(v >= min && v <= max))) continue;
    const double position = (v - min) * scale;
    ++hist[position > 0 ? static_cast<int>(std::min<double>(position, bins - 1)) : 0];
  }
  return hist;
}

/// Random numbers in steps of 1 / 8 with something beyond each end and the odd numbers: exact in every
/// arithmetic, and half a step away from the bins' ends.
PixelRule Eighths() {
  return [wild = Wild(-2, 12)](int p, int x, int y) {
    const double v = wild(p, x, y);
    return std::isfinite(v) ? std::floor(v * 8) / 8 + 1.0 / 16 : v;
  };
}

TEST(GetHistogram, CountsTheWindowByTheRuleOfItsStore) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      const auto image = Make(store.make(), width, height, 3, Eighths());
      for (OptionalRect rect : Windows(width, height)) {
        // 81 or 80 bins over 10 units: 8 for each unit on the pipelines and on the loops.
        const int bins = IsPaged(store) ? 80 : 81;
        std::vector<int> hist(bins, -1);
        const int height1 = image->GetHistogram(hist.data(), bins, 0, 10, 2, 0, 1, 0, Address(rect), 0, 0);
        const auto expected = Counted(Values(*image, rect, 2), bins, 0, 10, !IsPaged(store));
        ASSERT_EQ(hist, expected) << store.name << " " << width << "x" << height;
        ASSERT_EQ(height1, *std::max_element(expected.begin(), expected.end()));
        ASSERT_EQ(image->GetHistogram(hist.data(), bins, 0, 10, 2, 0, 0, 0, Address(rect), 0, 0),
                  static_cast<int>(2.0 * width * height / bins));
      }
    }
  });
}

TEST(GetHistogram, BlankPixelsHaveNoBin) {
  OnEveryPath([](const StoreCase& store) {
    const auto image = Make(store.make(), 61, 23, 3, Random(100, 1000));
    for (int i = 0; i < 90; ++i) {
      image->SetPixelGrayRaw(i * 7 % 61, i % 23, NAN, i % 3);
    }
    for (const int plane : {-1, 0, 1, 2}) {
      int blank = 0;
      for (int i = 0; i < 61 * 23; ++i) {
        const auto is = [&](int p) { return std::isnan(image->GetPixelGrayRaw(i % 61, i / 61, p)); };
        blank += plane < 0 ? is(0) || is(1) || is(2) : is(plane);
      }
      std::vector<int> counts(50);
      image->GetHistogram(counts.data(), 50, -1e5, 1e5, plane, 0, 1, 0, nullptr, 0, 0);
      EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), 0), 61 * 23 - blank) << store.name << plane;
    }
  });
}

TEST(GetHistogram, CountsBrightnessOnTheScaleOfPlane0) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 71, 133, 3, Random(-200, 1300));
    for (int p = 0; p < 3; ++p) {
      image->SetLevel(p, 100, 100 + 256 * (p + 1));
    }
    // More than one bin for each unit: no dither.
    const int bins = 401;
    std::vector<int> hist(bins);
    OptionalRect rect = CRect(3, 5, 70, 120);
    image->GetHistogram(hist.data(), bins, 100, 356, -1, 0, 1, 0, Address(rect), 0, 0);
    const auto expected = Counted(Values(*image, rect, -1), bins, 0, 255, !IsPaged(store));
    int moved = 0;  // over a bin's end by rounding
    for (int i = 0; i < bins; ++i) {
      moved += std::abs(hist[i] - expected[i]);
    }
    EXPECT_LE(moved, 4) << store.name;
    EXPECT_EQ(std::accumulate(hist.begin(), hist.end(), 0),
              std::accumulate(expected.begin(), expected.end(), 0));
  }
}

TEST(GetHistogramRGB, CountsEachChannelAsItsPlane) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 71, 133, 3, Eighths());
    const int bins = IsPaged(store) ? 80 : 81;
    std::array<std::vector<int>, 3> hists;
    hists.fill(std::vector<int>(bins, -1));
    OptionalRect rect = CRect(3, 5, 70, 120);
    int tallest = 0;
    const int height = image->GetHistogramRGB(hists[0].data(), hists[1].data(), hists[2].data(), bins, 0, 10,
                                              nullptr, nullptr, 0, 1, 0, Address(rect), 0, 0);
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(hists[p], Counted(Values(*image, rect, p), bins, 0, 10, !IsPaged(store))) << store.name;
      tallest = std::max(tallest, *std::max_element(hists[p].begin(), hists[p].end()));
    }
    EXPECT_EQ(height, tallest);
  }
  const auto mono = Make(MemoryStore(), 3, 2, 1, Random(0, 1));
  int untouched[2] = {7, 7};
  EXPECT_EQ(mono->GetHistogramRGB(untouched, untouched, untouched, 2, 0, 1, nullptr, nullptr, 0, 1, 0,
                                  nullptr, 0, 0),
            -1);
  EXPECT_EQ(untouched[0], 7);
}

TEST(GetHistogram, SpreadsTheStepsOfTheDataOverNarrowBins) {
  // Every tenth number occurs. Without the dither nine bins of ten were empty.
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 300, 200, 1,
                            [](int, int x, int y) { return std::floor(Noise(x + 1000 * y) * 2000) + 0.5; });
    std::vector<int> hist(1000);
    image->GetHistogram(hist.data(), 1000, 0, 2000, 0, 0, 1, 0, nullptr, 0, 0);
    const double mean = 60.0;
    double square = 0;
    for (int i = 10; i < 990; ++i) {
      square += (hist[i] - mean) * (hist[i] - mean) / mean;
    }
    // Counts scatter as counts do, and no more.
    EXPECT_NEAR(square / 980, 1.0, 0.25) << store.name;
  }
}

TEST(GetHistogram, MeasuresTheSpreadInBins) {
  // One value, one unit to a bin: the dither is uniform over 3 bins to each side.
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 300, 200, 1, [](int, int, int) { return 50.5; });
    for (const auto& [bins, dithers] : {std::pair(100, true), std::pair(102, false)}) {
      std::vector<int> hist(bins + !IsPaged(store));
      image->GetHistogram(hist.data(), static_cast<int>(hist.size()), 0, 100, 0, 0, 1, 0, nullptr, 0, 0);
      if (!dithers) {
        EXPECT_EQ(hist[51], 60000) << store.name;
        continue;
      }
      EXPECT_EQ(std::accumulate(hist.begin() + 47, hist.begin() + 54, 0), 60000) << store.name;
      EXPECT_NEAR(hist[47], 5000, 300) << store.name;
      EXPECT_NEAR(hist[53], 5000, 300) << store.name;
      EXPECT_NEAR(hist[50], 10000, 400) << store.name;
    }
  }
}

TEST(GetHistogram, LooksAtTheSampleGridAlone) {
  for (const StoreCase& store : Stores()) {
    const auto image =
        Make(store.make(), 40, 30, 1, [](int, int x, int y) { return x + (y == 9 ? 0.25 : 0.75); });
    image->GetHistogramCullXRef() = {0, 3, 38, -1};
    image->GetHistogramCullYRef() = {9, 10, 99};
    std::vector<int> hist(160);
    // Columns count from the rectangle's left; 5 + 38 is beyond the width, though it stays in the factor.
    OptionalRect rect = CRect(5, 0, 40, 30);
    image->GetHistogram(hist.data(), 160, 0, 40, 0, 0, 1, 1, Address(rect), 0, 0);
    std::vector<int> expected(160);
    for (const double v : {5.25, 8.25, 5.75, 8.75}) {
      expected[static_cast<int>(v * 4)] = 40 * 30 / (4 * 3);
    }
    EXPECT_EQ(hist, expected) << store.name;

    std::vector<int> all(160), unused(160);
    image->GetHistogram(all.data(), 160, 0, 40, 0, 0, 1, 0, nullptr, 0, 0);
    image->GetHistogramCullXRef().resize(40, 1);
    image->GetHistogramCullYRef().resize(30, 1);
    image->GetHistogram(unused.data(), 160, 0, 40, 0, 0, 1, 1, nullptr, 0, 0);
    EXPECT_EQ(unused, all) << "a grid of the image's size is none: " << store.name;
  }
}

TEST(GetHistogram, EdgesOfItsArguments) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 10, 10, 1, [](int, int x, int) { return x < 9 ? 0.5 : 1.0; });
    int hist[4];
    // A mono image takes plane 0; 10 pixels of 1.0 are at the top end.
    EXPECT_EQ(image->GetHistogram(hist, 4, 0, 1, -1, 1, 1, 0, nullptr, 0, 0), 19542) << store.name;
    EXPECT_EQ(hist[IsPaged(store) ? 2 : 1], 19542);  // 10000 log10(90)
    EXPECT_EQ(hist[0], std::numeric_limits<int>::min());
    EXPECT_EQ(hist[3], 10000);
    // Ends that meet: the pipelines pile all up, the loops count nothing.
    image->GetHistogram(hist, 4, 1, 1, 0, 0, 1, 0, nullptr, 0, 0);
    EXPECT_EQ(std::accumulate(hist, hist + 4, 0), IsPaged(store) ? 0 : 100) << store.name;
    // A single bin, and a table of none.
    EXPECT_EQ(image->GetHistogram(hist, 1, 0, 0.75, 0, 0, 1, 0, nullptr, 0, 0), IsPaged(store) ? 90 : 100);
    hist[0] = 7;
    EXPECT_EQ(image->GetHistogram(hist, 0, 0, 3, 0, 0, 1, 0, nullptr, 0, 0), 7);
  }
  CVelImage empty;
  int hist[2] = {7, 7};
  EXPECT_EQ(empty.GetHistogram(hist, 2, 0, 1, 0, 0, 1, 0, nullptr, 0, 0), 0);
}

TEST(GetHistogram, TellsItsProgress) {
  // Loops count the window's lines, or the grid's rows; pipelines open and close the display alone.
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 20, 10, 3, Random(0, 1));
    std::vector<std::wstring> texts;
    std::vector<std::intptr_t> steps;
    const HWND window = korimg::CreateMessageWindow([&](unsigned, std::uintptr_t event, std::intptr_t value) {
      if (event == 0) texts.emplace_back(reinterpret_cast<const wchar_t*>(value));
      if (event == 1) steps.push_back(value);
      if (event == 2) texts.emplace_back(L"closed");
      return std::intptr_t{0};
    });
    image->SetProgressHandle(window);
    int hist[2];
    CRect rect(0, 2, 20, 7);
    image->GetHistogram(hist, 2, 0, 1, 1, 0, 1, 0, &rect, 1, 0);
    image->GetHistogramRGB(hist, hist, hist, 2, 0, 1, nullptr, nullptr, 0, 1, 0, &rect, 1, 6168);
    image->GetHistogram(hist, 2, 0, 1, -1, 0, 1, 0, &rect, 0, 0);
    EXPECT_EQ(texts, (std::vector<std::wstring>{korimg::LoadString(6166), L"closed", korimg::LoadString(6168),
                                                L"closed"}));
    const std::vector<std::intptr_t> lines = {20, 40, 60, 80, 100, 20, 40, 60, 80, 100};
    EXPECT_EQ(steps, IsPaged(store) ? lines : std::vector<std::intptr_t>{}) << store.name;
    steps.clear();
    image->GetHistogramCullXRef() = {1};
    image->GetHistogramCullYRef() = {1, 2};
    image->GetHistogram(hist, 2, 0, 1, 1, 0, 1, 1, &rect, 1, 0);
    EXPECT_EQ(steps, (std::vector<std::intptr_t>{20, 40})) << store.name;
    korimg::DestroyMessageWindow(window);
  }
}

TEST(HstAntialias, DithersUpToOneBinAUnit) {
  EXPECT_EQ(Measured::HstAntialias(5, 1.001), 5);
  EXPECT_EQ(Measured::HstAntialias(5, 0), 5);
  EXPECT_EQ(Measured::HstAntialias(5, -1), 5);
  double low = 0, high = 0, sum = 0;
  for (int i = 0; i < 10000; ++i) {
    double r, g, b;
    Measured::HstAntialias(5, 6, 7, r, g, b, 0.5);
    ASSERT_NEAR(g - r, 1, 1e-12);
    ASSERT_NEAR(b - r, 2, 1e-12);
    low = std::min(low, r - 5);
    high = std::max(high, r - 5);
    sum += r - 5;
  }
  EXPECT_NEAR(low, -6, 0.05);
  EXPECT_NEAR(high, 6, 0.05);
  EXPECT_NEAR(sum / 10000, 0, 0.2);
}

TEST(CalcMinMax, FillsTheTablesByTheRuleOfItsStore) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 9, 5, 3, [](int p, int x, int y) { return 100 * p + x * y - 3.0; });
    image->CalcMinMax();
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(image->GetMinPixel(p), 100 * p - 3);
      EXPECT_EQ(image->GetMaxPixel(p), 100 * p + 8 * 4 - 3);
      const double sum = 45 * (100 * p - 3) + 36 * 10;
      EXPECT_FLOAT_EQ(image->GetAvrPixel(p), sum / (IsPaged(store) ? 8 * 4 : 9 * 5)) << store.name;
    }
  }
}

TEST(CalcMinMax, PassesNanOverWhereverItStands) {
  for (const StoreCase& store : Stores()) {
    for (const int place : {0, 7, 44}) {
      const auto image = Make(store.make(), 9, 5, 1,
                              [&](int, int x, int y) { return x + 9 * y == place ? NAN : x * y - 3.0; });
      image->CalcMinMax();
      EXPECT_EQ(image->GetMinPixel(0), -3) << store.name << " " << place;
      EXPECT_EQ(image->GetMaxPixel(0), place == 44 ? 25 : 29) << store.name << " " << place;
    }
  }
}

TEST(CalcMinMax, LeavesOutTheMarginAndZeros) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 9, 7, 1, [](int, int x, int y) {
      return x < 2 || y < 2 || x > 6 || y > 4 ? 1000.0 : (x + y) % 2 ? 0.0 : x + 10.0 * y;
    });
    image->CalcMinMax(2);
    EXPECT_EQ(image->GetMinPixel(0), 22);
    EXPECT_EQ(image->GetMaxPixel(0), 46);
    EXPECT_FLOAT_EQ(image->GetAvrPixel(0), (22 + 24 + 26 + 33 + 35 + 42 + 44 + 46) / 8.0f);
    image->CalcMinMax(-1);
    EXPECT_EQ(image->GetMaxPixel(0), 1000) << "a negative margin is none";
    image->CalcMinMax(4);
    EXPECT_TRUE(std::isnan(image->GetAvrPixel(0))) << "no row is left";
    image->CalcMinMax(1000);
    EXPECT_TRUE(std::isnan(image->GetAvrPixel(0)));
  }
}

TEST(GetAvrGrayRaw, IsTheMeanForAnySizeAndTeam) {
  for (const auto& [width, height] : Sizes()) {
    OnEveryPath([&, width = width, height = height](const StoreCase& store) {
      const auto image = Make(store.make(), width, height, 3, Random(1e5, 1e6));
      const auto values = Values(*image, {}, 1);
      const double mean = std::accumulate(values.begin(), values.end(), 0.0) / values.size();
      const float got = image->GetAvrGrayRaw(1);
      EXPECT_NEAR(got / mean, 1, 1e-7) << store.name << " " << width << "x" << height;
      EXPECT_EQ(image->GetAvrGray(1), got - static_cast<float>(image->GetLevelMin(1)));
      EXPECT_FLOAT_EQ(image->GetAvrGray256f(1),
                      (got - image->GetLevelMin(1)) / image->GetLevelRange(1) * 255);
    });
  }
}

TEST(GetMaxPixel, FindsTheFirstLargestOfTheWindow) {
  OnEveryPath([](const StoreCase& store) {
    const auto image = Make(store.make(), 71, 133, 3, Random(0, 500));
    image->SetPixelGrayRaw(30, 40, 900, 1);
    image->SetPixelGrayRaw(20, 90, 900, 1);
    image->SetPixelGrayRaw(0, 0, 1000, 1);
    image->SetPixelGrayRaw(31, 40, NAN, 1);
    int x = 0, y = 0;
    CRect rect(1, 1, 71, 133);
    EXPECT_EQ(image->GetMaxPixel(1, &rect, x, y), 900);
    EXPECT_EQ(x, 30);
    EXPECT_EQ(y, 40);
    EXPECT_EQ(image->GetMaxPixel(1, nullptr, x, y), 1000);
    EXPECT_EQ(x, -1) << "the window's first pixel has no place";
    EXPECT_EQ(y, -1);
    CRect outside(80, 0, 90, 10);
    EXPECT_EQ(image->GetMaxPixel(1, &outside, x, y), 0);
    EXPECT_EQ(x, -1);
  });
}

TEST(Get1stBrighterPixel, GoesByRowsAndByBrightnessOfColours) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 40, 30, 1, Random(0, 500));
    image->SetPixelGrayRaw(30, 10, 800, 0);
    image->SetPixelGrayRaw(3, 11, 900, 0);
    int x = 0, y = 0;
    EXPECT_EQ(image->Get1stBrighterPixel(0, nullptr, 500, x, y), 800) << store.name;
    EXPECT_EQ(CPoint(x, y), CPoint(30, 10));
    CRect rect(0, 0, 30, 30);
    EXPECT_EQ(image->Get1stBrighterPixel(0, &rect, 500, x, y), 900) << store.name;
    EXPECT_EQ(image->Get1stBrighterPixel(0, &rect, 900, x, y), 0) << "strictly above";
    EXPECT_EQ(CPoint(x, y), CPoint(-1, -1));

    const auto colour = Make(store.make(), 40, 30, 3, [](int, int, int) { return 10.0; });
    colour->SetPixelGrayRaw(1, 1, 100, 2);
    colour->SetPixelGrayRaw(5, 6, 60, 1);
    EXPECT_FLOAT_EQ(colour->Get1stBrighterPixel(2, nullptr, 30, x, y), 0.587 * 60 + 0.413 * 10);
    EXPECT_EQ(CPoint(x, y), CPoint(5, 6));
  }
}

}  // namespace
