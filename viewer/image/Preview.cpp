#include "viewer/image/Preview.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "session/picture/Image.h"

namespace korimg::viewer {

using namespace session;

namespace {

constexpr double kMostPixels = 2e6;  // of a preview; it takes a tenth of a second for most operations
constexpr double kMostWhole = 16e6;  // where other images are beside it, which are of its size

/// Operations that look at a pixel, or at those about it as far as their parameters in pixels say.
const std::set<std::string>& LocalOperations() {
  static const std::set<std::string> names = {
      "bright",
      "colour-matrix",
      "colour-noise",
      "curve",
      "cut-off",
      "cut-to-levels",
      "false-colour",
      "fringe",
      "gaussian",
      "ghs",
      "guide-error",
      "hot-cool",
      "invert",
      "kernel",
      "laplacian",
      "level",
      "maximum",
      "mean",
      "mean-without-edge",
      "median",
      "minimum",
      "multiband-sharpen",
      "posterize",
      "rank",
      "sharpen",
      "sharpen-edges",
      "small-median",
      "small-rank",
      "small-unsharp",
      "smooth-faint",
      "smooth-sky",
      "stretch",
      "threshold",
      "to-lab",
      "unsharp",
  };
  return names;
}

/// How far a step looks, as its parameters say.
double ReachOf(const Step& step) {
  constexpr double kBySigma = 4;  // what a Gaussian takes in
  double reach = 0;
  for (const auto& [name, value] : step.Values()) {
    if (const auto* kernel = std::get_if<Matrix>(&value))
      reach = std::max(reach, kernel->rows / 2 / kBySigma);
  }
  for (const Parameter& parameter : step.What().parameters) {
    if (parameter.unit != "pixels") continue;
    const auto given = step.Values().find(parameter.name);
    const Value* value = given != step.Values().end() ? &given->second
                         : parameter.defaultValue     ? &*parameter.defaultValue
                                                      : nullptr;
    if (!value) continue;
    if (const auto* number = std::get_if<double>(value)) reach = std::max(reach, std::abs(*number));
    if (const auto* whole = std::get_if<int>(value)) reach = std::max(reach, 1.0 * std::abs(*whole));
    if (const auto* planes = std::get_if<PerPlane>(value)) {
      for (const double v : planes->values) {
        reach = std::max(reach, std::abs(v));
      }
    }
  }
  return kBySigma * reach;
}

bool TakesImages(const Step& step) {
  return std::ranges::any_of(
      step.Values(), [](const auto& value) { return std::holds_alternative<ImageValue>(value.second); });
}

/// The step for a picture so many times as small: what its parameters say in pixels is as much less.
Step Shrunk(const Step& step, int times) {
  Step shrunk = step;
  for (const auto& [name, value] : step.Values()) {
    const Parameter& parameter = step.What().Find(name);
    const auto scaled = [&](double pixels) { return std::max(pixels / times, parameter.low); };
    if (parameter.unit != "pixels") continue;
    if (const auto* number = std::get_if<double>(&value)) shrunk.SetValue(name, scaled(*number));
    if (const auto* planes = std::get_if<PerPlane>(&value)) {
      std::vector<double> values = planes->values;
      std::ranges::transform(values, values.begin(), scaled);
      shrunk.SetValue(name, PerPlane(values));
    }
  }
  return shrunk;
}

/// A window of a level of the picture as an image that lies as the file does.
Image WindowOf(Pyramid& pyramid, int level, const CRect& rect, const std::function<bool()>& isGone) {
  const Source& source = pyramid.Of();
  const int width = rect.Width(), height = rect.Height();
  Image window(NewImage(CreateContiguousManager({}), width, height, source.shape.planes));
  const Band<float> to = window.Rows();
  for (int index = rect.top / Pyramid::kTile; index * Pyramid::kTile < rect.bottom; ++index) {
    const Pyramid::StripPtr strip = pyramid.Get(level, index, isGone);
    const Band<const float>& rows = strip->rows;
    for (int y = std::max(rect.top, rows.Top()); y < std::min<int>(rect.bottom, rows.Bottom()); ++y) {
      const int line = source.isOverturned ? rect.bottom - 1 - y : y - rect.top;
      for (int p = 0; p < to.Planes(); ++p) {
        std::ranges::copy(rows.Row(p, y).subspan(rect.left, width), to.Plane(p)[line].begin());
      }
    }
  }
  pyramid.GiveLevels(window.Pixels());
  window.Header() = source.info.header;
  return window;
}

CRect Scaled(const CRect& rect, int step, const Shape& shape) {
  return CRect(rect.left / step, rect.top / step, std::min<int>((rect.right + step - 1) / step, shape.width),
               std::min<int>((rect.bottom + step - 1) / step, shape.height));
}

Bytes Cut(const Bytes& from, const CRect& rect, bool overturned) {
  Bytes cut{static_cast<int>(rect.Width()), static_cast<int>(rect.Height()), from.planes, {}};
  cut.pixels.reserve(static_cast<std::size_t>(cut.width) * cut.height * cut.planes);
  for (int y = rect.top; y < rect.bottom; ++y) {
    const int line = overturned ? from.height - 1 - y : y;
    const auto* const row =
        from.pixels.data() + (static_cast<std::size_t>(line) * from.width + rect.left) * from.planes;
    cut.pixels.insert(cut.pixels.end(), row, row + static_cast<std::size_t>(cut.width) * cut.planes);
  }
  return cut;
}

}  // namespace

bool IsLocal(const Step& step) {
  // Without these it stretches by what it measures.
  const auto has = [&](const char* name) { return step.Values().contains(name); };
  if (step.What().name == "stretch" && !has("shadow") && !has("midtone") && !has("highlight")) return false;
  return LocalOperations().contains(step.What().name) && ReachOf(step) <= kReach;
}

Preview DrawPreview(Job& job, Pyramid& pyramid, const std::vector<Step>& steps,
                    const PreviewOptions& options) {
  const auto isGone = [&job] { return job.options.cancel->IsCancelled(); };
  const Shape& all = pyramid.At(0);
  CRect seen(std::max<int>(options.seen.left, 0), std::max<int>(options.seen.top, 0),
             std::min<int>(options.seen.right, all.width), std::min<int>(options.seen.bottom, all.height));
  if (seen.IsRectEmpty()) throw UsageError("nothing of the picture is seen");
  const bool takesImages = std::ranges::any_of(steps, TakesImages);
  Preview preview{.isWhole = takesImages || !std::ranges::all_of(steps, IsLocal)};
  int level = 0;
  const auto isTooLarge = [&] {
    const CRect rect = preview.isWhole ? CRect(0, 0, all.width, all.height) : seen;
    return std::ldexp(1.0 * rect.Width() * rect.Height(), -2 * level) > kMostPixels;
  };
  const auto isFine = [&] { return !preview.isWhole && std::ldexp(options.scale, level + 1) <= 1; };
  if (takesImages) {
    if (1.0 * all.width * all.height > kMostWhole) {
      throw UsageError("operations with other images have no preview on pictures as large as this one");
    }
  } else {
    while (level + 1 < pyramid.Levels() && (isTooLarge() || isFine())) {
      ++level;
    }
  }
  preview.step = 1 << level;
  const Shape shape = pyramid.At(level);
  const CRect shown = Scaled(seen, preview.step, shape);
  CRect window(0, 0, shape.width, shape.height);
  if (!preview.isWhole) {
    const int margin = kReach * static_cast<int>(steps.size());
    window = CRect(std::max<int>(shown.left - margin, 0), std::max<int>(shown.top - margin, 0),
                   std::min<int>(shown.right + margin, shape.width),
                   std::min<int>(shown.bottom + margin, shape.height));
  }
  Image image = WindowOf(pyramid, level, window, isGone);
  for (const Step& step : steps) {
    Shrunk(step, preview.step).Run(job, image);
    job.CheckCancelled();
    const bool isThere = image.Width() == window.Width() && image.Height() == window.Height();
    if (!isThere || step.What().header == HeaderEffect::Moves ||
        step.What().header == HeaderEffect::DropsPlaces) {
      throw UsageError(step.What().name + " moves pixels: it is seen once it is done to the file");
    }
  }
  const Levels levels = options.asIs ? options.levels : LevelForPicture(image.Pixels(), LevelMethod::Auto);
  ShowByLevels(image.Pixels(), levels);
  const bool overturned = pyramid.Of().isOverturned;
  preview.bytes = Cut(BytesOf(image.Pixels(), options.inColours),
                      CRect(shown.left - window.left, shown.top - window.top, shown.right - window.left,
                            shown.bottom - window.top),
                      overturned);
  preview.rect = CRect(shown.left * preview.step, shown.top * preview.step,
                       std::min<int>(shown.right * preview.step, all.width),
                       std::min<int>(shown.bottom * preview.step, all.height));
  return preview;
}

}  // namespace korimg::viewer
