#include "session/develop/DevelopedNoise.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "korimg/image/internal/Lines.h"

#include "session/picture/Image.h"
#include "session/simulate/internal/Random.h"

namespace korimg::session {
namespace {

// Chosen: 130000 pixels tell a deviation to 0.2 %, and noise so far below the light changes no weights.
constexpr int kSide = 384, kEdge = 8;  // pixels
constexpr double kLevel = 4000, kNoise = 20;
constexpr int kAll = -1;

/// An even field with noise on the sites of one colour, or of all.
std::unique_ptr<CVelImage> NoisyField(const std::shared_ptr<CVmManager>& store, int cfa, int colour) {
  auto image = NewImage(store, kSide, kSide, 1);
  image->SetLevel(0, 0, 65535);
  Random random({1, static_cast<std::uint64_t>(colour + 1)});
  for (int y = 0; y < kSide; ++y) {
    float* row = image->GetWritableLine(0, y, 0);
    for (int x = 0; x < kSide; ++x) {
      const int own = files::ColourOfSite(cfa, x, y);
      const double noise = kNoise * random.Normal();
      row[x] = own < 0 ? 0 : static_cast<float>(kLevel + (colour == kAll || own == colour ? noise : 0));
    }
  }
  return image;
}

/// Variances by row and column in the period, and plane.
std::vector<double> VariancesOf(CVelImage& image, int period) {
  std::vector<double> variances;
  for (int y0 = 0; y0 < period; ++y0) {
    for (int x0 = 0; x0 < period; ++x0) {
      for (int p = 0; p < image.GetPlanes(); ++p) {
        double sum = 0, squares = 0, count = 0;
        for (int y = kEdge + y0; y < image.GetHeight() - kEdge; y += period) {
          const float* row = image.GetLine(0, y, p);
          for (int x = kEdge + x0; x < image.GetWidth() - kEdge; x += period) {
            sum += row[x];
            squares += static_cast<double>(row[x]) * row[x];
            count += 1;
          }
        }
        variances.push_back((squares - sum * sum / count) / (count - 1));
      }
    }
  }
  return variances;
}

/// Keys' kernel at a place between the second and the third of four pixels.
std::array<double, 4> BicubicWeights(double f) {
  const double g = 1 - f;
  return {-0.5 * f * g * g, g * (1 + f - 1.5 * f * f), f * (1 + g - 1.5 * g * g), -0.5 * g * f * f};
}

/// Of a plane of noise on an even field.
double CorrelationOf(CVelImage& image, int plane) {
  constexpr int kParts = 4;  // of a pixel, along each axis; chosen
  const int width = image.GetWidth() - 2 * kEdge, height = image.GetHeight() - 2 * kEdge;
  double found = 0, independent = 0, mean = 0, variance = 0;
  std::vector<std::vector<double>> rows(height, std::vector<double>(width));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      rows[y][x] = *image.GetLine(x + kEdge, y + kEdge, plane);
      mean += rows[y][x] / width / height;
    }
  }
  for (auto& row : rows) {
    for (double& v : row) {
      v -= mean;
      variance += v * v / width / height;
    }
  }
  for (int i = 0; i < kParts * kParts; ++i) {
    const auto across = BicubicWeights((i % kParts + 0.5) / kParts),
               down = BicubicWeights((i / kParts + 0.5) / kParts);
    double squares = 0;
    for (int y = 0; y + 4 <= height; ++y) {
      for (int x = 0; x + 4 <= width; ++x) {
        double value = 0;
        for (int j = 0; j < 16; ++j) {
          value += down[j / 4] * across[j % 4] * rows[y + j / 4][x + j % 4];
        }
        squares += value * value;
      }
    }
    const auto sumOfSquares = [](const std::array<double, 4>& w) {
      return std::inner_product(w.begin(), w.end(), w.begin(), 0.0);
    };
    found += squares / (width - 3) / (height - 3);
    independent += variance * sumOfSquares(across) * sumOfSquares(down);
  }
  return found / independent;
}

}  // namespace

DevelopedNoise::DevelopedNoise(Job& job, const files::Mosaic& mosaic, const WhiteBalance& balance,
                               const DevelopOptions& options)
    : cfa_(mosaic.cfa),
      part_(options.half ? 2 : 1),
      period_(options.half               ? 1
              : files::IsHoneycomb(cfa_) ? 4
                                         : 2),
      reach_(options.half               ? 0
             : files::IsHoneycomb(cfa_) ? 2
                                        : 1),
      shares_(static_cast<size_t>(period_) * period_ * kColours * kColours) {
  if (options.gamma != 1) throw UsageError("an uncertainty is not known of what has a gamma; leave one out");
  static_assert(kEdge % 4 == 0);
  const auto store = job.MakeStore();
  const auto develop = [&](int colour) {
    const auto field = NoisyField(store, cfa_, colour);
    files::ImageInfo info;
    Development development(MosaicSource(*field), info, mosaic, balance, options);
    return development.Rows(0, development.Size().height);
  };
  const auto developed = develop(kAll);
  const int planes = developed->GetPlanes();
  for (int p = 0; p < planes; ++p) {
    correlation_[p] = CorrelationOf(*developed, p);
  }
  const std::vector<double> all = VariancesOf(*developed, period_);
  std::vector<double> single[kColours];
  for (int c = 0; c < kColours; ++c) {
    single[c] = VariancesOf(*develop(c), period_);
  }
  for (int i = 0; i < period_ * period_ * planes; ++i) {
    double sum = 0;
    for (const auto& variances : single) {
      sum += variances[i];
    }
    for (int c = 0; c < kColours; ++c) {
      const int place = i / planes;
      shares_[ShareAt(place % period_, place / period_, i % planes, c)] =
          all[i] / (kNoise * kNoise) * (sum > 0 ? single[c][i] / sum : 0);
    }
  }
}

void DevelopedNoise::Fill(const QualityRows& mosaic, const QualityRows& to) const {
  const Band<float>&from = mosaic.variance, &bits = mosaic.mask;
  const Band<float>& any = to.variance.Planes() > 0 ? to.variance : to.mask;
  const Band<float>& source = from.Planes() > 0 ? from : bits;
  ForLines(Team::All, any.Top(), any.Bottom(), [&](int y) {
    const int top = std::max(y * part_ - reach_, source.Top()),
              bottom = std::min(y * part_ + part_ + reach_, source.Bottom());
    for (int x = 0; x < any.Width(); ++x) {
      const int left = std::max(x * part_ - reach_, 0),
                right = std::min(x * part_ + part_ + reach_, source.Width());
      double sums[kColours] = {}, counts[kColours] = {};
      int found = 0;
      for (int v = top; v < bottom; ++v) {
        for (int u = left; u < right; ++u) {
          const int colour = files::ColourOfSite(cfa_, u, v);
          if (colour < 0) continue;
          if (bits.Planes() > 0) found |= static_cast<int>(bits.Row(0, v)[u]);
          if (from.Planes() == 0) continue;
          sums[colour] += from.Row(0, v)[u];
          counts[colour] += 1;
        }
      }
      if (from.Planes() > 0 && part_ == 1) {
        // Its own photosite says more than the others of its colour.
        if (const int own = files::ColourOfSite(cfa_, x, y); own >= 0) {
          sums[own] = from.Row(0, y)[x];
          counts[own] = 1;
        }
      }
      for (int p = 0; p < any.Planes(); ++p) {
        if (to.mask.Planes() > 0) to.mask.Row(p, y)[x] = static_cast<float>(found);
        if (to.variance.Planes() == 0) continue;
        double variance = 0;
        for (int c = 0; c < kColours; ++c) {
          if (counts[c] > 0) variance += shares_[ShareAt(x, y, p, c)] * sums[c] / counts[c];
        }
        to.variance.Row(p, y)[x] = static_cast<float>(variance);
      }
    }
  });
}

}  // namespace korimg::session
