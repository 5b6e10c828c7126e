#include "python/src/Host.h"

#include <algorithm>
#include <array>
#include <atomic>

#include <fmt/format.h>
#include <unistd.h>

namespace korimg::python {

namespace {

/// Refuses to work where it would never end: threads of a process are not there in what was forked from it.
void CheckProcess() {
  static std::atomic<pid_t> worker = 0;  // the process that began to work
  pid_t none = 0;
  const pid_t own = getpid();
  if (worker.compare_exchange_strong(none, own) || none == own) return;
  throw UsageError(
      "this process was forked from one that had worked with korimg already, and has none of its threads; "
      "start processes by multiprocessing.get_context(\"spawn\") or \"forkserver\"");
}

}  // namespace

Host::Host(Options options)
    : job(OptionsFor(options)), report_(std::move(options.report)), wantsProgress_(options.wantsProgress) {
  if (options.usesThreads) CheckProcess();
  // The first step is shown at once; nobody waits for the signals of what is as short.
  if (!wantsProgress_) last_ = std::chrono::steady_clock::now();
}

JobOptions Host::OptionsFor(const Options& options) {
  // Finding out what the machine has takes longer than a small operation.
  static const long long usual = DefaultBudget();
  JobOptions world;
  world.report = [this](const Event& event) { Take(event); };
  world.memory = options.memory > 0 ? options.memory : usual;
  world.overwrite = options.overwrite;
  world.origin = options.origin;
  return world;
}

void Host::Take(const Event& event) {
  // As often as people see, and signals need to be looked for.
  constexpr std::chrono::milliseconds kPause(50);
  if (isEnding_) return;
  const bool isProgress = event.kind == Event::Progress;
  if (isProgress && event.total == 0 && !wantsProgress_) return;
  if (isProgress && event.step < event.total) {
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < kPause) return;
    last_ = now;
  }
  const py::gil_scoped_acquire locked;
  try {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (report_.is_none() || (isProgress && !wantsProgress_)) return;
    report_(static_cast<int>(event.kind), event.text, event.data, event.step, event.total, event.detail);
  } catch (py::error_already_set& raised) {
    type_ = raised.type();
    value_ = raised.value();
    trace_ = raised.trace() ? py::object(raised.trace()) : py::none();
    isEnding_ = true;
    job.options.cancel->Cancel();
  }
}

void Host::Raise() {
  if (!isEnding_) return;
  PyErr_Restore(type_.release().ptr(), value_.release().ptr(),
                trace_.is_none() ? nullptr : trace_.release().ptr());
  throw py::error_already_set();
}

namespace {

std::array<int, 3> ShapeOf(const Pixels& pixels) {
  const auto dimensions = pixels.ndim();
  const bool hasPlanes = dimensions == 3;
  if (dimensions != 2 && !hasPlanes) {
    throw UsageError(
        fmt::format("an image has the shape (rows, columns) or (planes, rows, columns), not {} "
                    "dimensions",
                    dimensions));
  }
  const auto planes = hasPlanes ? pixels.shape(0) : 1, rows = pixels.shape(hasPlanes),
             columns = pixels.shape(hasPlanes + 1);
  if (planes < 1 || planes > 3) {
    throw UsageError(fmt::format(
        "an image has 1 to 3 planes, not {}: its shape is (rows, columns) or (planes, rows, columns){}",
        planes, columns <= 4 ? "; numpy.moveaxis(image, -1, 0) brings colours to the front" : ""));
  }
  if (rows < 1 || columns < 1 || rows > files::kMaxSide || columns > files::kMaxSide) {
    throw UsageError(
        fmt::format("an image has 1 to {} rows and columns, not {} x {}", files::kMaxSide, rows, columns));
  }
  return {static_cast<int>(columns), static_cast<int>(rows), static_cast<int>(planes)};
}

}  // namespace

Band<const float> BandOf(const Pixels& pixels) {
  const auto [width, height, planes] = ShapeOf(pixels);
  return {pixels.data(), planes, width, 0, height};
}

Band<float> WritableBandOf(Pixels& pixels) {
  const auto [width, height, planes] = ShapeOf(pixels);
  return {pixels.mutable_data(), planes, width, 0, height};
}

Pixels NewArray(int width, int height, int planes, bool withPlanes) {
  if (planes == 1 && !withPlanes) return Pixels({height, width});
  return Pixels({planes, height, width});
}

Pixels ArrayOf(const Image& image, bool withPlanes) {
  Pixels pixels = NewArray(image.Width(), image.Height(), image.Planes(), withPlanes);
  const Band<float> to = WritableBandOf(pixels);
  const py::gil_scoped_release unlocked;
  image.ReadRows(to);
  return pixels;
}

LevelPairs LevelsOf(const CVelImage& image) {
  LevelPairs levels;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    levels.emplace_back(image.GetLevelMin(p), image.GetLevelMax(p));
  }
  return levels;
}

Image ImageOver(Job& job, const Pixels& pixels, const LevelPairs& levels, const files::Header* header,
                ResultMemory result) {
  const Band<const float> band = BandOf(pixels);
  // Who may not write to the array only reads the image.
  std::array<float*, Band<float>::kMostPlanes> planes{};
  for (int p = 0; p < band.Planes(); ++p) {
    planes[p] = const_cast<float*>(band.Data()[p]);
  }
  Image image = Image::Over(job, {planes.data(), band.Planes(), band.Width(), 0, band.Rows()}, nullptr,
                            levels, std::move(result));
  if (header) image.Header() = *header;
  return image;
}

}  // namespace korimg::python
