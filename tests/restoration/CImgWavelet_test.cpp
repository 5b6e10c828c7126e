#include "korimg/restoration/CImgWavelet.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "korimg/image/Progress.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

using Signal = std::vector<double>;
using Gains = CArray<float, float>;

/// A transform whose steps can be called one by one.
struct Wavelet : CImgWavelet {
  explicit Wavelet(int order) { SetDaubechyParams(order); }
  std::vector<double> Split(const std::vector<double>& signal) { return Run(signal, &Wavelet::Wavelet1d); }
  std::vector<double> Join(const std::vector<double>& signal) { return Run(signal, &Wavelet::InvWavelet1d); }
  using CImgWavelet::InvWavelet2d;
  using CImgWavelet::Wavelet2d;

 private:
  std::vector<double> Run(const std::vector<double>& signal, void (CImgWavelet::*step)(Gains*)) {
    Gains cells;
    for (const double v : signal) {
      cells.Add(static_cast<float>(v));
    }
    (this->*step)(&cells);
    return {cells.GetData(), cells.GetData() + cells.GetSize()};
  }
};

/// The scaling filter of an order, whose sum is the square root of 2, from the low passes of two impulses.
Signal ScalingFilter(int order) {
  Signal h;
  for (int k = 0; k < 2 * order; ++k) {
    Signal impulse(40);
    impulse[20 + k % 2] = 1;
    h.push_back(Wavelet(order).Split(impulse)[10 - k / 2] * std::sqrt(2));
  }
  return h;
}

/// The transform by its definition, of a periodic signal of any length.
struct Reference {
  Signal h, g;

  explicit Reference(int order) : h(ScalingFilter(order)) {
    for (size_t k = 0; k < h.size(); ++k) {
      h[k] *= std::sqrt(2);
    }
    for (size_t k = 0; k < h.size(); ++k) {
      g.push_back((k % 2 ? -1 : 1) * h[h.size() - 1 - k]);
    }
  }
  Signal Split(const Signal& a) const {
    Signal result = a;
    const size_t n = a.size();
    for (size_t i = 0; i < n / 2; ++i) {
      result[i] = result[n / 2 + i] = 0;
      for (size_t k = 0; k < h.size(); ++k) {
        result[i] += h[k] / 2 * a[(2 * i + k) % n];
        result[n / 2 + i] += g[k] / 2 * a[(2 * i + k) % n];
      }
    }
    return result;
  }
  Signal Join(const Signal& a) const {
    const int n = static_cast<int>(a.size()), taps = static_cast<int>(h.size());
    if (n < 2) return a;
    Signal result(n);
    for (int j = 0; j < n; ++j) {
      for (int k = 0; k < taps; ++k) {
        const int place = ((j - k) % n + n) % n;
        if (place % 2 || place / 2 >= n / 2) continue;
        result[j] += h[k] * a[place / 2] + g[k] * a[n / 2 + place / 2];
      }
    }
    return result;
  }
};

/// A plane in double, and its corner's lines.
struct PlaneOfDoubles {
  int width, height;
  Signal pixels;

  PlaneOfDoubles(CVelImage& image, int p) : width(image.GetWidth()), height(image.GetHeight()) {
    for (int y = 0; y < height; ++y) {
      const float* line = image.GetLine(0, y, p);
      pixels.insert(pixels.end(), line, line + width);
    }
  }
  double& At(int x, int y) { return pixels[static_cast<size_t>(y) * width + x]; }
  /// Columns (or rows) of the corner become what step makes of them.
  template <class F>
  void ForLines(bool columns, int w, int h, F&& step) {
    for (int i = 0; i < (columns ? w : h); ++i) {
      Signal line;
      for (int j = 0; j < (columns ? h : w); ++j) {
        line.push_back(columns ? At(i, j) : At(j, i));
      }
      line = step(line);
      for (int j = 0; j < (columns ? h : w); ++j) {
        (columns ? At(i, j) : At(j, i)) = line[j];
      }
    }
  }
};

Gains MakeGains(const std::vector<float>& values) {
  Gains gains;
  for (const float v : values) {
    gains.Add(v);
  }
  return gains;
}

struct Case {
  int order, levels, width, height;
};
/// Buffers that levels divide, in widths about a block of columns, and ones that they do not.
const std::vector<Case> kCases = {{1, 1, 2, 2},    {4, 3, 16, 16}, {2, 2, 72, 12}, {10, 1, 4, 140},
                                  {7, 3, 136, 72}, {4, 4, 64, 48}, {3, 0, 9, 7},   {5, 2, 13, 21},
                                  {2, 6, 1, 1},    {6, 40, 33, 1}};

TEST(CImgWavelet, FiltersAreThoseOfDaubechies) {
  const std::vector<std::vector<double>> begins = {{0.70710678, 0.70710678},
                                                   {0.4829629, 0.8365163, 0.2241439, -0.1294095},
                                                   {0.33267054, 0.8068915},
                                                   {0.23037781, 0.71484655}};
  for (int order = 1; order <= 10; ++order) {
    const Signal h = ScalingFilter(order);
    for (size_t k = 0; order <= 4 && k < begins[order - 1].size(); ++k) {
      EXPECT_NEAR(h[k], begins[order - 1][k], 1e-7) << order;
    }
    // Orthonormal to their even shifts, blind to polynomials below their order, and of least delay: all
    // partial sums of energy are as large as they can be, the first coefficients the larger ones.
    double front = 0;
    for (int shift = 0; shift < order; ++shift) {
      double product = 0;
      for (int k = 0; k + 2 * shift < 2 * order; ++k) {
        product += h[k] * h[k + 2 * shift];
      }
      EXPECT_NEAR(product, shift == 0, 1e-6) << order;
    }
    for (int power = 0; power < order; ++power) {
      double moment = 0, size = 0;
      for (int k = 0; k < 2 * order; ++k) {
        moment += (k % 2 ? -1 : 1) * h[k] * std::pow(k, power);
        size += std::abs(h[k]) * std::pow(k, power);
      }
      EXPECT_NEAR(moment / size, 0, 1e-6) << order << " moment " << power;
    }
    for (int k = 0; k < order; ++k) {
      front += h[k] * h[k];
    }
    EXPECT_GE(front, 0.4999) << order;
  }
}

TEST(CImgWavelet, SignalsOfAnyLength) {
  for (const int order : {1, 2, 3, 10}) {
    const Reference reference(order);
    for (const int n : {0, 1, 2, 3, 5, 6, 17, 40, 128, 131, 200}) {
      Signal signal;
      for (int i = 0; i < n; ++i) {
        signal.push_back(static_cast<float>(Noise(i + 100 * n)));
      }
      const Signal split = Wavelet(order).Split(signal), want = reference.Split(signal);
      const Signal joined = Wavelet(order).Join(signal), wantJoined = reference.Join(signal);
      for (int i = 0; i < n; ++i) {
        EXPECT_NEAR(split[i], want[i], 1e-6) << order << " split " << i << " of " << n;
        EXPECT_NEAR(joined[i], wantJoined[i], 2e-6) << order << " joined " << i << " of " << n;
      }
    }
  }
}

TEST(CImgWavelet, BandsAreThoseOfTheDefinition) {
  for (const Case& c : kCases) {
    const Reference reference(c.order);
    std::vector<float> first;
    OnEveryPath([&](const StoreCase& store) {
      const auto buffer = Make(store.make(), c.width, c.height, 3, Wild(-1, 1));
      std::vector<PlaneOfDoubles> want;
      for (int p = 0; p < 3; ++p) {
        want.emplace_back(*buffer, p);
        for (int level = 0, w = c.width, h = c.height; level < c.levels; ++level, w /= 2, h /= 2) {
          for (const bool columns : {true, false}) {
            want[p].ForLines(columns, w, h, [&](const Signal& line) { return reference.Split(line); });
          }
        }
      }
      ASSERT_EQ(Wavelet(c.order).DoMultiResSubbandDecomposition(buffer.get(), c.levels, 0), 1);
      ASSERT_EQ(Difference(
                    *buffer, [&](int p, int x, int y) { return want[p].At(x, y); }, 1e-5),
                "")
          << store.name << " order " << c.order << " levels " << c.levels;
      const auto pixels = Pixels(*buffer);
      if (first.empty()) first = pixels;
      for (size_t i = 0; i < pixels.size(); ++i) {
        ASSERT_TRUE(pixels[i] == first[i] || std::isnan(first[i])) << store.name << " has other bits";
      }
    });
  }
}

TEST(CImgWavelet, BandsAreWeighedAndPutTogether) {
  std::vector<float> cells[3];
  for (int i = 0; i < 40; ++i) {
    for (int d = 0; d < 3; ++d) {
      cells[d].push_back(i % 3 == d ? 1.0f : static_cast<float>(0.3 + d + 0.25 * i));
    }
  }
  for (const Case& c : kCases) {
    const Reference reference(c.order);
    OnEveryPath([&](const StoreCase& store) {
      const auto buffer = Make(store.make(), c.width, c.height, 3, Wild(-100, 100));
      std::vector<PlaneOfDoubles> want;
      for (int p = 0; p < 3; ++p) {
        want.emplace_back(*buffer, p);
        const double middle = (buffer->GetLevelMin(p) + buffer->GetLevelMax(p)) / 2;
        for (int level = c.levels - 1; level >= 0; --level) {
          const int w = level > 9 ? 0 : c.width >> level, h = level > 9 ? 0 : c.height >> level;
          for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
              double& v = want[p].At(x, y);
              if (x >= w / 2) {
                v *= cells[y < h / 2 ? 0 : 2][level];
              } else if (y >= h / 2) {
                v *= cells[1][level];
              } else if (level == c.levels - 1) {
                v = (v - middle) * 0.5 + middle;
              }
            }
          }
          for (const bool columns : {false, true}) {
            want[p].ForLines(columns, w, h, [&](const Signal& line) { return reference.Join(line); });
          }
        }
      }
      auto h = MakeGains(cells[0]), v = MakeGains(cells[1]), d = MakeGains(cells[2]);
      ASSERT_EQ(Wavelet(c.order).DoMultiResSubbandComposition(buffer.get(), c.levels, 0.5f, &h, &v, &d, 0),
                1);
      ASSERT_EQ(Difference(
                    *buffer, [&](int p, int x, int y) { return want[p].At(x, y); }, 2e-4),
                "")
          << store.name << " order " << c.order << " levels " << c.levels;
    });
  }
}

TEST(CImgWavelet, GainsOfOneGiveTheImageBack) {
  for (int order = 1; order <= 10; ++order) {
    for (const auto& [width, height] : Sizes()) {
      const auto image = Make(MemoryStore(), width, height, 3, Random(-5000, 60000));
      const auto back = Make(MemoryStore(), width, height, 3, Random(0, 1));
      Wavelet wavelet(order);
      CRect whole(0, 0, width, height), size;
      wavelet.CalcBufferSize(&whole, 3, &size);
      const auto buffer = Make(MemoryStore(), size.Width(), size.Height(), 3, Random(0, 1));
      auto ones = MakeGains({1, 1, 1});
      wavelet.CopyToBuffer(image.get(), buffer.get(), nullptr);
      ASSERT_EQ(wavelet.DoMultiResSubbandDecomposition(buffer.get(), 3, 0), 1);
      ASSERT_EQ(wavelet.DoMultiResSubbandComposition(buffer.get(), 3, 1, &ones, &ones, &ones, 0), 1);
      wavelet.CopyFromBuffer(buffer.get(), nullptr, back.get());
      const auto want = Pixels(*image), got = Pixels(*back);
      for (size_t i = 0; i < want.size(); ++i) {
        ASSERT_NEAR(got[i], want[i], 65000 * 2e-6) << "order " << order << " at " << i;
      }
    }
  }
}

TEST(CImgWavelet, OrdersBeyondTheTables) {
  const Signal signal = {5, 3, 8, 1, 9, 2};
  const Signal nothing(6), ofFour = Wavelet(4).Split(signal);
  for (const int order : {0, -1, std::numeric_limits<int>::min()}) {
    Wavelet wavelet(4);
    wavelet.SetDaubechyParams(order);
    EXPECT_EQ(wavelet.Split(signal), nothing) << order;
  }
  for (const int order : {11, std::numeric_limits<int>::max()}) {
    Wavelet wavelet(10);
    wavelet.SetDaubechyParams(4);
    wavelet.SetDaubechyParams(order);
    EXPECT_EQ(wavelet.Split(signal), ofFour) << order;
  }
}

TEST(CImgWavelet, SizesOfBuffers) {
  constexpr int kMost = std::numeric_limits<int>::max();
  for (const auto& [rect, levels, width, height] :
       std::vector<std::tuple<CRect, int, int, int>>{{CRect(0, 0, 100, 60), 3, 104, 64},
                                                     {CRect(7, 9, 12, 14), 3, 16, 16},
                                                     {CRect(0, 0, 1, 1), 1, 4, 4},
                                                     {CRect(0, 0, 64, 65), 4, 64, 80},
                                                     {CRect(3, 0, 10, 5), 0, 7, 5},
                                                     {CRect(0, 0, 7, 5), -2, 7, 5},
                                                     {CRect(0, 0, 7, 5), 30, kMost, kMost},
                                                     {CRect(0, 0, 7, 5), 99, kMost, kMost}}) {
    CRect given = rect, size(1, 2, 3, 4);
    CImgWavelet().CalcBufferSize(&given, levels, &size);
    EXPECT_EQ(size, CRect(0, 0, width, height)) << levels;
  }
}

TEST(CImgWavelet, BuffersTakeARectangleAndRepeatItsEdges) {
  for (const StoreCase& store : Stores()) {
    for (const auto& rect : Windows(71, 67)) {
      for (const auto& [width, height] : {std::pair(80, 72), {40, 30}, {1, 1}}) {
        const auto image = Make(store.make(), 71, 67, 3, Wild(0, 1));
        const auto buffer = Make(image->VmManager(), width, height, 3, Random(2, 3));
        const auto target = Make(image->VmManager(), 71, 67, 3, Random(4, 5));
        OptionalRect given = rect;
        CImgWavelet wavelet;
        wavelet.CopyToBuffer(image.get(), buffer.get(), Address(given));
        const CRect r = rect.value_or(CRect(0, 0, 71, 67));
        const int left = std::clamp(static_cast<int>(r.left), 0, 71),
                  top = std::clamp(static_cast<int>(r.top), 0, 67),
                  right = std::clamp(static_cast<int>(r.right), 0, 71),
                  bottom = std::clamp(static_cast<int>(r.bottom), 0, 67);
        const bool empty = left >= right || top >= bottom;
        ASSERT_EQ(Difference(
                      *buffer,
                      [&](int p, int x, int y) {
                        if (empty) return static_cast<double>(static_cast<float>(Random(2, 3)(p, x, y)));
                        return static_cast<double>(image->GetPixelGrayRaw(std::min(left + x, right - 1),
                                                                          std::min(top + y, bottom - 1), p));
                      },
                      0),
                  "");
        Paint(*buffer, Random(2, 3));
        wavelet.CopyFromBuffer(buffer.get(), Address(given), target.get());
        ASSERT_EQ(Difference(
                      *target,
                      [&, width = width, height = height](int p, int x, int y) -> double {
                        const bool inside = x >= left && x < right && y >= top && y < bottom &&
                                            x - left < width && y - top < height;
                        return static_cast<float>(inside ? Random(2, 3)(p, x - left, y - top)
                                                         : Random(4, 5)(p, x, y));
                      },
                      0),
                  "");
      }
    }
  }
}

TEST(CImgWavelet, GainsOfEachLevelAreWanted) {
  const auto buffer = Make(MemoryStore(), 16, 16, 1, Random(0, 1));
  auto two = MakeGains({1, 1}), three = MakeGains({1, 1, 1});
  for (int few = 0; few < 3; ++few) {
    Gains* gains[] = {&three, &three, &three};
    gains[few] = &two;
    EXPECT_TRUE(ThrowsPointer<CInvalidArgException>([&] {
      Wavelet(2).DoMultiResSubbandComposition(buffer.get(), 3, 1, gains[0], gains[1], gains[2], 0);
    })) << few;
  }
}

TEST(CImgWavelet, EscapeStopsIt) {
  for (const int threads : {1, 8}) {
    const WithThreads team(threads);
    int closed = 0;
    HWND window = korimg::CreateMessageWindow([&](unsigned message, std::uintptr_t first, std::intptr_t) {
      closed += message == korimg::kProgressMessage && first == 2;
      return 0;
    });
    const auto buffer = Make(MemoryStore(), 256, 256, 3, Random(0, 1));
    const auto before = Pixels(*buffer);
    auto ones = MakeGains({1, 1});
    Wavelet wavelet(2);
    wavelet.SetProgressHandle(window);
    PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0);
    EXPECT_EQ(wavelet.DoMultiResSubbandDecomposition(buffer.get(), 2, 1), 0);
    const auto after = Pixels(*buffer);
    EXPECT_TRUE(std::equal(after.begin() + 256 * 256, after.end(), before.begin() + 256 * 256))
        << "the second plane is not reached";
    PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0);
    EXPECT_EQ(wavelet.DoMultiResSubbandComposition(buffer.get(), 2, 1, &ones, &ones, &ones, 1), 0);
    EXPECT_EQ(wavelet.DoMultiResSubbandDecomposition(buffer.get(), 2, 1), 1);
    EXPECT_EQ(closed, 3);
    korimg::DestroyMessageWindow(window);
  }
}

}  // namespace
