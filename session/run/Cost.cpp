#include "session/run/internal/Cost.h"

#include <algorithm>

#include <fmt/format.h>
#include <sys/stat.h>

#include "korimg/composite/stacking/CImgDrizzle.h"
#include "korimg/platform/CParallel.h"

#include "session/files/Formats.h"
#include "session/job/Json.h"
#include "session/job/internal/SideBySide.h"
#include "session/stack/Stack.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// Seconds that one thread takes for a million pixels of a frame: those of each master's frames, a light's
/// stars, each of the two developments of a mosaic, a plane in the stack; and for a plane of a result, which
/// is measured and written by one thread. By 20 lights and 30 calibration frames of 3008 x 2008 pixels, mono
/// and Bayer, on one and two threads of a server of 2.5 GHz with its files in memory.
constexpr double kMaster = 0.003, kStars = 0.010, kDevelop = 0.014, kStack = 0.016, kResult = 0.1;
/// The same of the drops of a plane, by 8 frames of 1504 x 1000 at twice the scale.
constexpr double kDrizzle = 0.12;

double Millions(const Shape& shape) {
  return 1e-6 * shape.width * shape.height;
}

long long Values(const Shape& shape) {
  return 1LL * shape.width * shape.height * shape.planes;
}

std::string Size(long long bytes) {
  constexpr double kKilo = 1e3;
  double number = static_cast<double>(bytes) / kKilo;
  const char* unit = "kB";
  for (const char* next : {"MB", "GB", "TB"}) {
    if (number < kKilo) break;
    number /= kKilo, unit = next;
  }
  return fmt::format("{:.3g} {}", number, unit);
}

std::string Time(double seconds) {
  if (seconds < 90) return fmt::format("{:.0f} s", std::max(seconds, 1.0));
  const double minutes = seconds / 60;
  return minutes < 90 ? fmt::format("{:.0f} min", minutes) : fmt::format("{:.1f} h", minutes / 60);
}

/// The folder, or what exists of the way to it.
fs::path Existing(const fs::path& folder) {
  fs::path path = fs::absolute(folder);
  while (!fs::exists(path) && path.has_relative_path()) {
    path = path.parent_path();
  }
  return path;
}

dev_t DiskOf(const fs::path& path) {
  struct stat state {};
  return stat(path.c_str(), &state) == 0 ? state.st_dev : 0;
}

}  // namespace

std::string Cost::Text() const {
  return fmt::format("will take up to {} of memory{} and {} on disk, and about {}", Size(memory),
                     temporary > 0 ? fmt::format(", {} of temporary files", Size(temporary)) : "",
                     Size(results + masters), Time(seconds));
}

nlohmann::ordered_json Cost::Description() const {
  return {{"memory_bytes", memory},
          {"temporary_bytes", temporary},
          {"disk_bytes", results + masters},
          {"seconds", seconds}};
}

Cost CostOf(const Job& job, const Workload& work) {
  // Bytes, chosen as upper limits: runs of 20 frames of 3008 x 2008 took 96 and 95 % of the disk told.
  constexpr long long kFloat = sizeof(float), kReport = 1 << 20, kThumbnail = 40000, kHeader = 1 << 16,
                      kProgram = 64 << 20;
  constexpr long long kStackBytes = 2 * kFloat + 2 + 1;  // FITS, two TIFF files, PNG
  constexpr long long kColourBytes = kFloat + 2 + 1;
  Cost cost;
  long long held = 0, measured = 0, saved = 0, stacked = 0, bands = 0, sources = 0;
  double shared = 0;  // seconds that all threads have a part in
  cost.results = kReport;
  for (const Workload::Master& master : work.masters) {
    shared += kMaster * static_cast<double>(master.frames) * Millions(master.shape) * master.shape.planes;
    held += kFloat * Values(master.shape);
    if (!work.masterFolder.empty()) cost.masters += kFloat * Values(master.shape) + kHeader;
  }
  Shape colour{0, 0, 3};
  for (const Workload::Stack& stack : work.stacks) {
    const double lights = static_cast<double>(stack.lights), millions = Millions(stack.shape);
    const bool isDrizzled = stack.scale > 0;
    shared +=
        lights * millions * (kStars + (stack.isMosaic ? 2 * kDevelop : 0) + kStack * stack.shape.planes);
    if (isDrizzled) shared += lights * millions * kDrizzle * (stack.isMosaic ? 1 : stack.shape.planes);
    Shape result = stack.shape;
    if (isDrizzled) {
      result.width = CImgDrizzle::SizeOf(result.width, stack.scale);
      result.height = CImgDrizzle::SizeOf(result.height, stack.scale);
    }
    cost.seconds += kResult * Millions(result) * result.planes;
    const long long values = Values(result), image = kFloat * Values(stack.shape);
    // Lights that are measured, as developed, each with its work space.
    const long long light = 2 * image;
    measured = std::max(measured, light * std::clamp<long long>(job.Memory() / 2 / light, 1, FramesAtOnce()));
    // The stack, what is measured on it, its gradient, its weights, and what is known of it.
    const int images = 2 + work.hasGradients + isDrizzled + work.qualityImages;
    // Values, flags and variances of all lights, if they fit.
    const int parts = work.qualityImages > 0 ? 3 : 2;
    const long long rows =
        std::min(DefaultStackMemory(job), parts * (static_cast<long long>(stack.lights) + 1) * image);
    bands = std::max(bands, rows);
    saved = std::max(saved, images * kFloat * values);
    stacked = std::max(stacked, rows + (1 + isDrizzled + work.qualityImages) * kFloat * values);
    cost.results += kThumbnail * static_cast<long long>(stack.lights) + kStackBytes * values + 4 * kHeader;
    cost.results += (work.hasGradients + isDrizzled + work.qualityImages) * (kFloat * values + kHeader);
    sources += kFloat * values;
    colour.width = std::max(colour.width, result.width);
    colour.height = std::max(colour.height, result.height);
  }
  if (work.hasColour) {
    saved = std::max(saved, sources + 2 * kFloat * Values(colour));
    cost.results += kColourBytes * Values(colour) + 3 * kHeader;
    cost.seconds += kResult * Millions(colour) * colour.planes;
  }
  cost.seconds += shared / CParallel::GetMaxThreads();
  // The budget is that of images; the rows of lights in a band come on top of it.
  cost.temporary = std::max(held + std::max(measured, saved) - job.Memory(), 0LL);
  // The allocator keeps some of what measuring took.
  cost.memory = kProgram + std::min(held + measured + std::max(stacked, saved), job.Memory() + bands);
  return cost;
}

void CheckRoom(const Workload& work, const Cost& cost) {
  const fs::path out = Existing(work.out),
                 masters = work.masterFolder.empty() ? out : Existing(work.masterFolder),
                 temporary = fs::temp_directory_path();
  const std::pair<fs::path, long long> needs[] = {
      {out, cost.results}, {masters, cost.masters}, {temporary, cost.temporary}};
  for (const auto& [folder, ignored] : needs) {
    long long needed = 0;
    for (const auto& [other, bytes] : needs) {
      if (DiskOf(other) == DiskOf(folder)) needed += bytes;
    }
    if (static_cast<std::uint64_t>(needed) > files::FreeSpace(folder)) {
      files::ThrowDiskFull(work.out, folder, static_cast<std::uint64_t>(needed));
    }
  }
}

}  // namespace korimg::session
