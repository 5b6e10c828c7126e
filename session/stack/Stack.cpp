#include "session/stack/Stack.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <limits>
#include <mutex>
#include <numbers>
#include <span>
#include <stop_token>
#include <thread>

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include "korimg/platform/CParallel.h"

#include "session/job/internal/SideBySide.h"
#include "session/picture/Image.h"

namespace korimg::session {
namespace {

constexpr long long kMiB = 1 << 20;

static_assert(int{CImgStack::NoValue} == MaskBit::NoData && int{CImgStack::Marked} == MaskBit::Saturated &&
              int{CImgStack::ManyLow} == MaskBit::RejectedLow &&
              int{CImgStack::ManyHigh} == MaskBit::RejectedHigh);

/// An image of which only some rows are in memory: the others have addresses, but no pages.
class FrameRows {
 public:
  explicit FrameRows(const Shape& shape)
      : shape_(shape),
        store_(CreateContiguousManager({.budget = std::numeric_limits<long long>::max() / 2})),
        image_(store_, CImage::Float, shape.width, shape.height, shape.planes, 1.0, 0.0, 1, nullptr) {}

  CVelImage& Image() { return image_; }

  Band<float> Rows(int top, int rows) { return Image::RowsOf(image_, top, rows); }

  /// Says that rows y0 to y1 - 1 are needed now. The memory of others is given back once they are many:
  /// frames that lie a little higher or lower than the last one need nearly the same.
  void Need(int y0, int y1) {
    first_ = std::min(first_, y0);
    end_ = std::max(end_, y1);
    if (end_ - first_ <= (y1 - y0) * 5 / 4) return;
    GiveBackAllBut(y0, y1);
    first_ = y0;
    end_ = y1;
  }

  void GiveBackAll() { GiveBackAllBut(0, 0); }

 private:
  void GiveBackAllBut(int y0, int y1) {
    const Band<float> all = Rows(0, shape_.height);
    for (int p = 0; p < shape_.planes; ++p) {
      GiveBack(all.Part(0, y0).Plane(p));
      GiveBack(all.Part(y1, shape_.height - y1).Plane(p));
    }
  }

  static void GiveBack(const Plane<float>& rows) {
    float *const from = rows.Data(), *const to = from + rows.Rows() * rows.Pitch();
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(from) + page - 1) / page * page,
                         last = reinterpret_cast<std::uintptr_t>(to) / page * page;
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
  }

  Shape shape_;
  std::shared_ptr<CVmManager> store_;
  CVelImage image_;
  int first_ = 0, end_ = 0;  ///< rows that may have memory, as far as they were needed
};

/// Fills one band after the other, a few frames at a time, each on its share of the threads. While a band is
/// stacked, the first frames of the next one are read.
class BandFeeder {
 public:
  /// What is done for frame `step % frames` of band `step / frames`, by one of FramesAtOnce() workers.
  using Work = std::function<void(int worker, long long step)>;

  BandFeeder(int frames, long long steps, Work read, Work store)
      : frames_(frames), steps_(steps), read_(std::move(read)), store_(std::move(store)) {
    const int workers = FramesAtOnce(), threads = CParallel::GetMaxThreads() / workers;
    for (int i = 0; i < workers; ++i) {
      workers_.emplace_back([this, i, threads](const std::stop_token& stop) {
        CParallel::SetMaxThreads(threads);
        Run(i, stop);
      });
    }
  }

  /// Returns once every frame of the open band is stored; calls idle(frames stored) now and then until it is.
  /// Throws what reading and storing throw, and what `idle` throws.
  template <class F>
  void WaitForBand(F&& idle) {
    constexpr std::chrono::milliseconds kNow(100);  // chosen
    std::unique_lock lock(mutex_);
    for (bool done = false; !done;) {
      done = changed_.wait_for(lock, kNow, [&] { return failure_ || stored_ == frames_; });
      if (failure_) std::rethrow_exception(failure_);
      const int stored = stored_;
      lock.unlock();
      idle(stored);
      lock.lock();
    }
  }

  /// The next band may take the place of this one.
  void OpenNextBand() {
    {
      const std::lock_guard lock(mutex_);
      ++band_;
      stored_ = 0;
    }
    changed_.notify_all();
  }

 private:
  void Run(int worker, const std::stop_token& stop) try {
    std::unique_lock lock(mutex_);
    while (next_ < steps_ && !failure_ && !stop.stop_requested()) {
      const long long step = next_++;
      lock.unlock();
      read_(worker, step);
      lock.lock();
      if (!changed_.wait(lock, stop, [&] { return step / frames_ == band_; })) return;
      lock.unlock();
      store_(worker, step);
      lock.lock();
      ++stored_;
      changed_.notify_all();
    }
  } catch (...) {
    const std::lock_guard lock(mutex_);
    if (!failure_) failure_ = std::current_exception();
    changed_.notify_all();
  }

  int frames_;
  long long steps_;
  Work read_, store_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  long long next_ = 0, band_ = 0;
  int stored_ = 0;  ///< of the open band
  std::exception_ptr failure_;
  std::vector<std::jthread> workers_;
};

struct RowRange {
  int first = 0, end = 0;
};

/// The rows of a frame that rows y0 to y1 - 1 of the target are made of.
RowRange SourceRows(const StackInput& input, int width, int y0, int y1) {
  constexpr double kTaps = 4;  // that a kernel looks to either side, and what rounding may add
  const auto within = [&](double least, double most) {
    const double height = input.shape.height;
    const RowRange range{static_cast<int>(std::clamp(std::floor(least) - kTaps, 0.0, height)),
                         static_cast<int>(std::clamp(std::ceil(most) + kTaps + 1, 0.0, height))};
    return range.first < range.end ? range : RowRange();
  };
  if (input.map) {
    const CFrameMap::Bounds bounds = input.map->Inverse().BoundsOf(0, y0, width - 1, y1 - 1);
    return bounds.top <= bounds.bottom ? within(bounds.top, bounds.bottom) : RowRange();
  }
  const double angle = input.degrees * std::numbers::pi / 180, s = std::sin(angle), c = std::cos(angle);
  const double cx = input.shape.width * 0.5, cy = input.shape.height * 0.5;
  double least = std::numeric_limits<double>::infinity(), most = -least;
  for (const int x : {0, width - 1}) {
    for (const int y : {y0, y1 - 1}) {
      const double v = cy - (s * (x - input.dx - cx) + c * (cy - (y - input.dy)));
      least = std::min(least, v);
      most = std::max(most, v);
    }
  }
  return within(least, most);
}

/// Bytes that a stack takes for bands of so many rows.
struct BandBytes {
  long long store, total;

  BandBytes(const std::vector<StackInput>& inputs, const Shape& shape, const StackOptions& options,
            int rows) {
    const auto frames = static_cast<long long>(inputs.size());
    const long long line = 4LL * shape.width * shape.planes;
    const int quality = options.uncertainty + options.mask;
    store = frames * (rows + 1) * line * (options.uncertainty ? 3 : 2);
    long long read = 0;
    for (const StackInput& input : inputs) {
      const RowRange range =
          SourceRows(input, shape.width, (shape.height - rows) / 2, (shape.height + rows) / 2);
      read = std::max(read, 4LL * (range.end - range.first) * input.shape.width * input.shape.planes);
    }
    const long long columns =
        CParallel::GetMaxThreads() * CImgStack::BytesOfThread(inputs.size(), options.feather > 0);
    total = store + FramesAtOnce() * read * 5 / 4 * (1 + quality) +
            rows * line * ((options.rejectionMaps ? 3 : 1) + quality) + columns;
  }
};

void AddNormalisation(CImgStack& stack, std::span<const StackInput> inputs, const FrameLevels& reference,
                      Normalisation normalisation) {
  if (normalisation == Normalisation::None) return;
  // One spread of the reference for all frames: those that cannot be scaled get it as theirs.
  FrameLevels to = reference;
  for (double& spread : to.spread) {
    if (!(spread > 0)) spread = 1;
  }
  stack.SetRefNormalizeParam(to.level, to.spread);
  for (const StackInput& input : inputs) {
    FrameLevels from = input.levels;
    for (int p = 0; p < 3; ++p) {
      const bool scales =
          normalisation == Normalisation::LevelAndScale && from.spread[p] > 0 && reference.spread[p] > 0;
      if (!scales) from.spread[p] = to.spread[p];
    }
    stack.AddNormalizeParam(from.level, from.spread);
  }
}

/// Fills a slot with rows `top` to `end` - 1 of the grid.
void StoreRows(CImgStack& stack, int slot, CVelImage& frame, const StackInput& input, int top, int end,
               const StackOptions& options) {
  const FrameLevels* levels = options.clampUndershoot ? &input.levels : nullptr;
  if (input.map) {
    stack.Store(slot, &frame, top, end - 1, *input.map, options.kernel, levels);
  } else {
    stack.Store(slot, &frame, top, end - 1, input.dx, input.dy, input.degrees * std::numbers::pi / 180,
                options.kernel, levels);
  }
}

/// What a frame's rows hold beside their pixels, for one band at a time.
class FrameQuality {
 public:
  FrameQuality(const Shape& shape, const StackOptions& options) {
    if (options.uncertainty) variance_ = std::make_unique<FrameRows>(shape);
    if (options.mask) mask_ = std::make_unique<FrameRows>(shape);
  }

  void Read(const StackInput& input, const Band<float>& pixels) {
    QualityRows rows;
    for (const auto& [image, part] : {std::pair(&variance_, &rows.variance), {&mask_, &rows.mask}}) {
      if (!*image) continue;
      (*image)->Need(pixels.Top(), pixels.Bottom());
      *part = (*image)->Rows(pixels.Top(), pixels.Rows());
    }
    input.readQuality(pixels, rows);
    const bool isBetween =
        input.map || CInterp::FormOf(input.dx, input.dy, input.degrees) != CInterp::WholeShift;
    for (int p = 0; p < rows.variance.Planes() && isBetween; ++p) {
      const auto factor = static_cast<float>(input.correlation[p]);
      rows.variance.Plane(p).ForRuns([factor](Row<float> run) {
        for (float& v : run) {
          v *= factor;
        }
      });
    }
    marks_.clear();
    for (int p = 0; p < rows.mask.Planes(); ++p) {
      for (int y = rows.mask.Top(); y < rows.mask.Bottom(); ++y) {
        const Row<float> row = rows.mask.Row(p, y);
        const auto isMarked = [](float bits) { return (static_cast<int>(bits) & MaskBit::Saturated) != 0; };
        // Most rows have none.
        if (std::transform_reduce(row.begin(), row.end(), 0, std::plus<>(), isMarked) == 0) continue;
        for (int x = 0; x < rows.mask.Width(); ++x) {
          if (isMarked(row[x])) marks_.push_back({x, y, p});
        }
      }
    }
  }

  void Store(CImgStack& stack, int slot, const StackInput& input, int first, int last, int kernel) const {
    stack.StoreQuality(slot, variance_ ? &variance_->Image() : nullptr, marks_, first, last, input.Map(),
                       kernel, input.shape.width, input.shape.height);
  }

 private:
  std::unique_ptr<FrameRows> variance_, mask_;
  std::vector<CImgStack::Mark> marks_;
};

/// An outlier widens the deviation of few frames so far that it lies within it.
void WarnOfIdleClipping(Job& job, int frames, const StackOptions& options) {
  if (options.method != CImgStack::Mean || options.rejection.test != Rejection::Sigma || frames < 3) return;
  // Of one value far from the others.
  const double farthest = frames / std::sqrt(frames - 1.0);
  const double kappa = std::max(options.rejection.low, options.rejection.high);
  if (kappa < farthest) return;
  job.Warn(fmt::format(
      "of {} frames an outlier lies {:.2f} deviations off, however bright it is: --kappa {:g} rejects "
      "next to nothing; use a smaller one, or --reject auto",
      frames, farthest, kappa));
}

}  // namespace

std::string StackPlan::Text() const {
  return fmt::format("{} band{} of {} row{}, {} MiB for the frames' rows, {} MiB with all else", bands,
                     bands == 1 ? "" : "s", rows, rows == 1 ? "" : "s", (storeBytes + kMiB - 1) / kMiB,
                     (totalBytes + kMiB - 1) / kMiB);
}

long long DefaultStackMemory(const Job& job) {
  constexpr long long kEnough = 256 * kMiB;  // a fourth takes 1 % longer: docs/performance.md, "Stacks"
  return job.options.memory > 0 ? job.options.memory : std::min(job.Memory(), kEnough);
}

StackPlan PlanStack(const std::vector<StackInput>& inputs, const Shape& shape, const StackOptions& options) {
  if (options.uncertainty && options.method != CImgStack::Mean && options.method != CImgStack::Median) {
    throw UsageError("an uncertainty is known of means and medians only: use --method mean or median");
  }
  int fits = 0, tooMany = shape.height + 1;
  while (tooMany - fits > 1) {
    const int rows = (fits + tooMany) / 2;
    (BandBytes(inputs, shape, options, rows).total <= options.memory ? fits : tooMany) = rows;
  }
  if (fits == 0) {
    const long long least = BandBytes(inputs, shape, options, 1).total;
    throw std::runtime_error(
        fmt::format("a band of one row of {} frames takes {} bytes, and the memory is {}; use --memory {}K",
                    inputs.size(), least, options.memory, least / 1024 + 1));
  }
  StackPlan plan;
  plan.bands = (shape.height + fits - 1) / fits;
  plan.rows = (shape.height + plan.bands - 1) / plan.bands;
  plan.bands = (shape.height + plan.rows - 1) / plan.rows;
  const BandBytes bytes(inputs, shape, options, plan.rows);
  plan.storeBytes = bytes.store;
  plan.totalBytes = bytes.total;
  return plan;
}

void Stack(Job& job, const std::vector<StackInput>& inputs, int reference, const StackOptions& options,
           const StackRows& wanted, const std::function<void(const StackBand&)>& sink, CVelImage* whole) {
  const Shape shape = options.shape.value_or(inputs[reference].shape);
  const int frames = static_cast<int>(inputs.size());
  StackPlan plan = PlanStack(inputs, shape, options);
  WarnOfIdleClipping(job, frames, options);

  std::unique_ptr<FrameRows> own, maps[2], variances, flags;
  if (!whole) own = std::make_unique<FrameRows>(shape);
  CVelImage& target = whole ? *whole : own->Image();
  CImgStack stack(&target);
  while (!stack.AllocateStoreBuffer(&target, frames, plan.rows)) {
    stack.DeallocateStoreBuffer();
    if (plan.rows == 1) throw std::bad_alloc();
    plan.rows = (plan.rows + 1) / 2;
    job.Warn(fmt::format("less memory than planned: bands of {} rows", plan.rows));
  }
  std::vector<CImgStack::PlaneWeights> weights;
  for (const StackInput& input : inputs) {
    weights.push_back(input.weights);
  }
  stack.SetWeights(weights);
  stack.SetFeather(options.feather);
  stack.SetOutside(std::numeric_limits<float>::quiet_NaN());
  stack.SetRejected(options.rejected);
  AddNormalisation(stack, inputs, inputs[reference].levels, options.normalisation);
  if (options.rejectionMaps) {
    for (auto& map : maps) {
      map = std::make_unique<FrameRows>(shape);
    }
    stack.SetRejectionMaps(&maps[0]->Image(), &maps[1]->Image());
  }
  const bool hasQuality = options.uncertainty || options.mask;
  if (options.uncertainty) variances = std::make_unique<FrameRows>(shape);
  if (options.mask) flags = std::make_unique<FrameRows>(shape);
  if (hasQuality) {
    stack.SetQualityMaps(variances ? &variances->Image() : nullptr, flags ? &flags->Image() : nullptr);
  }

  // Rows that the noise is measured by, then the bands; frames and these in one sequence: step n stores frame
  // n % frames of band n / frames.
  const bool rejects = options.method == CImgStack::Mean && options.rejection.test != Rejection::None;
  std::vector<RowRange> bands;
  for (const int row : rejects ? stack.RowsToSample() : std::vector<int>()) {
    bands.push_back({row, row + 1});
  }
  const auto samples = static_cast<int>(bands.size());
  const int end = std::min(wanted.end, shape.height);
  for (int top = wanted.first; top < end; top += plan.rows) {
    bands.push_back({top, std::min(top + plan.rows, end)});
  }
  const long long steps = static_cast<long long>(bands.size()) * frames;
  const auto rowsOf = [&](long long step) { return bands[static_cast<size_t>(step / frames)]; };
  std::vector<std::unique_ptr<FrameRows>> buffers(FramesAtOnce());
  std::vector<std::unique_ptr<FrameQuality>> qualities(FramesAtOnce());
  const auto judges = [&](long long step) { return hasQuality && step / frames >= samples; };
  std::vector<std::mutex> reading(frames);
  const auto read = [&](int worker, long long step) {
    const StackInput& input = inputs[step % frames];
    const std::lock_guard lock(reading[step % frames]);
    auto& buffer = buffers[worker];
    if (!buffer || buffer->Image().GetWidth() != input.shape.width ||
        buffer->Image().GetHeight() != input.shape.height) {
      buffer = std::make_unique<FrameRows>(input.shape);
      if (hasQuality) qualities[worker] = std::make_unique<FrameQuality>(input.shape, options);
    }
    const RowRange rows = SourceRows(input, shape.width, rowsOf(step).first, rowsOf(step).end);
    buffer->Need(rows.first, rows.end);
    if (rows.first == rows.end) return;
    const Band<float> pixels = buffer->Rows(rows.first, rows.end - rows.first);
    judges(step) ? qualities[worker]->Read(input, pixels) : input.read(pixels);
  };
  const auto store = [&](int worker, long long step) {
    const StackInput& input = inputs[step % frames];
    const auto slot = static_cast<int>(step % frames);
    const auto [top, end] = rowsOf(step);
    StoreRows(stack, slot, buffers[worker]->Image(), input, top, end, options);
    if (judges(step)) qualities[worker]->Store(stack, slot, input, top, end - 1, options.kernel);
  };
  BandFeeder feeder(frames, steps, read, store);
  const auto count = static_cast<int>(bands.size());
  for (int band = 0; band < count; ++band) {
    feeder.WaitForBand([&](int stored) {
      job.CheckCancelled();
      const bool isSample = band < samples;
      job.JobProgress(isSample ? "measuring noise" : "stacking", 1LL * band * frames + stored, steps,
                      fmt::format("{} {} of {}, frame {} of {}", isSample ? "row" : "band",
                                  isSample ? band + 1 : band + 1 - samples,
                                  isSample ? samples : count - samples, stored, frames));
    });
    if (band < samples) {
      stack.Sample(band);
      if (band + 1 == samples) stack.SettleSamples();
      feeder.OpenNextBand();
      continue;
    }
    const int first = bands[band].first, rows = bands[band].end - first;
    stack.Stack(options.method, options.rejection, first, first + rows - 1);
    feeder.OpenNextBand();
    StackBand done{.result = Image::RowsOf(target, first, rows), .counts = stack.TakeCounts()};
    if (options.rejectionMaps) {
      done.low = maps[0]->Rows(first, rows);
      done.high = maps[1]->Rows(first, rows);
    }
    if (variances) done.variance = variances->Rows(first, rows);
    if (flags) done.mask = flags->Rows(first, rows);
    sink(done);
    for (FrameRows* image : {own.get(), maps[0].get(), maps[1].get(), variances.get(), flags.get()}) {
      if (image) image->GiveBackAll();
    }
  }
  job.JobProgress("", 0, 0);
}

void LayInput(const StackInput& input, CVelImage& frame, const FrameLevels& reference,
              const StackOptions& options, CVelImage& target) {
  constexpr int kRows = 256;  // chosen
  CImgStack stack(&target);
  if (!stack.AllocateStoreBuffer(&target, 1, kRows)) throw std::bad_alloc();
  stack.SetOutside(std::numeric_limits<float>::quiet_NaN());
  AddNormalisation(stack, {&input, 1}, reference, options.normalisation);
  for (int top = 0; top < target.GetHeight(); top += kRows) {
    const int end = std::min(top + kRows, target.GetHeight());
    StoreRows(stack, 0, frame, input, top, end, options);
    stack.Stack(CImgStack::Mean, {.test = Rejection::None}, top, end - 1);
  }
}

std::unique_ptr<CVelImage> SampleInput(Job& job, const StackInput& input) {
  // As many lines as MeasureLevels looks at, one below the other.
  constexpr int kPixels = 60000;
  const Shape& shape = input.shape;
  const int lines = std::clamp((kPixels + shape.width - 1) / shape.width, 1, shape.height);
  auto sample = NewImage(job.MakeStore(), shape.width, lines, shape.planes);
  for (int i = 0; i < lines; ++i) {
    input.read(
        Image::RowsOf(*sample, i, 1).At(static_cast<int>((2LL * i + 1) * shape.height / (2LL * lines))));
  }
  return sample;
}

FrameLevels MeasureInput(Job& job, const StackInput& input) {
  return MeasureLevels(*SampleInput(job, input));
}

double ScaleOf(const FrameLevels& frame, const FrameLevels& reference, Normalisation normalisation,
               int plane) {
  const double from = frame.spread[plane], to = reference.spread[plane];
  return normalisation == Normalisation::LevelAndScale && from > 0 && to > 0 ? to / from : 1;
}

void CheckScales(const std::vector<StackInput>& inputs, int reference) {
  constexpr double kOtherScale = 1000;  // chosen: noise of one scale differs by far less
  const FrameLevels& wanted = inputs[reference].levels;
  for (const StackInput& input : inputs) {
    const double own = input.levels.noise[0], other = wanted.noise[0];
    if (!(own > 0 && other > 0) || std::max(own / other, other / own) < kOtherScale) continue;
    throw files::FileError(
        input.name, fmt::format("has a noise of {:.3g} about {:.6g}, but the reference {} has {:.3g} about "
                                "{:.6g}: their scales differ; stack frames of one scale",
                                own, input.levels.level[0], inputs[reference].name, other, wanted.level[0]));
  }
}

std::vector<CImgStack::PlaneWeights> NoiseWeights(const std::vector<StackInput>& inputs, int reference,
                                                  Normalisation normalisation) {
  std::vector<CImgStack::PlaneWeights> weights(inputs.size());
  for (int p = 0; p < 3; ++p) {
    double best = 0;
    for (size_t i = 0; i < inputs.size(); ++i) {
      const FrameLevels &from = inputs[i].levels, &to = inputs[reference].levels;
      const double noise = from.noise[p] * ScaleOf(from, to, normalisation, p);
      weights[i][p] = noise > 0 ? 1 / (noise * noise) : 0;
      best = std::max(best, weights[i][p]);
    }
    for (auto& planes : weights) {
      // A frame without noise has no pixels, or is none: it must not rule the others out.
      planes[p] = planes[p] > 0 ? planes[p] / best : 1;
    }
  }
  return weights;
}

}  // namespace korimg::session
