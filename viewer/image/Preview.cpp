#include "viewer/image/Preview.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <set>

#include "session/picture/Image.h"

namespace korimg::viewer {

using namespace session;

namespace {

constexpr double kMostPixels = 2e6;  // of a preview: 21 to 42 ms (docs/performance.md, "The viewer")
constexpr double kMostWhole = 16e6;  // where other images are beside it, which are of its size; chosen

}  // namespace

Image WindowOf(Pyramid& pyramid, int level, const CRect& rect, const std::function<bool()>& isGone) {
  const Source& source = pyramid.Of();
  Image window(NewImage(CreateContiguousManager({}), rect.Width(), rect.Height(), source.shape.planes));
  pyramid.Fill(level, rect, window.Rows(), isGone);
  if (source.isOverturned) TurnOver(window.Pixels());
  pyramid.GiveLevels(window.Pixels());
  window.Header() = source.info.header;
  return window;
}

namespace {

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

/// A parameter's value, or its default one; null where it has none.
const Value* ValueOf(const Step& step, const Parameter& parameter) {
  const auto given = step.Values().find(parameter.name);
  if (given != step.Values().end()) return &given->second;
  return parameter.defaultValue ? &*parameter.defaultValue : nullptr;
}

/// How far a step looks, as its parameters say.
double ReachOf(const Step& step) {
  constexpr double kBySigma = 4;  // chosen: what a Gaussian takes in, but for 6e-5 of it
  double reach = 0;
  for (const auto& [name, value] : step.Values()) {
    if (const auto* kernel = std::get_if<Matrix>(&value))
      reach = std::max(reach, kernel->rows / 2 / kBySigma);
  }
  for (const Parameter& parameter : step.What().parameters) {
    if (parameter.unit != "pixels") continue;
    const Value* value = ValueOf(step, parameter);
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

/// The step for a picture so many times as small: what its parameters say in pixels is as much less, of those
/// that were not given too.
Step Shrunk(const Step& step, int times) {
  Step shrunk = step;
  for (const Parameter& parameter : step.What().parameters) {
    const Value* value = times > 1 && parameter.unit == "pixels" ? ValueOf(step, parameter) : nullptr;
    if (!value) continue;
    const auto scaled = [&](double pixels) {
      return std::copysign(std::max(std::abs(pixels) / times, parameter.low), pixels);
    };
    if (const auto* number = std::get_if<double>(value)) shrunk.SetValue(parameter.name, scaled(*number));
    if (const auto* whole = std::get_if<int>(value)) {
      shrunk.SetValue(parameter.name, static_cast<int>(std::lround(scaled(*whole))));
    }
    if (const auto* planes = std::get_if<PerPlane>(value)) {
      std::vector<double> values = planes->values;
      std::ranges::transform(values, values.begin(), scaled);
      shrunk.SetValue(parameter.name, PerPlane(values));
    }
  }
  return shrunk;
}

CRect Scaled(const CRect& rect, int step, const Shape& shape) {
  return CRect(rect.left / step, rect.top / step, std::min<int>((rect.right + step - 1) / step, shape.width),
               std::min<int>((rect.bottom + step - 1) / step, shape.height));
}

/// Does the steps, for a picture so many times as small. @throws UsageError where pixels lie elsewhere then
void RunAll(Job& job, const std::vector<Step>& steps, int times, Image& image) {
  const int width = image.Width(), height = image.Height();
  for (const Step& step : steps) {
    Shrunk(step, times).Run(job, image);
    job.CheckCancelled();
    const HeaderEffect effect = step.What().header;
    if (image.Width() != width || image.Height() != height || effect == HeaderEffect::Moves ||
        effect == HeaderEffect::DropsPlaces) {
      throw UsageError(step.What().name + " moves pixels: it is seen once it is done to the file");
    }
  }
}

/// A rectangle with a margin, as far as the picture goes.
CRect Widened(const CRect& rect, int margin, const Shape& shape) {
  return CRect(std::max<int>(rect.left - margin, 0), std::max<int>(rect.top - margin, 0),
               std::min<int>(rect.right + margin, shape.width),
               std::min<int>(rect.bottom + margin, shape.height));
}

/// The finest level of few pixels.
int LevelOfFew(const Pyramid& pyramid) {
  constexpr double kFew = 1e6;  // chosen
  int level = 0;
  while (level + 1 < pyramid.Levels() && 1.0 * pyramid.At(level).width * pyramid.At(level).height > kFew) {
    ++level;
  }
  return level;
}

/// Squares of the picture: some spread over it, and one with the brightest star. All of a small picture.
std::vector<CRect> Samples(Pyramid& pyramid, const std::function<bool()>& isGone) {
  constexpr int kSide = 160, kColumns = 4, kRows = 2;  // chosen: a preview takes twice as long by them
  const Shape& all = pyramid.At(0);
  if (1.0 * all.width * all.height <= kSide * kSide * (kColumns * kRows + 1)) {
    return {CRect(0, 0, all.width, all.height)};
  }
  const int width = std::min(kSide, all.width), height = std::min(kSide, all.height);
  const auto square = [&](double x, double y) {  // about a place
    const int left = std::clamp(static_cast<int>(x) - width / 2, 0, all.width - width),
              top = std::clamp(static_cast<int>(y) - height / 2, 0, all.height - height);
    return CRect(left, top, left + width, top + height);
  };
  std::vector<CRect> squares;
  for (int i = 0; i < kColumns * kRows; ++i) {
    squares.push_back(
        square((i % kColumns + 0.5) * all.width / kColumns, (i / kColumns + 0.5) * all.height / kRows));
  }
  const int level = LevelOfFew(pyramid);
  float most = -std::numeric_limits<float>::infinity();
  CRect brightest = squares.front();
  for (int index = 0; index < pyramid.Strips(level); ++index) {
    const Pyramid::StripPtr strip = pyramid.Get(level, index, isGone);
    for (int y = strip->rows.Top(); y < strip->rows.Bottom(); ++y) {
      const Row<const float> row = strip->rows.Row(0, y);
      for (int x = 0; x < strip->rows.Width(); ++x) {
        if (!(row[x] > most)) continue;
        most = row[x];
        brightest = square(std::ldexp(x + 0.5, level), std::ldexp(y + 0.5, level));
      }
    }
  }
  squares.push_back(brightest);
  return squares;
}

/// How a file of what the steps make is shown when it is opened.
session::Levels LevelsOfResult(Job& job, Pyramid& pyramid, const std::vector<Step>& steps, int margin,
                               const std::function<bool()>& isGone) {
  const std::vector<CRect> squares = Samples(pyramid, isGone);
  std::vector<Image> made;
  for (const CRect& square : squares) {
    const CRect wide = Widened(square, margin, pyramid.At(0));
    Image piece = WindowOf(pyramid, 0, wide, isGone);
    RunAll(job, steps, 1, piece);
    Image cut(NewImage(CreateContiguousManager({}), square.Width(), square.Height(), piece.Planes()));
    const int left = square.left - wide.left;
    const int top = pyramid.Of().isOverturned ? wide.bottom - square.bottom : square.top - wide.top;
    for (int p = 0; p < piece.Planes(); ++p) {
      for (int y = 0; y < cut.Height(); ++y) {
        std::ranges::copy(piece.Rows().Plane(p)[top + y].subspan(left, cut.Width()),
                          cut.Rows().Plane(p)[y].begin());
      }
    }
    made.push_back(std::move(cut));
  }
  if (made.size() == 1) return LevelForPicture(made.front().Pixels(), LevelMethod::Auto);
  // The sky's level and what it varies by from place to place are those of all of the picture, made small;
  // what it varies by from pixel to pixel, and the highest light, those of the squares.
  const int small = LevelOfFew(pyramid);
  const Shape shape = pyramid.At(small);
  Image whole = WindowOf(pyramid, small, CRect(0, 0, shape.width, shape.height), isGone);
  RunAll(job, steps, 1 << small, whole);
  FrameLevels sky = MeasureLevels(whole.Pixels());
  std::vector<FrameLevels> own;
  std::ranges::transform(made, std::back_inserter(own),
                         [](Image& cut) { return MeasureLevels(cut.Pixels()); });
  std::vector<std::pair<double, double>> extremes;
  for (int p = 0; p < std::min(whole.Planes(), 3); ++p) {
    const auto middle = own.begin() + own.size() / 2;
    std::ranges::nth_element(own, middle, {}, [p](const FrameLevels& levels) { return levels.spread[p]; });
    sky.spread[p] = std::hypot(sky.spread[p], middle->spread[p]);
    extremes.push_back(FiniteExtremes(made.front().Pixels(), p));
    for (Image& cut : made) {
      const auto [least, most] = FiniteExtremes(cut.Pixels(), p);
      extremes.back() = {std::min(extremes.back().first, least), std::max(extremes.back().second, most)};
    }
  }
  return StretchForPicture(sky, extremes, false);
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
  const int margin = kReach * static_cast<int>(steps.size());
  const CRect window =
      preview.isWhole ? CRect(0, 0, shape.width, shape.height) : Widened(shown, margin, shape);
  Image image = WindowOf(pyramid, level, window, isGone);
  RunAll(job, steps, preview.step, image);
  Stretch stretch = options.stretch;
  if (!options.asIs) {
    stretch.steps.clear();
    stretch.levels = preview.isWhole ? LevelForPicture(image.Pixels(), LevelMethod::Auto)
                                     : LevelsOfResult(job, pyramid, steps, margin, isGone);
  }
  const bool overturned = pyramid.Of().isOverturned;
  preview.bytes = Cut(Draw(image, stretch),
                      CRect(shown.left - window.left, shown.top - window.top, shown.right - window.left,
                            shown.bottom - window.top),
                      overturned);
  preview.rect = CRect(shown.left * preview.step, shown.top * preview.step,
                       std::min<int>(shown.right * preview.step, all.width),
                       std::min<int>(shown.bottom * preview.step, all.height));
  return preview;
}

}  // namespace korimg::viewer
