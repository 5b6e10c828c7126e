#include "korimg/levels/CImgAutoLevel.h"

#include <algorithm>
#include <numeric>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Runs a case on each store and with teams of one and eight.
void OnEveryStore(const std::function<void(const StoreCase&)>& run) {
  for (const StoreCase& store : Stores()) {
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      run(store);
    }
  }
}

bool IsPaged(const StoreCase& store) {
  return store.name == "paged";
}

enum Scale { Raw, Of256 };
constexpr int kBrightness = -1;

/// The values of a window; plane -1: brightness.
std::vector<double> Values(CVelImage& image, const CRect& r, int plane, Scale scale = Raw) {
  std::vector<double> values;
  for (int y = r.top; y < r.bottom; ++y) {
    for (int x = r.left; x < r.right; ++x) {
      const auto value = [&](int p) {
        const double raw = image.GetPixelGrayRaw(x, y, p);
        return scale == Raw ? raw : (raw - image.GetLevelMin(p)) / image.GetLevelRange(p) * 255;
      };
      values.push_back(plane >= 0 ? value(plane) : 0.299 * value(0) + 0.587 * value(1) + 0.114 * value(2));
    }
  }
  return values;
}

double Mean(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0) / values.size();
}

double RmsFrom(double centre, const std::vector<double>& values) {
  double sum = 0;
  for (const double v : values) {
    sum += (v - centre) * (v - centre);
  }
  return std::sqrt(sum / values.size());
}

double UpperMedian(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// A sky: background of plane p around 1000 (p + 1) with a deviation of 50, and bright pixels above it.
PixelRule SkyRule() {
  return [a = Random(-1, 1, 1), b = Random(-1, 1, 2), c = Random(-1, 1, 3), s = Random(0, 1, 4)](int p, int x,
                                                                                                 int y) {
    const double star = s(p, x, y) < 0.01 ? s(p, x, y) * 1e6 : 0;
    return std::floor(1000 * (p + 1) + 50 * (a(p, x, y) + b(p, x, y) + c(p, x, y)) + star);
  };
}

TEST(GetMedian, IsTheUpperMiddleOfAllPixels) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      const auto image = Make<CImgAutoLevel>(store.make(), width, height, 3, Random(0, 1000));
      CRect rect(width > 2, height > 2, width, height);
      float median = -1;
      image->GetMedian(&median, 1, 0, 2, &rect);
      EXPECT_EQ(median, static_cast<float>(UpperMedian(Values(*image, rect, 2))))
          << store.name << " " << width << "x" << height;
      image->GetMedian(&median, 0, 1, -1, &rect);
      EXPECT_FLOAT_EQ(median, UpperMedian(Values(*image, rect, kBrightness))) << store.name;
    }
  });
}

TEST(GetMedian, TakesMeansOfBlocksFromTheWindowsCorner) {
  // 607 x 401 of 620 x 410: 4 for each sample, so blocks of 2 x 2, and a row and a column are left over.
  OnEveryStore([](const StoreCase& store) {
    const auto image = Make<CImgAutoLevel>(store.make(), 620, 410, 3, Random(0, 1000));
    CRect rect(11, 7, 618, 408);
    for (const int plane : {1, kBrightness}) {
      const auto values = Values(*image, rect, plane);
      const int across = 303, down = 200;
      std::vector<double> blocks(across * down);
      for (int j = 0; j < 2 * down; ++j) {
        for (int i = 0; i < 2 * across; ++i) {
          blocks[j / 2 * across + i / 2] += values[j * 607 + i] / 4;
        }
      }
      float median = -1;
      image->GetMedian(&median, 1, plane == kBrightness, std::max(plane, 0), &rect);
      EXPECT_FLOAT_EQ(median, UpperMedian(blocks)) << store.name << plane;
    }
  });
}

TEST(GetMedian, EdgesOfSizeAndNumbers) {
  for (const StoreCase& store : Stores()) {
    float median = -1;
    // A line: the block's side is at most the shorter side.
    const auto line = Make<CImgAutoLevel>(store.make(), 200001, 1, 1, Random(0, 1000));
    if (!IsPaged(store)) {  // such a line is longer than a block of the small pool
      line->GetMedian(&median, 1, 0, 0, nullptr);
      EXPECT_EQ(median, static_cast<float>(UpperMedian(Values(*line, {0, 0, 200001, 1}, 0))));
    }
    // At 50000 pixels every pixel counts still.
    const auto limit = Make<CImgAutoLevel>(store.make(), 250, 200, 1, Random(0, 1000));
    limit->GetMedian(&median, 1, 0, 0, nullptr);
    EXPECT_EQ(median, static_cast<float>(UpperMedian(Values(*limit, {0, 0, 250, 200}, 0))));
    // NaN sorts last, above infinity.
    const auto odd = Make<CImgAutoLevel>(store.make(), 7, 1, 1, [](int, int x, int) {
      return std::array{NAN, 3.0f, NAN, 1.0f, -INFINITY, INFINITY, 2.0f}[x];
    });
    odd->GetMedian(&median, 1, 0, 0, nullptr);
    EXPECT_EQ(median, 3.0f) << store.name;
    CRect first(0, 0, 3, 1), none(3, 0, 3, 1);
    odd->GetMedian(&median, 1, 0, 0, &first);
    EXPECT_TRUE(std::isnan(median));
    odd->GetMedian(&median, 1, 0, 0, &none);
    EXPECT_EQ(median, 0);
  }
}

TEST(GetMedianBayer, MeasuresEachPositionOfWholeCells) {
  OnEveryStore([](const StoreCase& store) {
    // 150900 pixels for each position are 3 for each sample: blocks of 2 x 2, with an odd column left over.
    for (const auto& [width, height, step] : {std::tuple(7, 5, 1), std::tuple(1003, 603, 2)}) {
      const auto image = Make<CImgAutoLevel>(store.make(), width, height, 1, [](int, int x, int y) {
        return 1000 * (2 * (y % 2) + x % 2) + std::floor(Noise(x * 7919 + y) * 500);
      });
      const int across = width / 2 / step, down = height / 2 / step;
      float medians[4] = {-1, -1, -1, -1};
      image->GetMedianBayer(medians, 1);
      for (int position = 0; position < 4; ++position) {
        std::vector<double> blocks(across * down);
        for (int y = 0; y < down * step; ++y) {
          for (int x = 0; x < across * step; ++x) {
            blocks[y / step * across + x / step] +=
                image->GetPixelGrayRaw(2 * x + position % 2, 2 * y + position / 2, 0) / (step * step);
          }
        }
        EXPECT_EQ(medians[position], static_cast<float>(UpperMedian(blocks))) << store.name << position;
      }
    }
  });
}

TEST(GetMedianHoneyComb, MeasuresEachSiteOfWholeCells) {
  OnEveryStore([](const StoreCase& store) {
    // 30 x 20 cells take no blocks; of 251 x 151, 6250 blocks of 2 x 2 cells are wanted for each site.
    for (const auto& [width, height, sample, step] :
         {std::tuple(123, 81, 1, 1), std::tuple(1007, 606, 1, 2), std::tuple(1007, 606, 0, 1)}) {
      const auto image = Make<CImgAutoLevel>(store.make(), width, height, 1, [](int, int x, int y) {
        return 1000 * (4 * (y % 4) + x % 4) + std::floor(Noise(x * 7919 + y) * 500);
      });
      const int across = width / 4 / step, down = height / 4 / step;
      double medians[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
      image->GetMedianHoneyComb(medians, sample);
      constexpr int kColumns[] = {0, 2, 1, 3, 0, 2, 1, 3};
      for (int i = 0; i < 8; ++i) {
        std::vector<double> blocks(across * down);
        for (int y = 0; y < down * step; ++y) {
          for (int x = 0; x < across * step; ++x) {
            blocks[y / step * across + x / step] +=
                image->GetPixelGrayRaw(4 * x + kColumns[i], 4 * y + i / 2, 0) / (step * step);
          }
        }
        EXPECT_EQ(medians[i], UpperMedian(blocks)) << store.name << width << " " << i;
      }
    }
    double none[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    Make<CImgAutoLevel>(store.make(), 3, 40, 1, [](int, int, int) { return 5; })->GetMedianHoneyComb(none, 1);
    EXPECT_EQ(none[0] + none[7], 0);
  });
}

TEST(LevelRanges, CountAndSpreadOfThePixelsBetween) {
  OnEveryStore([](const StoreCase& store) {
    const auto image = Make<CImgAutoLevel>(store.make(), 71, 133, 3, Wild(0, 1000));
    CRect rect(3, 5, 70, 131);
    const auto between = [&](int plane, Scale scale, double lo, double hi) {
      auto values = Values(*image, rect, plane, scale);
      std::erase_if(values, [=](double v) { return !(v >= lo && v <= hi); });
      return values;
    };
    const auto inside = between(1, Raw, 200, 700);
    int count = -1;
    double spread = -1;
    image->GetLevelRangeNum(200, 700, &count, 1, &rect);
    EXPECT_EQ(count, static_cast<int>(inside.size())) << store.name;
    image->GetLevelRangeStd(200, 700, &spread, 1, &rect);
    EXPECT_NEAR(spread, RmsFrom(Mean(inside), inside), 1e-9);
    image->GetLevelDoubleRangeStd(200, 700, &spread, 0, 1, &rect);
    EXPECT_NEAR(spread, RmsFrom(700, inside), 1e-9);
    image->GetLevelDoubleRangeStd(20, 150.5, &spread, 1, 1, &rect);
    EXPECT_NEAR(spread, RmsFrom(150.5, between(kBrightness, Of256, 20, 150.5)), 1e-3);
    // Both ends belong to the range; nothing in it, or no window, gives 0.
    image->GetLevelRangeNum(1000, 1000, &count, 1, &rect);
    EXPECT_EQ(count, static_cast<int>(between(1, Raw, 1000, 1000).size()));
    EXPECT_GT(count, 0);
    image->GetLevelRangeStd(2000, 3000, &spread, 1, &rect);
    EXPECT_EQ(spread, 0);
    CRect none(5, 5, 5, 9);
    image->GetLevelRangeNum(0, 1000, &count, 1, &none);
    image->GetLevelDoubleRangeStd(0, 1000, &spread, 0, 1, &none);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(spread, 0);
  });
}

TEST(DoByMean, SetsLevelsAboutTheMean) {
  OnEveryStore([](const StoreCase& store) {
    CRect rect(3, 5, 70, 131);
    for (const int planes : {1, 3}) {
      const auto image = Make<CImgAutoLevel>(store.make(), 71, 133, planes, SkyRule());
      image->DoByMean(1.5, 4, 1, &rect);
      for (int p = 0; p < planes; ++p) {
        const auto values = Values(*image, rect, p);
        const double m = Mean(values), s = RmsFrom(m, values);
        EXPECT_NEAR(image->GetLevelMin(p), m - 1.5 * s, 1e-6) << store.name;
        EXPECT_NEAR(image->GetLevelMax(p), m + 4 * s, 1e-6) << store.name;
      }
    }
    // Together: brightness made raw by plane 0; on contiguous stores brightness is plane 0's value.
    const auto image = Make<CImgAutoLevel>(store.make(), 71, 133, 3, SkyRule());
    auto values = Values(*image, rect, IsPaged(store) ? kBrightness : 0, Of256);
    for (double& v : values) {
      v = image->ToRaw(v, 0);
    }
    const double m = Mean(values), s = RmsFrom(m, values);
    const auto reference = Make<CImgAutoLevel>(MemoryStore(), 1, 1, 3, Random(0, 1));
    reference->SetLevel(-1, m - 1.5 * s, m + 4 * s);
    double low = 0, high = 0;
    image->Get(low, high, 1, &rect);
    EXPECT_NEAR(low, (m - image->GetLevelMin(0)) / s, 1e-3);
    EXPECT_NEAR(high, (image->GetLevelMax(0) - m) / s, 1e-3);
    image->DoByMean(1.5, 4, 0, &rect);
    for (int p = 0; p < 3; ++p) {
      EXPECT_NEAR(image->GetLevelMin(p), reference->GetLevelMin(p), 0.01) << store.name;
      EXPECT_NEAR(image->GetLevelMax(p), reference->GetLevelMax(p), 0.01) << store.name;
    }
  });
}

TEST(DoByMedian, SetsLevelsAboutTheMedian) {
  OnEveryStore([](const StoreCase& store) {
    CRect rect(3, 5, 70, 131);
    for (const int separate : {1, 0}) {
      const auto image = Make<CImgAutoLevel>(store.make(), 71, 133, 3, SkyRule());
      const auto reference = Make<CImgAutoLevel>(MemoryStore(), 1, 1, 3, Random(0, 1));
      for (int p = separate ? 0 : kBrightness; p < (separate ? 3 : 0); ++p) {
        auto values = Values(*image, rect, p, separate ? Raw : Of256);
        for (double& v : values) {
          if (!separate) v = image->ToRaw(v, 0);
        }
        const double m = UpperMedian(values), s = RmsFrom(m, values);
        reference->SetLevel(p, m - 2 * s, m + 5 * s);
        if (p > 0) continue;
        double low = 0, high = 0;
        if (!separate) image->GetByMedian(low, high, &rect);
        EXPECT_NEAR(low, separate ? 0 : (m - image->GetLevelMin(0)) / s, 1e-4) << store.name;
        EXPECT_NEAR(high, separate ? 0 : (image->GetLevelMax(0) - m) / s, 1e-4) << store.name;
      }
      image->DoByMedian(2, 5, separate, &rect);
      for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(image->GetLevelMin(p), reference->GetLevelMin(p), 1e-2) << store.name << separate;
        EXPECT_NEAR(image->GetLevelMax(p), reference->GetLevelMax(p), 1e-2) << store.name << separate;
      }
    }
  });
}

TEST(GetBy, GivesBackWhatSetTheLevels) {
  for (const StoreCase& store : Stores()) {
    struct Case {
      int method;
      double low, high, tolerance;
    };
    for (const Case& c : {Case{1, 1.5, 4, 1e-6}, Case{2, 1.25, 3, 1e-6}, Case{0, 0.2, 0.9, 2e-3},
                          Case{7, 0.3, 0.95, 2e-3}, Case{0, -0.5, 1.5, 1e-6}}) {
      // Uniform numbers: the dither of the histogram moves few of them.
      const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 1, Random(0, 4000));
      if (c.method == 1) image->DoByMean(c.low, c.high, 0, nullptr);
      if (c.method == 2) image->DoByMedian(c.low, c.high, 0, nullptr);
      if (c.method == 0 || c.method == 7) image->DoByNormal(c.low, c.high, 0, nullptr);
      double low = 0, high = 0;
      image->Get(low, high, c.method, nullptr);
      EXPECT_NEAR(low, c.low, c.tolerance) << store.name << c.method;
      EXPECT_NEAR(high, c.high, c.tolerance) << store.name << c.method;
    }
  }
}

TEST(DoByNormal, ClipsSharesOfThePixels) {
  OnEveryStore([](const StoreCase& store) {
    // Uniform from 0 to 1: shares and levels are the same numbers, with 5000 bins' empty shares between.
    const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 3, Random(0, 1));
    image->DoByNormal(0.25, 0.9, 1, nullptr);
    for (int p = 0; p < 3; ++p) {
      EXPECT_NEAR(image->GetLevelMin(p), 0.25, 0.01) << store.name;
      EXPECT_NEAR(image->GetLevelMax(p), 0.9, 0.01) << store.name;
    }
    image->DoByNormal(0, 1, 1, nullptr);
    const auto [min, max] = image->GetMinMax(1);
    EXPECT_EQ(image->GetLevelMin(1), min);
    EXPECT_EQ(image->GetLevelMax(1), max);
    image->DoByNormal(-0.5, 1.5, 1, nullptr);
    EXPECT_NEAR(image->GetLevelMin(1), -0.5, 1e-3);
    EXPECT_NEAR(image->GetLevelMax(1), 1.5, 1e-3);
  });
}

TEST(DoByNormal, WalksBinsThatEachCountOneMore) {
  for (const StoreCase& store : Stores()) {
    // 50 pixels at each end of 0 to 1: 51 in the end bins, 1 in each between, 5100 in all. A quarter is 1275.
    const auto image = Make<CImgAutoLevel>(store.make(), 10, 10, 1, [](int, int x, int) { return x % 2; });
    image->DoByNormal(0.25, 0.75, 1, nullptr);
    EXPECT_NEAR(image->GetLevelMin(0), 1225 / 5000.0, 1e-12) << store.name;
    EXPECT_NEAR(image->GetLevelMax(0), 3775 / 5000.0, 1e-12) << store.name;
    double low = 0, high = 0;
    image->SetLevel(0, 1225.5 / 5000, 3774.5 / 5000);
    image->GetByNormal(low, high, nullptr);
    EXPECT_NEAR(low, (51 + 1225.5) / 5100, 1e-12) << store.name;
    EXPECT_NEAR(high, 1 - (51 + 1224.5) / 5100, 1e-12) << store.name;
  }
}

TEST(DoByNormal, MovesAllPlanesByBrightness) {
  OnEveryStore([](const StoreCase& store) {
    const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 3, Random(0, 1000));
    auto values = Values(*image, {3, 5, 290, 190}, kBrightness, Of256);
    for (double& v : values) {
      v = image->ToRaw(v, 0);
    }
    const auto reference = Make<CImgAutoLevel>(MemoryStore(), 1, 1, 3, Random(0, 1));
    std::sort(values.begin(), values.end());
    // Each bin counts one more, so a share of the sum lies a little to the middle.
    reference->SetLevel(-1, values[values.size() / 4], values[values.size() * 3 / 4]);
    CRect rect(3, 5, 290, 190);
    image->DoByNormal(0.25, 0.75, 0, &rect);
    for (int p = 0; p < 3; ++p) {
      EXPECT_NEAR(image->GetLevelMin(p), reference->GetLevelMin(p), 25) << store.name;
      EXPECT_NEAR(image->GetLevelMax(p), reference->GetLevelMax(p), 25) << store.name;
    }
  });
}

TEST(GetMode, FindsThePeakAndItsFeet) {
  OnEveryStore([](const StoreCase& store) {
    const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 1, SkyRule());
    CRect rect(3, 5, 290, 190);
    const auto values = Values(*image, rect, 0);
    const auto [min, max] = image->GetMinMax(0);
    for (const auto& [type, bins] :
         {std::pair(CImage::Gray8, 256), std::pair(CImage::Rgb24, 256), std::pair(CImage::Gray16, 5000)}) {
      image->SetOrgBitsPixel(type);
      float mode = 0, lower = 0, upper = 0;
      image->GetMode(&mode, &lower, &upper, 0, 0, &rect);
      const double width = (max - min) / bins;
      EXPECT_NEAR(mode, 1000, 60) << store.name;
      EXPECT_NEAR((mode - min) / width, std::round((mode - min) / width), 0.01) << "bins of " << bins;
      std::vector<double> below = values;
      std::erase_if(below, [mode = mode](double v) { return !(v >= 0 && v <= mode); });
      EXPECT_NEAR(lower, mode - 6 * RmsFrom(mode, below), 0.01) << store.name;
      EXPECT_GT(upper, mode + 5 * width);
      EXPECT_LT(upper, 1000 + 160 + 30 * width) << "the walk ends soon behind the background";
      image->GetMode(&mode, nullptr, nullptr, 0, 0, &rect);
    }
  });
}

TEST(GetMode, AFootEndsBehindElevenLowBinsInARow) {
  // Values are bins of a byte image, which the line loops do not dither. Beyond the peak at 50: ten bins of
  // 20; ten low ones; one of 10, which is not low; and low ones from 72 on, of which the eleventh ends the
  // walk. Two million pixels raise the limit to 21.
  for (const auto& [height, end] : {std::pair(500, 82), {1100, 61}}) {
    std::vector<int> values = {0, 255};
    const auto add = [&](int value, int count) { values.insert(values.end(), count, value); };
    for (int v = 51; v <= 60; ++v) {
      add(v, 20);
    }
    for (int v = 61; v <= 70; ++v) {
      add(v, 5);
    }
    add(71, 10);
    for (int v = 72; v <= 200; ++v) {
      add(v, 9);
    }
    const auto image = Make<CImgAutoLevel>(TinyPool(), 2000, height, 1, [&](int, int x, int y) {
      const size_t i = static_cast<size_t>(y) * 2000 + x;
      return i < values.size() ? values[i] : 50;
    });
    image->SetOrgBitsPixel(CImage::Gray8);
    float mode = 0, upper = 0;
    image->GetMode(&mode, nullptr, &upper, 0, 0, nullptr);
    EXPECT_NEAR(mode, 50 * 255 / 256.0, 1e-4);
    EXPECT_NEAR(upper, end * 255 / 256.0, 1e-4) << height;
  }
}

TEST(GetMode, OfBrightnessIsRaw) {
  OnEveryStore([](const StoreCase& store) {
    const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 3, SkyRule());
    for (int p = 0; p < 3; ++p) {
      image->SetLevel(p, 100, 900);  // the same scale for all planes: raw brightness is that of plane 0's
    }
    float mode = 0, lower = 0;
    image->GetMode(&mode, &lower, nullptr, 1, -1, nullptr);
    EXPECT_NEAR(mode, 0.299 * 1000 + 0.587 * 2000 + 0.114 * 3000, 60) << store.name;
    auto below = Values(*image, {0, 0, 300, 200}, kBrightness);
    const auto [min, max] = std::minmax_element(below.begin(), below.end());
    const double bin = (mode - *min) / (*max - *min) * 5000;
    EXPECT_NEAR(bin, std::round(bin), 0.01) << "bins from the lowest to the highest: " << store.name;
    // On the 256 scale the range starts at 0, which is raw 100.
    std::erase_if(below, [&](double v) { return !(v >= 100 && v <= mode); });
    EXPECT_NEAR(lower, mode - 6 * RmsFrom(mode, below), 0.1) << store.name;
  });
}

TEST(GetMode, OfBrightnessWithLevelsOfTheirOwnIsTakenFromThe256Scale) {
  // Skies of 500 times a plane's scale with levels in proportion: on the 256 scale all of them lie at 63.75.
  OnEveryStore([](const StoreCase& store) {
    for (const auto& scales : {std::array{1, 2, 4}, {1, 1, 4}, {1, 3, 1}, {1, 1, 1}}) {
      const auto image = Make<CImgAutoLevel>(store.make(), 300, 200, 3, [&](int p, int x, int y) {
        return std::round((500 + 20 * (Random(-1, 1)(0, x, y) + Random(-1, 1, 2)(0, x, y))) * scales[p]);
      });
      for (int p = 0; p < 3; ++p) {
        image->SetLevel(p, 0, 2000 * scales[p]);
      }
      float mode = 0, lower = 0;
      image->GetMode(&mode, &lower, nullptr, 1, -1, nullptr);
      EXPECT_NEAR(mode, 500, 6) << store.name << scales[1] << scales[2];
      EXPECT_NEAR(lower, 500 - 6 * 16.3, 40) << store.name << scales[1] << scales[2];
    }
  });
}

TEST(CImgAutoLevel, PlaneMinusOneOfAMonoImageIsItsOnlyOne) {
  for (const StoreCase& store : Stores()) {
    // Few enough units for each bin to be narrower than one: nothing is dithered.
    const auto image = Make<CImgAutoLevel>(
        store.make(), 71, 33, 1, [sky = SkyRule()](int p, int x, int y) { return sky(p, x, y) / 8; });
    for (const int brightness : {0, 1}) {
      float median[2], mode[2];
      double spread[2];
      for (const int plane : {0, -1}) {
        image->GetMedian(&median[-plane], 1, brightness, plane, nullptr);
        image->GetMode(&mode[-plane], nullptr, nullptr, brightness, plane, nullptr);
        image->GetLevelDoubleRangeStd(112, 126, &spread[-plane], brightness, plane, nullptr);
      }
      EXPECT_EQ(median[1], median[0]) << store.name;
      EXPECT_EQ(mode[1], mode[0]) << store.name;
      EXPECT_EQ(spread[1], spread[0]) << store.name;
      EXPECT_GT(spread[1], 0);
    }
  }
}

TEST(DoByHistogram, PlacesThePeak) {
  OnEveryStore([](const StoreCase& store) {
    const double low = 1, high = 4, place = low / (low + high);
    for (const int separate : {1, 0}) {
      for (const int mode : {0, 1, 2, 3, -1}) {
        // Few enough units for each bin to be narrower than one: without dither, peaks stay where they are.
        const auto image = Make<CImgAutoLevel>(
            store.make(), 300, 200, 3, [sky = SkyRule()](int p, int x, int y) { return sky(p, x, y) / 8; });
        const auto before = Make<CImgAutoLevel>(MemoryStore(), 1, 1, 3, Random(0, 1));
        std::array<float, 3> peak, lower, upper;
        for (int p = 0; p < 3; ++p) {
          image->GetMode(&peak[p], &lower[p], &upper[p], 0, p, nullptr);
        }
        float bright, foot;
        image->GetMode(&bright, &foot, nullptr, 1, -1, nullptr);
        const double black0 = bright - (bright - foot) * low;
        const auto above = [&](int p) {
          auto values = Values(*image, {0, 0, 300, 200}, p);
          return static_cast<double>(
              std::count_if(values.begin(), values.end(), [&](double v) { return v >= peak[p]; }));
        };
        image->DoByHistogram(low, high, separate, mode, nullptr);
        for (int p = 0; p < 3; ++p) {
          const double d = peak[0] - peak[p], min = before->GetLevelMin(p), max = before->GetLevelMax(p);
          const double min0 = before->GetLevelMin(0), max0 = before->GetLevelMax(0);
          double black = min, white = max;
          if (mode == 2) {
            const double share = above(p) / above(0);
            black = separate ? min - d - (peak[0] - min0) * share : min0 - d;
            white = separate ? max - d - (peak[0] - max0) * share : max0 - d;
          } else if (mode == 0 || mode == 1) {
            black = separate ? (mode == 0 ? peak[p] - (peak[p] - lower[p]) * low
                                          : peak[p] - (upper[p] - peak[p]) * low)
                             : black0 - (mode == 0 ? d : 0);
            white = (peak[p] - black) / place + black - (separate || mode == 1 ? 0 : d);
          }
          EXPECT_NEAR(image->GetLevelMin(p), black, 0.02) << store.name << separate << mode << p;
          EXPECT_NEAR(image->GetLevelMax(p), white, 0.02) << store.name << separate << mode << p;
        }
      }
    }
  });
}

TEST(CImgAutoLevel, KeepsItsLevelsWhenThereIsNothingToGoBy) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make<CImgAutoLevel>(store.make(), 20, 10, 3, Wild(0, 1000));
    const auto setAll = [&](CRect* rect) {
      for (const int separate : {0, 1}) {
        image->DoByNormal(0.1, 0.9, separate, rect);
        image->DoByMean(1, 2, separate, rect);
        image->DoByMedian(1, 2, separate, rect);
        image->DoByHistogram(1, 2, separate, 0, rect);
      }
    };
    CRect none(7, 3, 7, 9);
    setAll(&none);
    setAll(nullptr);  // infinite extremes, means and spreads
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(image->GetLevelMin(p), 130 + 7 * p) << store.name;
      EXPECT_EQ(image->GetLevelMax(p), 1070 + 40 * p) << store.name;
    }
    // NaN alone does no harm.
    const auto holes = Make<CImgAutoLevel>(store.make(), 20, 10, 1,
                                           [](int, int x, int y) { return x == 3 ? NAN : 500.0 + x + y; });
    holes->DoByMean(1, 1, 1, nullptr);
    EXPECT_NEAR(holes->GetLevelMin(0) + holes->GetLevelMax(0), 2 * (500 + 187.0 / 19 + 4.5), 1e-6);
  }
}

}  // namespace
