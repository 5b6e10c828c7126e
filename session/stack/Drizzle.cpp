#include "session/stack/Drizzle.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>

#include <fmt/format.h>

#include "korimg/image/internal/Numbers.h"

#include "session/files/Geometry.h"
#include "session/files/Mosaic.h"
#include "session/job/internal/SideBySide.h"
#include "session/stack/internal/RejectedPixels.h"

namespace korimg::session {
namespace {

/// Rows of a frame, ready to be dropped.
struct FrameBand {
  std::vector<float> memory;
  Band<float> values, weights;
  CImgStack::Counts counts;
};

/// Rows of the reference, from the first up to the end.
struct ReferenceRows {
  int first = 0, end = 0;
};

class FrameReader {
 public:
  explicit FrameReader(const DrizzleFrames& frames) : frames_(frames), reading_(frames.inputs.size()) {
    for (const StackInput& input : frames.inputs) {
      maps_.push_back(input.Map());
    }
  }

  const CFrameMap& Map(size_t i) const { return maps_[i]; }
  const CImgDrizzle::SitePlanes* Sites(size_t i) const {
    return frames_.mosaics.empty() ? nullptr : &frames_.mosaics[i].planes;
  }
  int Planes(size_t i) const { return Sites(i) ? 1 : frames_.inputs[i].shape.planes; }

  /// Rows of frame i, normalised, with their weights; those that lie on such rows of the reference are
  /// counted.
  FrameBand Read(size_t i, const CImgDrizzle::Rows& rows, const ReferenceRows& counted) {
    const StackInput& input = frames_.inputs[i];
    const int width = input.shape.width, count = rows.end - rows.first, planes = Planes(i);
    FrameBand band;
    if (count == 0) return band;
    const size_t size = 1UL * planes * count * width;
    band.memory.resize(2 * size);
    band.values = {band.memory.data(), planes, width, rows.first, count};
    band.weights = {band.memory.data() + size, planes, width, rows.first, count};
    {
      const std::lock_guard lock(reading_[i]);
      frames_.mosaics.empty() ? input.read(band.values) : frames_.mosaics[i].read(band.values);
    }
    Weigh(i, band, counted);
    Normalise(i, band);
    return band;
  }

 private:
  /// The plane of the stack that a pixel is of; less than 0 for none.
  int PlaneOf(size_t i, int p, int x, int y) const {
    const CImgDrizzle::SitePlanes* sites = Sites(i);
    return sites ? (*sites)[y & 3][x & 3] : p;
  }

  void Weigh(size_t i, FrameBand& band, const ReferenceRows& counted) {
    const Shape& grid = frames_.inputs[frames_.reference].shape;
    const StackInput& input = frames_.inputs[i];
    const int width = input.shape.width, top = band.values.Top(), bottom = band.values.Bottom();
    RejectedPixels::Bits bits;
    ReferenceRows known;
    const CFrameMap::Bounds bounds = maps_[i].BoundsOf(0, top, width - 1, bottom - 1);
    if (frames_.rejected && bounds.top <= bounds.bottom) {
      const auto row = [&](double y) { return static_cast<int>(std::clamp(y, 0.0, 1.0 * grid.height)); };
      known = {row(bounds.top - 1), row(bounds.bottom + 2)};
      if (known.first < known.end) {
        bits = frames_.rejected->Of(static_cast<int>(i), known.first, known.end - known.first);
      }
    }
    std::vector<double> xs(width), ys(width);
    for (int y = top; y < bottom; ++y) {
      CImgDrizzle::PlaceRow(maps_[i], y, xs, ys);
      for (int p = 0; p < band.values.Planes(); ++p) {
        const float* values = band.values.Row(p, y).data();
        float* weights = band.weights.Row(p, y).data();
        for (int x = 0; x < width; ++x) {
          const int plane = PlaneOf(i, p, x, y);
          weights[x] = plane < 0 ? 0 : static_cast<float>(input.weights[plane]);
          const double column = std::floor(xs[x] + 0.5), row = std::floor(ys[x] + 0.5);
          const bool isInside = column >= 0 && column < grid.width && row >= 0 && row < grid.height;
          if (plane < 0 || !isInside || !std::isfinite(values[x])) continue;
          const int u = static_cast<int>(column), v = static_cast<int>(row);
          band.counts.values += v >= counted.first && v < counted.end;
          if (v >= known.first && v < known.end && bits(u, v, plane)) weights[x] = 0;
        }
      }
    }
  }

  void Normalise(size_t i, FrameBand& band) const {
    if (frames_.normalisation == Normalisation::None) return;
    const FrameLevels &own = frames_.inputs[i].levels, &reference = frames_.inputs[frames_.reference].levels;
    double factors[3], shifts[3];
    for (int p = 0; p < 3; ++p) {
      factors[p] = ScaleOf(own, reference, frames_.normalisation, p);
      shifts[p] = reference.level[p] - own.level[p] * factors[p];
    }
    for (int p = 0; p < band.values.Planes(); ++p) {
      for (int y = band.values.Top(); y < band.values.Bottom(); ++y) {
        float* values = band.values.Row(p, y).data();
        for (int x = 0; x < band.values.Width(); ++x) {
          const int plane = std::max(PlaneOf(i, p, x, y), 0);
          values[x] = static_cast<float>(values[x] * factors[plane] + shifts[plane]);
        }
      }
    }
  }

  const DrizzleFrames& frames_;
  std::vector<CFrameMap> maps_;
  std::vector<std::mutex> reading_;
};

}  // namespace

std::string DrizzlePlan::Text() const {
  return fmt::format("drizzled in {} band{} of {} row{}, {} MiB", bands, bands == 1 ? "" : "s", rows,
                     rows == 1 ? "" : "s", (totalBytes + (1 << 20) - 1) >> 20);
}

CImgDrizzle::SitePlanes PlanesOfSites(int cfa) {
  CImgDrizzle::SitePlanes planes;
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      planes[y][x] = files::ColourOfSite(cfa, x, y);
    }
  }
  return planes;
}

CImgDrizzle GridOf(const StackInput& reference, const CImgDrizzle::Options& options) {
  const Shape& shape = reference.shape;
  return {options, shape.width, shape.height, shape.planes};
}

DrizzlePlan PlanDrizzle(const DrizzleFrames& frames, const CImgDrizzle::Options& options, long long memory) {
  const CImgDrizzle grid = GridOf(frames.inputs[frames.reference], options);
  const auto bytes = [&](int rows) {
    long long read = 0;
    for (const StackInput& input : frames.inputs) {
      const CImgDrizzle::Rows needed = grid.RowsOf(input.Map(), input.shape.height,
                                                   (grid.Height() - rows) / 2, (grid.Height() + rows) / 2);
      const int planes = frames.mosaics.empty() ? input.shape.planes : 1;
      read = std::max(read, 8LL * (needed.end - needed.first) * input.shape.width * planes);
    }
    // Sums, and the two images that become of them.
    return rows * grid.BytesOfRow() * 3 / 2 + FramesAtOnce() * read;
  };
  int fits = 0, tooMany = grid.Height() + 1;
  while (tooMany - fits > 1) {
    const int rows = (fits + tooMany) / 2;
    (bytes(rows) <= memory ? fits : tooMany) = rows;
  }
  if (fits == 0) {
    throw std::runtime_error(
        fmt::format("a band of one row of the fine grid takes {} bytes, and the memory is {}; use --memory "
                    "{}K",
                    bytes(1), memory, bytes(1) / 1024 + 1));
  }
  DrizzlePlan plan;
  plan.bands = (grid.Height() + fits - 1) / fits;
  plan.rows = (grid.Height() + plan.bands - 1) / plan.bands;
  plan.bands = (grid.Height() + plan.rows - 1) / plan.rows;
  plan.totalBytes = bytes(plan.rows);
  return plan;
}

void FindRejected(Job& job, const std::vector<StackInput>& inputs, int reference, StackOptions options,
                  RejectedPixels& rejected) {
  const Shape& shape = inputs[reference].shape;
  if (rejected.Rows() == shape.height) return;
  options.rejected = [&](int frame, int x, int y, int plane) { rejected.Mark(frame, x, y, plane); };
  rejected.Begin(PlanStack(inputs, shape, options).rows);
  Stack(job, inputs, reference, options, {rejected.Rows()}, [&](const StackBand& band) {
    job.CheckComputed(rejected.Path());
    rejected.End(band.result.Rows(), band.counts);
  });
}

void Drizzle(Job& job, const DrizzleFrames& frames, const CImgDrizzle::Options& options, long long memory,
             int y0, const std::function<void(const StackBand&)>& sink) {
  const StackInput& reference = frames.inputs[frames.reference];
  const size_t count = frames.inputs.size();
  const DrizzlePlan plan = PlanDrizzle(frames, options, memory);
  CImgDrizzle grid = GridOf(reference, options);
  const int width = grid.Width(), planes = reference.shape.planes;
  const auto bandOf = [&](size_t step) {
    const int top = y0 + static_cast<int>(step / count) * plan.rows;
    return ReferenceRows{top, std::min(top + plan.rows, grid.Height())};
  };
  const size_t bands = (grid.Height() - y0 + plan.rows - 1) / plan.rows;
  FrameReader reader(frames);
  std::vector<float> result(2UL * planes * plan.rows * width);
  std::vector<CImgStack::Counts> counts(count);
  SideBySide(
      job, "drizzling frame", bands * count, plan.totalBytes / FramesAtOnce(),
      [&](size_t step) {
        const size_t i = step % count;
        const auto [top, end] = bandOf(step);
        // Each row of the reference is counted in the band that its middle lies in.
        const auto rowAt = [&](int y) { return static_cast<int>(std::ceil(y / options.scale - 0.5)); };
        return reader.Read(i, grid.RowsOf(reader.Map(i), frames.inputs[i].shape.height, top, end),
                           {rowAt(top), rowAt(end)});
      },
      [&](size_t step, const auto& read) {
        job.CheckCancelled();
        const size_t i = step % count;
        const auto [top, end] = bandOf(step);
        const int rows = end - top;
        if (i == 0) grid.Begin(top, rows);
        const FrameBand frame = read();
        counts[i] = frame.counts;
        if (frame.values.Rows() > 0) {
          grid.Add(frame.values, frame.weights, reader.Map(i), reader.Sites(i));
        }
        if (i + 1 < count) return;
        const Band<float> means(result.data(), planes, width, top, rows),
            weights(result.data() + 1UL * planes * rows * width, planes, width, top, rows);
        grid.Take(means, weights);
        StackBand band{.result = means, .counts = counts};
        band.weights = weights;
        sink(band);
      });
}

double NoiseCorrelation(const CImgDrizzle::Options& options) {
  const double side = options.pixfrac * options.scale;
  switch (options.kernel) {
    case CImgDrizzle::Point:
      return 1;
    case CImgDrizzle::Gaussian:
      // One over the integral of the square of a Gaussian of this FWHM.
      return std::max(1.0, side * std::sqrt(std::numbers::pi / (2 * std::numbers::ln2)));
    default:
      return side >= 1 ? side / (1 - 1 / (3 * side)) : 1 / (1 - side / 3);
  }
}

void ToGrid(files::Header& header, const Shape& reference, const CImgDrizzle::Options& options) {
  const double s = options.scale, shift = (s - 1) / 2;
  const files::ImageSize before{reference.width, reference.height, reference.planes},
      after{CImgDrizzle::SizeOf(reference.width, s), CImgDrizzle::SizeOf(reference.height, s),
            reference.planes};
  if (!files::MoveHeader(header, before, after, {.xx = s, .yy = s, .tx = shift, .ty = shift}))
    throw std::logic_error("a mosaic was not removed");
  // The light of a pixel falls on several.
  if (const auto gain = header.GetDouble("KORLGAIN")) {
    header.Set("KORLGAIN", *gain / (s * s), "electrons of a value of this stack");
  }
  header.AddHistory(fmt::format("drizzled; the noise of large areas is {:.3g} times what single pixels tell",
                                NoiseCorrelation(options)));
}

void TellDrizzle(Job& job, const CImgDrizzle::Options& options, std::optional<double> spread,
                 nlohmann::ordered_json& json) {
  constexpr double kUneven = 0.2;  // of the deviation over the median (DrizzlePac's handbook)
  const double correlation = NoiseCorrelation(options);
  json["noise_correlation"] = correlation;
  json["weight_spread"] = spread ? nlohmann::ordered_json(*spread) : nlohmann::ordered_json();
  const bool isEmpty = spread && !std::isfinite(*spread);
  if (isEmpty) {
    json["weight_spread"] = nullptr;
    job.Warn(
        "half of the drizzled pixels or more got nothing: use a larger --pixfrac, a smaller --drizzle, or "
        "more "
        "frames at other positions");
    spread.reset();
  }
  job.Say(fmt::format("drizzled: the noise of large areas is {:.3g} times what single pixels tell{}",
                      correlation, spread ? fmt::format("; weights vary by {}", Percent(*spread)) : ""));
  if (spread && *spread > kUneven) {
    job.Warn(
        fmt::format("the weights of the drizzled pixels vary by {} (deviation over median), more than {}: "
                    "use a larger --pixfrac, a smaller --drizzle, or more frames at other positions",
                    Percent(*spread), Percent(kUneven)));
  }
}

WeightSpread::WeightSpread(const std::vector<StackInput>& inputs, int reference,
                           const CImgDrizzle::Options& options)
    : isCommon_(kCells * kCells), weights_(inputs[reference].shape.planes) {
  constexpr double kEnough = 2e6;  // pixels; chosen
  const CImgDrizzle grid = GridOf(inputs[reference], options);
  width_ = grid.Width();
  height_ = grid.Height();
  // Rows of a grid that is twice as fine differ by their parity: odd steps see both.
  step_ = static_cast<int>(1.0 * width_ * height_ / kEnough) | 1;
  std::vector<CFrameMap> maps;
  for (const StackInput& input : inputs) {
    maps.push_back(input.Map().Inverse());
  }
  std::vector<char> isReached((kCells + 1) * (kCells + 1));
  for (int j = 0; j <= kCells; ++j) {
    for (int k = 0; k <= kCells; ++k) {
      const Point corner{1.0 * k * inputs[reference].shape.width / kCells - 0.5,
                         1.0 * j * inputs[reference].shape.height / kCells - 0.5};
      isReached[j * (kCells + 1) + k] = std::ranges::all_of(inputs, [&](const StackInput& input) {
        const auto place = maps[&input - inputs.data()](corner);
        const double margin = 0.5;
        return place && place->x >= -margin && place->y >= -margin &&
               place->x <= input.shape.width - 1 + margin && place->y <= input.shape.height - 1 + margin;
      });
    }
  }
  for (int j = 0; j < kCells; ++j) {
    for (int k = 0; k < kCells; ++k) {
      const char* corner = &isReached[j * (kCells + 1) + k];
      isCommon_[j * kCells + k] = corner[0] && corner[1] && corner[kCells + 1] && corner[kCells + 2];
    }
  }
}

void WeightSpread::Add(const Band<const float>& weights) {
  for (int y = weights.Top(); y < weights.Bottom(); ++y) {
    if (y % step_ != 0) continue;
    const char* cells = &isCommon_[CellOf(y, height_) * kCells];
    for (int p = 0; p < weights.Planes(); ++p) {
      const Row<const float> row = weights.Row(p, y);
      for (int x = 0; x < width_; ++x) {
        if (cells[CellOf(x, width_)]) weights_[p].push_back(row[x]);
      }
    }
  }
}

std::optional<double> WeightSpread::Get() {
  std::optional<double> most;
  for (std::vector<float>& weights : weights_) {
    if (weights.empty()) return std::nullopt;
    double sum = 0, squares = 0;
    for (const float weight : weights) {
      sum += weight;
      squares += 1.0 * weight * weight;
    }
    const double n = static_cast<double>(weights.size()), mean = sum / n;
    const double median = UpperMedian(weights), sigma = std::sqrt(std::max(squares / n - mean * mean, 0.0));
    const double spread = median > 0 ? sigma / median : std::numeric_limits<double>::infinity();
    most = std::max(most.value_or(0), spread);
  }
  return most;
}

}  // namespace korimg::session
