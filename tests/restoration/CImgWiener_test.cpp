#include "korimg/restoration/CImgWiener.h"

#include <bit>
#include <complex>
#include <numbers>

#include <gtest/gtest.h>

#include "tests/restoration/Field.h"

using namespace korimg::test;

namespace {

using Number = std::complex<double>;

/// The unitary transform by its definition, along rows and then columns.
std::vector<Number> Transform(std::vector<Number> data, int width, int height, int sign) {
  for (const bool rows : {true, false}) {
    const std::vector<Number> from = data;
    const int n = rows ? width : height;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        Number sum = 0;
        for (int i = 0; i < n; ++i) {
          const int k = (rows ? x : y) * i % n;
          sum += from[rows ? y * width + i : i * width + x] *
                 std::polar(1.0, sign * 2 * std::numbers::pi * k / n);
        }
        data[y * width + x] = sum / std::sqrt(n);
      }
    }
  }
  return data;
}

/// A rectangle of a plane as the filter restores it.
std::vector<double> Restored(CVelImage& image, int plane, const CRect& r, double sigma, double noise) {
  const int width = static_cast<int>(std::bit_ceil(static_cast<unsigned>(r.right - r.left)));
  const int height = static_cast<int>(std::bit_ceil(static_cast<unsigned>(r.bottom - r.top)));
  std::vector<Number> data(static_cast<size_t>(width) * height), blur = data;
  const double black = image.GetLevelMin(plane), range = image.GetLevelRange(plane);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double dx = std::min(x, width - x), dy = std::min(y, height - y);
      blur[y * width + x] = std::exp(-(dx * dx + dy * dy) / sigma / sigma) * 1000 * 0.5 / 3.14159;
      if (r.left + x >= r.right || r.top + y >= r.bottom) continue;
      const double v = image.GetPixelGrayRaw(r.left + x, r.top + y, plane);
      if (std::isfinite(v)) data[y * width + x] = (v - black) / range * 255;
    }
  }
  data = Transform(data, width, height, -1);
  blur = Transform(blur, width, height, -1);
  double largest = 0;
  for (const Number& b : blur) {
    largest = std::max(largest, std::norm(b));
  }
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] *= std::conj(blur[i]) / (std::norm(blur[i]) + largest * noise);
  }
  data = Transform(data, width, height, 1);
  std::vector<double> out;
  for (int y = 0; y < r.bottom - r.top; ++y) {
    for (int x = 0; x < r.right - r.left; ++x) {
      out.push_back(data[y * width + x].real() / 255 * range + black);
    }
  }
  return out;
}

/// Of values that are finite, against a tolerance that is relative to each: what the inverse filter makes of
/// noise is large, and rounds as the largest does.
double Largest(const std::vector<std::vector<double>>& planes) {
  double largest = 1;
  for (const auto& plane : planes) {
    for (const double v : plane) {
      largest = std::max(largest, std::abs(v) / 1000);
    }
  }
  return largest;
}

TEST(CImgWiener, IsTheFilterInDouble) {
  for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {32, 16}, {1, 21}, {33, 1}, {20, 37}}) {
    for (auto& window :
         {OptionalRect(), OptionalRect(CRect(0, 0, width, height)), OptionalRect(CRect(3, 5, 18, 14))}) {
      for (const auto& [sigma, noise] : {std::pair(0.7, 0.0), {1.4, 0.01}, {3.0, 0.1}}) {
        const auto before = Make<CImgWiener>(MemoryStore(), width, height, 3, Wild(100, 900));
        CRect w = window.value_or(CRect(0, 0, width, height));
        w.right = std::min<int>(w.right, width), w.bottom = std::min<int>(w.bottom, height);
        const bool empty = w.left >= w.right || w.top >= w.bottom;
        std::vector<std::vector<double>> expected(3);
        for (int p = 0; p < 3 && !empty; ++p) {
          expected[p] = Restored(*before, p, w, sigma, noise);
        }
        OnEveryForm(
            [&, sigma = sigma, noise = noise, width = width, height = height](const StoreCase& store) {
              OptionalRect rect = window;
              const auto image = Make<CImgWiener>(store.make(), width, height, 3, Wild(100, 900));
              ASSERT_EQ(image->Do(sigma, noise, Address(rect), 0), 1);
              const std::string difference = Difference(
                  *image,
                  [&](int p, int x, int y) -> double {
                    const float was = before->GetPixelGrayRaw(x, y, p);
                    const bool outside = empty || x < w.left || y < w.top || x >= w.right || y >= w.bottom;
                    if (outside || !std::isfinite(was)) return was;
                    return expected[p][(y - w.top) * (w.right - w.left) + x - w.left];
                  },
                  1e-4 * Largest(expected));
              EXPECT_EQ(difference, "") << store.name << " " << width << "x" << height << " sigma " << sigma;
            });
      }
    }
  }
}

TEST(CImgWiener, SharpensAndKeepsFlux) {
  const Field field;
  for (const double noise : {0.001, 0.1}) {
    const auto image = Make<CImgWiener>(MemoryStore(), field.width, field.height, 1, field.Rule());
    image->SetLevel(0, field.sky, 60000);
    const double before = field.Error(Values(*image));
    std::vector<float> first;
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      Paint(*image, field.Rule());
      ASSERT_EQ(image->DoKeepingFlux(field.sigma, noise, nullptr, 0), 1);
      const auto pixels = Pixels(*image);
      if (first.empty()) first = pixels;
      EXPECT_EQ(pixels, first);
    }
    const auto after = Values(*image);
    double sum = 0;
    for (const double v : after) {
      sum += v - field.sky;
    }
    EXPECT_NEAR(sum / (field.truth.Sum() - field.sky * after.size()), 1, 0.01) << noise;
    EXPECT_LT(field.Error(after), (noise < 0.01 ? 0.96 : 1) * before) << noise;
  }
}

TEST(CImgWiener, RefusesWhatIsNoBlur) {
  const auto image = Make<CImgWiener>(MemoryStore(), 9, 9, 1, Random(0, 9));
  const auto before = Pixels(*image);
  for (const auto& [sigma, noise] : {std::pair(0.0, 0.1), {-1.0, 0.1}, {NAN, 0.1}, {1.0, -0.1}, {1.0, NAN}}) {
    EXPECT_EQ(image->Do(sigma, noise, nullptr, 0), 0);
  }
  EXPECT_EQ(Pixels(*image), before);
}

TEST(CImgWiener, EscapeBeforeTheFirstStepLeavesTheImage) {
  HWND window = korimg::CreateMessageWindow([](unsigned, std::uintptr_t, std::intptr_t) { return 0; });
  const auto image = Make<CImgWiener>(MemoryStore(), 40, 30, 2, Random(100, 900));
  const auto before = Pixels(*image);
  image->SetProgressHandle(window);
  PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0);
  EXPECT_EQ(image->Do(1.5, 0.01, nullptr, 1), 0);
  EXPECT_EQ(Pixels(*image), before);
  EXPECT_EQ(image->Do(1.5, 0.01, nullptr, 1), 1);
  korimg::DestroyMessageWindow(window);
}

}  // namespace
