#include "session/stack/internal/Canvas.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"

#include "session/files/Formats.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/Image.h"

namespace korimg::session {
namespace {

/// Of the surfaces that bring frames together. Chosen: an edge that frames share tells no higher one.
constexpr int kDegree = 2;
constexpr int kNumbers = SmoothSurface::NumbersOf(kDegree);

/// What frames have in small squares of the canvas.
struct Cell {
  double x, y;  ///< its middle
  struct Seen {
    size_t frame;
    std::array<double, SmoothSurface::kMostNumbers> terms;  ///< of its surface at the cell's middle
    std::vector<double> medians;
  };
  std::vector<Seen> seen;
};

/// The median of a frame in a square of the canvas, by some of its pixels; none where the frame does not hold
/// all of it.
std::optional<Cell::Seen> Look(CVelImage& image, const CFrameMap& toFrame, size_t frame, const Cell& cell,
                               double side) {
  constexpr int kSamples = 24;  // along a side, chosen: 576 pixels tell a median to a twentieth of sigma
  std::vector<std::vector<float>> values(image.GetPlanes());
  for (int i = 0; i < kSamples; ++i) {
    for (int k = 0; k < kSamples; ++k) {
      const auto offset = [&](int n) { return side * ((n + 0.5) / kSamples - 0.5); };
      const auto p = toFrame({cell.x + offset(k), cell.y + offset(i)});
      const bool isInside =
          p && p->x > -0.5 && p->y > -0.5 && p->x < image.GetWidth() - 0.5 && p->y < image.GetHeight() - 0.5;
      if (!isInside) return std::nullopt;
      const int x = static_cast<int>(p->x + 0.5), y = static_cast<int>(p->y + 0.5);
      for (int plane = 0; plane < image.GetPlanes(); ++plane) {
        const float v = *image.GetLine(x, y, plane);
        if (std::isfinite(v)) values[plane].push_back(v);
      }
    }
  }
  const Point middle = *toFrame({cell.x, cell.y});
  const SmoothSurface surface(kDegree, image.GetWidth(), image.GetHeight());
  Cell::Seen seen{frame, surface.TermsAt(middle.x + 0.5, middle.y + 0.5), {}};
  for (std::vector<float>& plane : values) {
    if (static_cast<int>(plane.size()) < kSamples * kSamples / 2) return std::nullopt;
    seen.medians.push_back(UpperMedian(plane));
  }
  return seen;
}

}  // namespace

bool Straighten(std::vector<StackInput>& inputs) {
  const auto bent = std::find_if(inputs.begin(), inputs.end(), [](const StackInput& input) {
    return input.map && !input.map->ReferenceDistortion().IsNone();
  });
  if (bent == inputs.end()) return false;
  const CLensDistortion lens = bent->map->ReferenceDistortion();
  for (StackInput& input : inputs) {
    // What is laid by shift and turn, the reference among it, is of the same lens.
    input.map = CFrameMap(input.Map().GetMatrix(), input.map ? input.map->FrameDistortion() : lens);
  }
  return true;
}

Canvas CanvasOf(const std::vector<StackInput>& inputs, const Shape& reference) {
  constexpr double kMost = 100;  // times the area of the reference; chosen
  double left = 0, top = 0, right = reference.width - 1.0, bottom = reference.height - 1.0;
  for (const StackInput& input : inputs) {
    const CFrameMap::Bounds bounds =
        input.Map().BoundsOf(0, 0, input.shape.width - 1, input.shape.height - 1);
    left = std::min(left, bounds.left), top = std::min(top, bounds.top);
    right = std::max(right, bounds.right), bottom = std::max(bottom, bounds.bottom);
    const double area = (right - left + 1) * (bottom - top + 1);
    if (!(area <= kMost * reference.width * reference.height)) {
      throw files::FileError(input.name,
                             fmt::format("would make the mosaic more than {:g} times as large as the "
                                         "reference; is its transform right?",
                                         kMost));
    }
  }
  constexpr double kSame = 1e-3;  // of a pixel: what rounding adds is no pixel
  Canvas canvas{static_cast<int>(std::floor(left + kSame)), static_cast<int>(std::floor(top + kSame)),
                reference};
  canvas.shape.width = static_cast<int>(std::ceil(right - kSame)) - canvas.left + 1;
  canvas.shape.height = static_cast<int>(std::ceil(bottom - kSame)) - canvas.top + 1;
  return canvas;
}

void LayOn(const Canvas& canvas, std::vector<StackInput>& inputs) {
  for (StackInput& input : inputs) {
    if (input.map) input.map = input.map->Moved(-canvas.left, -canvas.top);
    input.dx -= canvas.left;
    input.dy -= canvas.top;
  }
}

std::vector<FrameSky> MatchSkies(Job& job, const std::vector<StackInput>& inputs, const Canvas& canvas,
                                 size_t reference, const std::vector<double>& scales) {
  const size_t count = inputs.size();
  const Shape& first = inputs.front().shape;
  const double side = std::clamp(std::min(first.width, first.height) / 24.0, 8.0, 256.0);
  std::vector<Cell> cells;
  for (double y = side / 2; y < canvas.shape.height; y += side) {
    for (double x = side / 2; x < canvas.shape.width; x += side) {
      cells.push_back({x, y, {}});
    }
  }
  const long long bytes = 4LL * first.width * first.height * first.planes;
  SideBySide(
      job, "matching skies", count, bytes,
      [&](size_t i) {
        const auto store = job.MakeStore();
        const Shape& shape = inputs[i].shape;
        const auto image = NewImage(store, shape.width, shape.height, shape.planes);
        inputs[i].read(Image::RowsOf(*image, 0, shape.height));
        const CFrameMap toFrame = inputs[i].Map().Inverse();
        std::vector<std::optional<Cell::Seen>> seen;
        for (const Cell& cell : cells) {
          seen.push_back(Look(*image, toFrame, i, cell, side));
        }
        return seen;
      },
      [&](size_t, const auto& result) {
        job.CheckCancelled();
        auto seen = result();
        for (size_t k = 0; k < cells.size(); ++k) {
          if (seen[k]) cells[k].seen.push_back(std::move(*seen[k]));
        }
      });
  const int planes = canvas.shape.planes;
  std::vector<FrameSky> skies;
  for (size_t i = 0; i < count; ++i) {
    skies.push_back(
        {scales[i], std::vector<SmoothSurface>(
                        planes, SmoothSurface(kDegree, inputs[i].shape.width, inputs[i].shape.height))});
  }
  const size_t unknown = count * kNumbers;
  for (int plane = 0; plane < planes; ++plane) {
    // The value of each cell is unknown too, and eliminated: it is the mean of what frames have there. Far
    // cells, as those with a star at their edge in one frame, count less (three rounds of weights by
    // distance).
    std::vector<double> numbers(unknown);
    const auto left = [&](const Cell::Seen& s) {
      const double* own = numbers.data() + s.frame * kNumbers;
      return s.medians[plane] * scales[s.frame] -
             std::inner_product(own, own + kNumbers, s.terms.begin(), 0.0);
    };
    constexpr int kRounds = 4;  // chosen
    for (int round = 0; round < kRounds; ++round) {
      std::vector<double> normal(unknown * unknown), right(unknown);
      std::vector<double> means, distances;
      for (const Cell& cell : cells) {
        double mean = 0;
        for (const Cell::Seen& s : cell.seen) {
          mean += left(s) / static_cast<double>(cell.seen.size());
        }
        means.push_back(mean);
        for (const Cell::Seen& s : cell.seen) {
          if (cell.seen.size() > 1) distances.push_back(std::abs(left(s) - mean));
        }
      }
      if (distances.empty()) break;
      const double usual = UpperMedian(distances);
      constexpr double kFar = 4;  // medians; chosen
      for (size_t c = 0; c < cells.size(); ++c) {
        const auto& seen = cells[c].seen;
        const auto n = static_cast<double>(seen.size());
        if (seen.size() < 2) continue;
        double weight = 1;
        for (const Cell::Seen& s : seen) {
          const double far = std::abs(left(s) - means[c]);
          if (round > 0 && far > kFar * usual) weight = std::min(weight, kFar * usual / far);
        }
        for (const Cell::Seen& a : seen) {
          for (const Cell::Seen& b : seen) {
            const double share = weight * ((a.frame == b.frame ? 1 : 0) - 1 / n);
            for (int i = 0; i < kNumbers; ++i) {
              for (int k = 0; k < kNumbers; ++k) {
                normal[(a.frame * kNumbers + i) * unknown + b.frame * kNumbers + k] +=
                    share * a.terms[i] * b.terms[k];
              }
              right[a.frame * kNumbers + i] += share * a.terms[i] * b.medians[plane] * scales[b.frame];
            }
          }
        }
      }
      // No more than what is asked for: curves least of all. Chosen; seams that they leave are measured in
      // docs/performance.md, "Lenses and panels".
      constexpr double kLevel = 1e-6, kSlope = 1e-3, kCurve = 1e-1;
      for (size_t i = 0; i < unknown; ++i) {
        const size_t term = i % kNumbers;
        normal[i * unknown + i] += term == 0 ? kLevel : term < 3 ? kSlope : kCurve;
      }
      if (!Solve(normal, right)) break;
      numbers = std::move(right);
    }
    // The sky stays that of the reference.
    const double level = numbers[reference * kNumbers];
    for (size_t i = 0; i < count; ++i) {
      numbers[i * kNumbers] -= level;
      skies[i].surfaces[plane].SetNumbers(
          {numbers.begin() + static_cast<std::ptrdiff_t>(i * kNumbers),
           numbers.begin() + static_cast<std::ptrdiff_t>((i + 1) * kNumbers)});
    }
  }
  return skies;
}

void TakeOff(const FrameSky& sky, StackInput& input) {
  const auto scale = static_cast<float>(sky.scale);
  const auto takeOff = [sky, scale](const Band<float>& from) {
    std::vector<float> surface(from.Width());
    for (int p = 0; p < from.Planes(); ++p) {
      for (int y = from.Top(); y < from.Bottom(); ++y) {
        sky.surfaces[p].Row(y, 0, surface);
        float* row = from.Row(p, y).data();
        for (int x = 0; x < from.Width(); ++x) {
          row[x] = row[x] * scale - surface[x];
        }
      }
    }
  };
  input.read = [read = std::move(input.read), takeOff](const Band<float>& to) {
    read(to);
    takeOff(to);
  };
  if (!input.readQuality) return;
  input.readQuality = [read = std::move(input.readQuality), takeOff, scale](const Band<float>& to,
                                                                            const QualityRows& quality) {
    read(to, quality);
    takeOff(to);
    for (int p = 0; p < quality.variance.Planes(); ++p) {
      quality.variance.Plane(p).ForRuns([=](Row<float> run) {
        for (float& v : run) {
          v *= scale * scale;
        }
      });
    }
  };
}

}  // namespace korimg::session
