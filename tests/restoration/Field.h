// A blurred field of stars with its truth, and what restorations of it are measured by.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/support/Images.h"

namespace korimg::test {

/// A plane of doubles; beyond it there is what there is at the nearest edge.
struct Plane {
  int width, height;
  std::vector<double> cells = std::vector<double>(static_cast<size_t>(width) * height);

  double& At(int x, int y) { return cells[static_cast<size_t>(y) * width + x]; }
  double Clamped(int x, int y) const {
    return cells[static_cast<size_t>(std::clamp(y, 0, height - 1)) * width + std::clamp(x, 0, width - 1)];
  }
  double Sum() const {
    double sum = 0;
    for (const double v : cells) {
      sum += v;
    }
    return sum;
  }
};

/// Blurs by a Gaussian, cell by cell.
inline Plane Blurred(const Plane& from, double sigma) {
  const int reach = static_cast<int>(std::ceil(6 * sigma));
  std::vector<double> weights(reach + 1);
  double whole = 0;
  for (int i = 0; i <= reach; ++i) {
    weights[i] = std::exp(-i * i / (2 * sigma * sigma));
    whole += (i ? 2 : 1) * weights[i];
  }
  Plane to = from;
  for (const int dx : {1, 0}) {
    const Plane source = to;
    for (int y = 0; y < to.height; ++y) {
      for (int x = 0; x < to.width; ++x) {
        double sum = 0;
        for (int i = -reach; i <= reach; ++i) {
          sum += weights[std::abs(i)] * source.Clamped(x + i * dx, y + i * (1 - dx));
        }
        to.At(x, y) = sum / whole;
      }
    }
  }
  return to;
}

/// A repeatable number of mean 0 and deviation 1, nearly normal.
inline double Normal(std::uint64_t n) {
  double sum = -6;
  for (int i = 0; i < 12; ++i) {
    sum += Noise(12 * n + i);
  }
  return sum;
}

/// Stars on a sky, blurred by a Gaussian, with the noise of counts and of reading.
struct Field {
  int width = 160, height = 144;
  double sigma = 2, gain = 1.5, readNoise = 8, sky = 300;
  int seed;
  Plane truth{width, height}, clean{width, height}, data{width, height};

  explicit Field(int seed = 1) : seed(seed) {
    Plane stars{width, height};
    for (int i = 0; i < 40; ++i) {
      const auto random = [&](int k) { return Noise(seed * 1000 + 3 * i + k); };
      const int x = 8 + static_cast<int>(random(0) * (width - 16)),
                y = 8 + static_cast<int>(random(1) * (height - 16));
      stars.At(x, y) += 500 * std::pow(200, random(2));
    }
    Fill([&](int x, int y) { return stars.At(x, y); });
  }
  /// Stars by a rule in the place of those.
  template <class F>
  void Fill(F&& light) {
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        truth.At(x, y) = sky + light(x, y);
      }
    }
    clean = Blurred(truth, sigma);
    for (size_t i = 0; i < data.cells.size(); ++i) {
      data.cells[i] = clean.cells[i] + Normal(i + 7777777 * seed) * Deviation(clean.cells[i]);
    }
  }
  double Deviation(double level) const { return std::sqrt(gain * level + readNoise * readNoise) / gain; }
  PixelRule Rule() const {
    return [this](int, int x, int y) { return data.Clamped(x, y); };
  }
  /// Of an estimate, to the truth.
  double Error(const std::vector<double>& estimate) const {
    double difference = 0, all = 0;
    for (size_t i = 0; i < estimate.size(); ++i) {
      difference += (estimate[i] - truth.cells[i]) * (estimate[i] - truth.cells[i]);
      all += truth.cells[i] * truth.cells[i];
    }
    return std::sqrt(difference / all);
  }
};

/// Runs a case on every store, on one thread in short vectors and on eight in long ones.
inline void OnEveryForm(const std::function<void(const StoreCase&)>& run) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [threads, features] : {std::pair(1, 2u), {8, ~0u}}) {
      const WithThreads team(threads);
      const WithFeatures simd(features);
      run(store);
    }
  }
}

inline std::vector<double> Values(CVelImage& image) {
  const auto pixels = Pixels(image);
  return {pixels.begin(), pixels.end()};
}

}  // namespace korimg::test
