// Richardson-Lucy and maximum entropy.
#include <functional>
#include <numeric>
#include <tuple>

#include <gtest/gtest.h>

#include "korimg/image/Progress.h"
#include "korimg/platform/Debug.h"
#include "korimg/platform/Messages.h"
#include "korimg/platform/StringTable.h"
#include "korimg/restoration/CImgLucy.h"
#include "korimg/restoration/CImgMem.h"

#include "tests/restoration/Field.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// The debug lines of a scope.
struct DebugLines {
  std::vector<std::string> lines;
  DebugLines() {
    SetDebugSink([this](const std::wstring& line) { lines.push_back(Narrow(line)); });
  }
  ~DebugLines() { SetDebugSink(nullptr); }
  bool Has(const std::string& text) const {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
  }
  int Count(const std::string& start) const {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                          [&](const std::string& line) { return line.starts_with(start); }));
  }
};

double MeanSquare(const Field& field, const Plane& model, const std::function<double(double)>& variance) {
  double sum = 0;
  for (size_t i = 0; i < model.cells.size(); ++i) {
    const double m = model.cells[i], d = field.data.cells[i] - m;
    sum += d * d / variance(m);
  }
  return sum / model.cells.size();
}

Plane PlaneOf(const Field& field, std::vector<double> values) {
  Plane plane{field.width, field.height};
  plane.cells = std::move(values);
  return plane;
}

/// How well an estimate explains the data, as Richardson-Lucy counts it.
double ChiSquare(const Field& field, const Plane& estimate) {
  return MeanSquare(field, Blurred(estimate, field.sigma), [&](double m) {
    const double g = field.gain, r2 = field.readNoise * field.readNoise;
    return ((m + r2 / g) * g + r2) / g / g;
  });
}

/// Plain steps from a constant.
Plane PlainLucy(const Field& field, int iterations) {
  Plane estimate{field.width, field.height};
  const double n = field.readNoise * field.readNoise / field.gain;
  std::fill(estimate.cells.begin(), estimate.cells.end(), field.data.Sum() / estimate.cells.size());
  for (int i = 0; i < iterations; ++i) {
    Plane ratio = Blurred(estimate, field.sigma);
    for (size_t k = 0; k < ratio.cells.size(); ++k) {
      ratio.cells[k] = std::max(field.data.cells[k] + n, 0.0) / (ratio.cells[k] + n);
    }
    ratio = Blurred(ratio, field.sigma);
    for (size_t k = 0; k < ratio.cells.size(); ++k) {
      estimate.cells[k] *= ratio.cells[k];
    }
  }
  return estimate;
}

std::vector<double> Lucy(const Field& field, int iterations) {
  const auto image = Make<CImgLucy>(MemoryStore(), field.width, field.height, 1, field.Rule());
  EXPECT_EQ(image->Do(field.sigma, field.gain, field.readNoise, iterations, nullptr, 0), 1);
  return Values(*image);
}

TEST(CImgLucy, TenStepsReachWhatTwentyPlainOnesReach) {
  for (const int seed : {1, 2, 3}) {
    const Field field(seed);
    const Plane plain = PlainLucy(field, 20), fast = PlaneOf(field, Lucy(field, 10));
    EXPECT_LE(ChiSquare(field, fast), ChiSquare(field, plain)) << seed;
    EXPECT_LE(field.Error(fast.cells), field.Error(plain.cells)) << seed;
    const auto twenty = Lucy(field, 20);
    EXPECT_LE(field.Error(twenty), field.Error(plain.cells)) << seed;
    EXPECT_NEAR(PlaneOf(field, twenty).Sum() / field.data.Sum(), 1, 1e-3) << "light is kept";
  }
}

TEST(CImgLucy, DigsNoRingsBelowTheBackground) {
  // 30 to 90 times as high as the noise of the sky, in the middle of nothing.
  for (const double height : {30.0, 90.0}) {
    Field field;
    const double deviation = field.Deviation(field.sky);
    field.Fill([&](int x, int y) {
      return x == 80 && y == 72 ? height * deviation * 2 * 3.14159 * field.sigma * field.sigma : 0.0;
    });
    const auto image = Make<CImgLucy>(MemoryStore(), field.width, field.height, 1, field.Rule());
    const double background = field.sky - 3 * deviation;
    ASSERT_EQ(image->DoAboveBackground(field.sigma, field.gain, field.readNoise, 20, &background, nullptr, 0),
              1);
    const auto estimate = PlaneOf(field, Values(*image));
    EXPECT_GT(estimate.Clamped(80, 72), field.data.Clamped(80, 72));
    EXPECT_GT(*std::min_element(estimate.cells.begin(), estimate.cells.end()), background);
    EXPECT_NEAR(estimate.Sum() / field.data.Sum(), 1, 1e-3);
  }
}

TEST(CImgLucy, EndsWhenChiSquareIsMet) {
  DebugLines debug;
  const Field field;
  const auto estimate = PlaneOf(field, Lucy(field, 500));
  EXPECT_NEAR(ChiSquare(field, estimate), 1, 0.05);
  EXPECT_TRUE(debug.Has("chi-sq <= 1,  converged"));
  EXPECT_EQ(debug.Count("Initial chi-sq = "), 1);
  EXPECT_LT(debug.Count("Iteration "), 100);
  EXPECT_EQ(debug.Count("Accelerated iteration  CMIN = ") + debug.Count("Turbo iteration        CMIN = "),
            debug.Count("Iteration "));
  // So much read noise explains everything at once.
  debug.lines.clear();
  const auto image = Make<CImgLucy>(MemoryStore(), field.width, field.height, 1, field.Rule());
  ASSERT_EQ(image->Do(2, 1, 1e5, 50, nullptr, 0), 1);
  EXPECT_EQ(debug.Count("Iteration "), 1);
}

// Of noise that is nothing but that of reading, with hardly any light.
TEST(CImgLucy, ReadNoiseCountsOnceAboveABackgroundAndTwiceWithoutOne) {
  constexpr double kRead = 50, kLight = 150;
  const double none = 0;
  for (const bool above : {true, false}) {
    DebugLines debug;
    const auto image = Make<CImgLucy>(MemoryStore(), 200, 150, 1, [](int p, int x, int y) {
      return kLight + kRead * std::sqrt(12.0) * Random(-0.5, 0.5)(p, x, y);
    });
    ASSERT_EQ(above ? image->DoAboveBackground(2, 1, kRead, 1, &none, nullptr, 0)
                    : image->Do(2, 1, kRead, 1, nullptr, 0),
              1);
    const std::string before = "Initial chi-sq = ";
    const auto line = std::find_if(debug.lines.begin(), debug.lines.end(),
                                   [&](const auto& told) { return told.find(before) != told.npos; });
    ASSERT_NE(line, debug.lines.end());
    const double chi = std::stod(line->substr(line->find(before) + before.size()));
    EXPECT_NEAR(chi, kRead * kRead / (kLight + (above ? 1 : 2) * kRead * kRead), 0.03) << above;
  }
}

TEST(CImgLucy, TellsOfPixelsFarBelowZero) {
  DebugLines debug;
  const auto image = Make<CImgLucy>(MemoryStore(), 20, 20, 1,
                                    [](int, int x, int y) { return x == 3 && y == 4 ? -41.0 : 9.0; });
  ASSERT_EQ(image->Do(1, 1, 8, 1, nullptr, 0), 1);
  EXPECT_TRUE(debug.Has("List of pixels below threshold -40 (-5 sigma)"));
  EXPECT_TRUE(debug.Has("pixel (3,4); value -41"));
  EXPECT_EQ(debug.Count("pixel"), 1);
}

std::vector<double> Mem(const Field& field, double noise, int iterations) {
  const auto image = Make<CImgMem>(MemoryStore(), field.width, field.height, 1, field.Rule());
  EXPECT_EQ(image->Do(field.sigma, noise, iterations, nullptr, 0), 1);
  return Values(*image);
}

TEST(CImgMem, MeetsTheNoiseAndStaysAboveZero) {
  for (const int seed : {1, 2, 3}) {
    const Field field(seed);
    for (const double factor : {2.0, 4.0}) {
      DebugLines debug;
      const double noise = factor * field.Deviation(field.sky);
      const auto values = Mem(field, noise, 60);
      EXPECT_GT(*std::min_element(values.begin(), values.end()), 0);
      const Plane estimate = PlaneOf(field, values);
      const double chi =
          MeanSquare(field, Blurred(estimate, field.sigma), [&](double) { return noise * noise; });
      EXPECT_NEAR(chi, 1, 0.1) << seed;
      EXPECT_LT(debug.Count("main iter"), 60) << "it knows when it is done";
      EXPECT_LT(field.Error(values), field.Error(field.data.cells)) << seed;
      EXPECT_NEAR(estimate.Sum() / field.data.Sum(), 1, 0.02);
    }
  }
}

TEST(CImgMem, IsTheLargestEntropyOfAllThatExplainTheData) {
  // The slopes of entropy and misfit are along one line: no change of cells gains one for the other.
  const Field field;
  const double noise = 3 * field.Deviation(field.sky), mean = field.data.Sum() / field.data.cells.size();
  const Plane estimate = PlaneOf(field, Mem(field, noise, 200));
  Plane residue = Blurred(estimate, field.sigma);
  for (size_t i = 0; i < residue.cells.size(); ++i) {
    residue.cells[i] = field.data.cells[i] - residue.cells[i];
  }
  residue = Blurred(residue, field.sigma);
  double both = 0, entropy = 0, misfit = 0;
  for (int y = 20; y < field.height - 20; ++y) {
    for (int x = 20; x < field.width - 20; ++x) {
      const double e = estimate.Clamped(x, y), s = std::log(e / mean), r = residue.Clamped(x, y);
      both += e * s * r, entropy += e * s * s, misfit += e * r * r;
    }
  }
  EXPECT_GT(both / std::sqrt(entropy * misfit), 0.97);
}

/// What both have in common; noise only counts for maximum entropy.
struct Method {
  const char* name;
  std::function<int(CVelImage&, int iterations, CRect*, int show)> run;
  std::function<std::shared_ptr<CVelImage>(const std::shared_ptr<CVmManager>&, int, int, int,
                                           const PixelRule&)>
      make;
};

template <class Image, class F>
Method MethodOf(const char* name, F&& run) {
  return {name,
          [run](CVelImage& image, int iterations, CRect* rect, int show) {
            return run(dynamic_cast<Image&>(image), iterations, rect, show);
          },
          [](const std::shared_ptr<CVmManager>& store, int width, int height, int planes,
             const PixelRule& rule) -> std::shared_ptr<CVelImage> {
            return Make<Image>(store, width, height, planes, rule);
          }};
}

const std::vector<Method>& Methods() {
  static const std::vector<Method> methods = {
      MethodOf<CImgLucy>("Richardson-Lucy",
                         [](CImgLucy& image, int iterations, CRect* rect, int show) {
                           return image.Do(1.3, 2.0, 4.0, iterations, rect, show);
                         }),
      MethodOf<CImgMem>("maximum entropy", [](CImgMem& image, int iterations, CRect* rect, int show) {
        return image.Do(1.3, 20.0, iterations, rect, show);
      })};
  return methods;
}

/// A few stars, other ones on each plane.
double Stars(int p, int x, int y) {
  double sum = 200 + 50 * p + Random(-15, 15)(p, x, y);
  for (int i = 0; i < 3; ++i) {
    const double dx = x - 11 - 17 * i - p, dy = y - 9 - 13 * i + 2 * p;
    sum += 2000 * std::exp(-(dx * dx + dy * dy) / (2 * 1.3 * 1.3));
  }
  return sum;
}

/// With blank pixels strewn in, and a block of them.
double Holed(int p, int x, int y) {
  if (x > 30 && x < 48 && y > 20 && y < 39) return NAN;
  const double wild = Wild(0, 1)(p, x, y);
  return std::isfinite(wild) && wild > 0 && wild < 1 ? Stars(p, x, y) : wild > 0 && wild <= 1 ? 200 : wild;
}

TEST(Restorations, AreTheSameOnAllStoresAndPlaneByPlane) {
  for (const Method& method : Methods()) {
    std::vector<std::tuple<int, int, OptionalRect>> cases;
    for (const auto& [width, height] : Sizes()) {
      cases.emplace_back(width, height, std::nullopt);
    }
    for (const OptionalRect& rect : Windows(40, 47)) {
      cases.emplace_back(40, 47, rect);
    }
    for (auto& [width, height, rect] : cases) {
      const auto before = method.make(MemoryStore(), width, height, 3, Holed);
      std::vector<float> first;
      OnEveryForm([&, width = width, height = height, rect = rect](const StoreCase& store) mutable {
        const auto image = method.make(store.make(), width, height, 3, Holed);
        ASSERT_EQ(method.run(*image, 3, Address(rect), 0), 1);
        const auto pixels = Pixels(*image);
        if (first.empty()) first = pixels;
        for (size_t i = 0; i < pixels.size(); ++i) {
          ASSERT_TRUE(pixels[i] == first[i] || std::isnan(first[i]))
              << method.name << " " << store.name << " " << width << "x" << height << " pixel " << i;
        }
      });
      // The rectangle alone, of one plane, as an image by itself.
      OptionalRect clipped =
          rect ? CRect(std::clamp<int>(rect->left, 0, width), std::clamp<int>(rect->top, 0, height),
                       std::clamp<int>(rect->right, 0, width), std::clamp<int>(rect->bottom, 0, height))
               : CRect(0, 0, width, height);
      const int w = clipped->right - clipped->left, h = clipped->bottom - clipped->top;
      const bool empty = w <= 0 || h <= 0;
      const auto part = empty ? nullptr : method.make(MemoryStore(), w, h, 1, [&](int, int x, int y) {
        return Holed(1, x + clipped->left, y + clipped->top);
      });
      if (part) {
        ASSERT_EQ(method.run(*part, 3, nullptr, 0), 1);
      }
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const float was = before->GetPixelGrayRaw(x, y, 1);
          const float is = first[static_cast<size_t>(height + y) * width + x];
          const bool inside = !empty && IsInside(clipped, x, y);
          const float want = inside ? part->GetPixelGrayRaw(x - clipped->left, y - clipped->top, 0) : was;
          ASSERT_TRUE(is == want || (std::isnan(is) && std::isnan(want)))
              << method.name << " " << x << " " << y;
          if (!std::isfinite(was)) {
            ASSERT_TRUE(is == was || std::isnan(was)) << "blank pixels stay";
          } else {
            ASSERT_TRUE(std::isfinite(is))
                << method.name << ": blank pixels reach no other " << x << " " << y;
          }
        }
      }
    }
  }
}

TEST(Restorations, MakeStarsSmallerWhereTheyAre) {
  for (const Method& method : Methods()) {
    // Beside blank pixels and across the edge of the image too.
    for (const auto& [cx, cy] : {std::pair(40.0, 30.0), {40.3, 29.6}, {0.0, 30.0}, {64.0, 47.0}}) {
      for (const bool blank : {false, true}) {
        const auto image = method.make(MemoryStore(), 65, 48, 1, [&, cx = cx, cy = cy](int, int x, int y) {
          const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
          return blank && x == static_cast<int>(cx) - 2 ? NAN : 100 + 5000 * std::exp(-r2 / (2 * 1.5 * 1.5));
        });
        ASSERT_EQ(method.run(*image, 20, nullptr, 0), 1);
        double all = 0, sum = 0, x1 = 0, y1 = 0, peak = 0;
        for (int y = 0; y < 48; ++y) {
          for (int x = 0; x < 65; ++x) {
            const double v = image->GetPixelGrayRaw(x, y, 0) - 100;
            if (std::isfinite(v)) all += v;
            if (!(v > 100)) continue;
            sum += v, x1 += v * x, y1 += v * y, peak = std::max(peak, v);
          }
        }
        const bool edge = cx == 0 || cx == 64;
        EXPECT_GT(peak, 6000) << method.name << " at " << cx << " " << cy;
        if (edge || blank) continue;
        EXPECT_NEAR(x1 / sum, cx, 0.05) << method.name;
        EXPECT_NEAR(y1 / sum, cy, 0.05) << method.name;
        EXPECT_NEAR(all, 5000 * 2 * 3.14159 * 1.5 * 1.5, 0.05 * (all + 65 * 48 * 100)) << method.name;
      }
    }
  }
}

TEST(Restorations, LeaveAConstantUpToTheEdges) {
  for (const Method& method : Methods()) {
    for (const auto& [width, height] : Sizes()) {
      const auto image = method.make(MemoryStore(), width, height, 1,
                                     [](int, int x, int y) { return x == 2 && y == 1 ? NAN : 500.0; });
      ASSERT_EQ(method.run(*image, 10, nullptr, 0), 1);
      EXPECT_EQ(Difference(
                    *image, [](int, int x, int y) { return x == 2 && y == 1 ? NAN : 500.0; }, 1e-4),
                "")
          << method.name << " " << width << " x " << height;
    }
  }
}

TEST(Restorations, LeaveTheImageWhenThereIsNothingToDo) {
  const auto lucy = Make<CImgLucy>(MemoryStore(), 9, 9, 1, Random(0, 9));
  const auto mem = Make<CImgMem>(MemoryStore(), 9, 9, 1, Random(0, 9));
  const auto before = Pixels(*lucy);
  for (const double bad : {0.0, -1.0, std::nan("")}) {
    EXPECT_EQ(lucy->Do(bad, 1, 1, 5, nullptr, 0), 0);
    EXPECT_EQ(lucy->Do(1, bad, 1, 5, nullptr, 0), 0);
    EXPECT_EQ(mem->Do(bad, 1, 5, nullptr, 0), 0);
    EXPECT_EQ(mem->Do(1, bad, 5, nullptr, 0), 0);
  }
  for (const int none : {0, -3}) {
    EXPECT_EQ(lucy->Do(1, 1, 1, none, nullptr, 0), 1);
    EXPECT_EQ(mem->Do(1, 1, none, nullptr, 0), 1);
  }
  EXPECT_EQ(Pixels(*lucy), before);
  EXPECT_EQ(Pixels(*mem), before);
  // Nothing but blank pixels, zeros or less.
  for (const double value : {std::nan(""), 0.0, -7.0}) {
    for (const Method& method : Methods()) {
      const auto image = method.make(MemoryStore(), 9, 7, 1, [=](int, int, int) { return value; });
      ASSERT_EQ(method.run(*image, 3, nullptr, 0), 1);
      for (const float v : Pixels(*image)) {
        EXPECT_EQ(std::isnan(v), std::isnan(value)) << method.name;
        EXPECT_FALSE(std::isinf(v)) << method.name;
      }
    }
  }
}

TEST(CImgLucy, KeepsTheLightHoweverFewTheSteps) {
  for (const int steps : {1, 3, 20}) {
    for (const double background : {0.0, 60.0}) {
      const auto image = Make<CImgLucy>(MemoryStore(), 160, 130, 1, [](int p, int x, int y) {
        // Stars well within the edges, on a sky with noise.
        double sum = 100 + 8 * Random(-1, 1)(p, x, y);
        for (int i = 0; i < 12; ++i) {
          const double dx = x - 25 - 35 * (i % 4), dy = y - 25 - 38 * (i / 4);
          sum += (300 + 500 * i) * std::exp(-(dx * dx + dy * dy) / (2 * 1.7 * 1.7));
        }
        return sum;
      });
      const auto sum = [&] {
        const auto pixels = Pixels(*image);
        return std::accumulate(pixels.begin(), pixels.end(), 0.0);
      };
      const double before = sum();
      ASSERT_EQ(image->DoAboveBackground(1.7, 1e3, 1, steps, &background, nullptr, 0), 1);
      EXPECT_NEAR(sum() / before, 1, 1e-3) << steps << " steps above " << background;
    }
  }
}

TEST(Restorations, EscapeLeavesTheImage) {
  for (const Method& method : Methods()) {
    for (const int at : {2, 6}) {  // in the first plane and the second
      DebugLines debug;
      std::vector<std::wstring> texts;
      HWND window = nullptr;
      window = CreateMessageWindow([&](unsigned message, std::uintptr_t first, std::intptr_t second) {
        if (message == kProgressMessage && first == 4) {
          texts.emplace_back(reinterpret_cast<const wchar_t*>(second));
          if (std::count_if(texts.begin(), texts.end(),
                            [](const auto& t) { return t.find(L"回目") != t.npos; }) == at) {
            PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0);
          }
        }
        return 0;
      });
      const auto image = method.make(MemoryStore(), 40, 30, 3, Stars);
      const auto before = Pixels(*image);
      image->SetProgressHandle(window);
      EXPECT_EQ(method.run(*image, 4, nullptr, 1), 0) << method.name;
      EXPECT_EQ(Pixels(*image), before) << method.name;
      EXPECT_TRUE(debug.Has(Narrow(LoadString(6149))));
      EXPECT_NE(texts.back().find(at == 2 ? L"プレーン 1 (2回目)" : L"プレーン 2 (2回目)"),
                std::wstring::npos);
      DestroyMessageWindow(window);
    }
  }
}

TEST(Restorations, NoRoomLeavesTheImage) {
  for (const Method& method : Methods()) {
    DebugLines debug;
    // The image fits, and hardly anything beside it, in memory or in a directory that there is not.
    const auto store = CreateContiguousManager({.budget = 4 << 20, .swapDirectory = "/there/is/none"});
    const auto image = method.make(store, 512, 512, 1, Stars);
    const auto before = Pixels(*image);
    EXPECT_EQ(method.run(*image, 2, nullptr, 0), 0) << method.name;
    EXPECT_EQ(Pixels(*image), before);
    EXPECT_TRUE(debug.Has(Narrow(LoadString(6148))));
  }
}

}  // namespace
