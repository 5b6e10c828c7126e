#include "korimg/composite/CImgComposit.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "korimg/geometry/CInterp.h"
#include "korimg/image/internal/CompositeStep.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/pipelines/runtime/Runtime.h"

using namespace korimg;

namespace {

enum Mode : int {
  kAverage,
  kAdd,
  kWeight,
  kSubtract,
  kMultiply,
  kDivide,
  kDifference,
  kBrighter,
  kDarker,
  kNeighbour
};

constexpr int kCompositing = 6107;
constexpr float kWhite = 255.0f;

float OutsideValue(int mode) {
  return mode == kMultiply || mode == kDivide ? kWhite : 0.0f;
}

/// Calls use(f) with what a mode makes of values a and b.
template <class F>
void WithMode(int mode, bool level, bool cutMinus, double weight, F&& use) {
  switch (mode) {
    case kAverage:
      return use([](float a, float b) { return static_cast<float>((static_cast<double>(a) + b) * 0.5); });
    case kAdd:
      return use([](float a, float b) { return a + b; });
    case kWeight:
      return use([=](float a, float b) { return static_cast<float>(a * (1.0 - weight) + b * weight); });
    case kSubtract:
      if (cutMinus) return use([](float a, float b) { return NotNegative(a - b); });
      return use([](float a, float b) { return a - b; });
    case kMultiply:
      if (level) return use([](float a, float b) { return a * std::clamp(b, 0.0f, kWhite) / kWhite; });
      return use([](float a, float b) { return a * b; });
    case kDivide:
      if (level) return use([](float a, float b) { return a / (std::clamp(b, 0.001f, kWhite) / kWhite); });
      return use([](float a, float b) { return a / (b == 0.0f ? 1.0f : b); });
    case kDifference:
      return use([](float a, float b) { return std::abs(a - b); });
    case kBrighter:
      return use([](float a, float b) { return a < b ? b : a; });
    case kDarker:
      return use([](float a, float b) { return b < a ? b : a; });
    default:
      return use([](float a, float) { return a; });
  }
}

}  // namespace

/// What is asked for, without the images.
struct CImgComposit::Task {
  double dx, dy, degrees;
  int useImageCentre, mode, method;
  double weight;
  bool level, cutMinus, floatMean;

  CInterp::Form GetForm() const { return CInterp::FormOf(dx, dy, degrees); }
  double Sine() const { return std::sin(degrees * std::numbers::pi / 180); }
  double Cosine() const { return std::cos(degrees * std::numbers::pi / 180); }

  /// The pipeline's name; one of no pipeline for an unknown method.
  std::string Pipeline() const {
    constexpr const char* kForms[] = {"intshift_", "floatshift_", "rotate_"};
    constexpr const char* kKernels[] = {"bilinear_", "bicubic_", "lanczos2_", "lanczos3_", "nearest_"};
    constexpr const char* kOps[] = {"average", "add",  "weight",   "sub",   "mult",
                                    "div",     "diff", "brighter", "darker"};
    const CInterp::Form form = GetForm();
    std::string name = std::string("composit_") + kForms[form] + (level ? "level_" : "");
    if (form != CInterp::WholeShift) name += method >= 0 && method < 5 ? kKernels[method] : "unknown_";
    name += mode > kDarker ? "default" : kOps[mode];
    if (mode == kSubtract && cutMinus) name += "_cutminus";
    return name + "_float";
  }
};

void CImgComposit::Do(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int useImageCentre,
                      int mode, int method, double weight, int level, int cutMinus, double threshold,
                      int radius, CRect* rect, int progress, int resourceId) {
  if (mode == kNeighbour) {
    DoNbrComposit(a, b, dx, dy, degrees, mode, method, weight, level, cutMinus, threshold, radius, rect,
                  progress, resourceId);
    return;
  }
  const Task task{dx, dy, degrees, useImageCentre, mode, method, weight, level != 0, cutMinus != 0, false};
  DoComposit(*a, *b, task, rect, progress, resourceId);
}

void CImgComposit::Do(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int useImageCentre,
                      int mode, int method, int level) {
  Do(a, b, dx, dy, degrees, useImageCentre, mode, method, 0.5, level, 0, 0.95, 0, nullptr, 0, -1);
}

void CImgComposit::Do65(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode,
                        double weight, int level, int cutMinus, double threshold, int radius, CRect* rect,
                        int progress, int resourceId) {
  if (mode == kNeighbour) {
    Abr(a, b, dx, dy, degrees, mode, weight, level, cutMinus, threshold, radius, rect, progress, resourceId);
    return;
  }
  const Task task{dx, dy, degrees, 0, mode, 0, weight, level != 0, cutMinus != 0, true};
  DoComposit(*a, *b, task, rect, progress, resourceId);
}

void CImgComposit::Do65(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode,
                        int level) {
  Do65(a, b, dx, dy, degrees, mode, 0.5, level, 0, 0.95, 0, nullptr, 0, -1);
}

void CImgComposit::Abr(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode,
                       double ratio, int level, int cutMinus, double threshold, int radius, CRect* rect,
                       int progress, int resourceId) {
  constexpr int kBilinear = 0;
  DoNbrComposit(a, b, dx, dy, degrees, mode, kBilinear, ratio, level, cutMinus, threshold, radius, rect,
                progress, resourceId);
}

void CImgComposit::DoComposit(CVelImage& a, CVelImage& b, const Task& asked, CRect* rect, int progress,
                              int resourceId) {
  if (!Fits(a, *this) || b.IsEmpty() || asked.mode < 0) return;
  Task task = asked;
  task.level |= task.mode > kNeighbour;
  if (MayRunPipelines(*this, a, b) && !task.floatMean) {
    DoPipelines(a, b, task, rect);
  } else {
    DoLines(a, b, task, rect, progress, resourceId);
  }
}

void CImgComposit::DoPipelines(CVelImage& a, CVelImage& b, const Task& task, CRect* rect) {
  // As far as shifts need to go: beyond it nothing of b is left, and positions stay whole numbers.
  constexpr int kFar = 1 << 30;
  const PipelineEntry* pipeline = FindPipeline(task.Pipeline());
  if (!pipeline) return;
  int wholeX = std::clamp(TruncateToInt(task.dx), -kFar, kFar),
      wholeY = std::clamp(TruncateToInt(task.dy), -kFar, kFar);
  const CInterp::Form form = task.GetForm();
  const auto number = [](double v) { return static_cast<float>(v); };
  CompositeBlocks(*this, a, b, rect,
                  [&](int p, int q, halide_buffer_t* first, halide_buffer_t* second, halide_buffer_t* out) {
                    std::vector<float> numbers;
                    if (form != CInterp::WholeShift) numbers = {number(task.dx), number(task.dy)};
                    if (form == CInterp::Rotate) {
                      const CfPoint centre = task.useImageCentre
                                                 ? b.GetStdCtr()
                                                 : CfPoint(b.GetWidth() * 0.5, b.GetHeight() * 0.5);
                      numbers.insert(numbers.end(), {number(centre.fx), number(centre.fy),
                                                     number(task.Cosine()), number(task.Sine())});
                    }
                    numbers.push_back(OutsideValue(task.mode));
                    if (task.level) {
                      numbers.insert(numbers.end(), {number(a.GetLevelMin(p)), number(a.GetLevelRange(p)),
                                                     number(b.GetLevelMin(q)), number(b.GetLevelRange(q))});
                    }
                    if (task.mode == kWeight) numbers.push_back(number(task.weight));
                    std::vector<void*> arguments{first, second};
                    if (form == CInterp::WholeShift) arguments.insert(arguments.end(), {&wholeX, &wholeY});
                    for (float& n : numbers) {
                      arguments.push_back(&n);
                    }
                    arguments.push_back(out);
                    return pipeline->call(arguments.data());
                  });
}

void CImgComposit::DoLines(CVelImage& a, CVelImage& b, const Task& task, CRect* rect, int progress,
                           int resourceId) {
  const Window window(*this, rect);
  const ProgressScope scope(*this, progress, resourceId == -1 ? kCompositing : resourceId,
                            window.IsEmpty() ? 0 : window.Height());
  if (window.IsEmpty()) return;
  // Rows of b are read beside the one that is written.
  std::unique_ptr<CVelImage> copy;
  CVelImage* second = &b;
  if (second == this) second = (copy = b.Clone(nullptr)).get();
  const int width = window.Width();
  CInterp interp(task.method);
  interp.SetBParam(task.GetForm(), second, window.left - task.dx, window.right - task.dx, task.level,
                   OutsideValue(task.mode), a.IsColor() ? -1 : 0, task.Sine(), task.Cosine(), 1.0,
                   task.useImageCentre);
  interp.SetLineCapacity(width);
  // Where a shift is no number, or leads far away, lines have fewer samples than the window.
  std::vector<float> samples(3LL * width, OutsideValue(task.mode));
  const auto row = [&](int p) { return samples.data() + static_cast<size_t>(p) * width; };
  const auto lines = [&](auto&& combine) {
    for (int y = window.top; y < window.bottom; ++y) {
      // b comes into rows of its own, since this image and a may be the same.
      interp.GetBLine(y - task.dy, row(0), row(1), row(2));
      for (int p = 0; p < std::min(GetPlanes(), kMostCompositePlanes); ++p) {
        const float* first = a.GetLine(window.left, y, p);
        const float* sampled = row(p);
        float* out = GetWritableLine(window.left, y, p);
        if (task.level) {
          const auto min = static_cast<float>(a.GetLevelMin(p));
          const auto gain = static_cast<float>(255.0 / a.GetLevelRange(p));
          for (int x = 0; x < width; ++x) {
            out[x] = combine((first[x] - min) * gain, sampled[x]) * (1.0f / gain) + min;
          }
        } else {
          for (int x = 0; x < width; ++x) {
            out[x] = combine(first[x], sampled[x]);
          }
        }
      }
      ShowProgress(1);
    }
  };
  if (task.floatMean && task.mode == kAverage) {
    lines([](float first, float second) { return (first + second) * 0.5f; });
  } else {
    WithMode(task.mode, task.level, task.cutMinus, task.weight, lines);
  }
}

void CImgComposit::DoNbrComposit(CVelImage* a, CVelImage* b, double dx, double dy, double degrees, int mode,
                                 int method, double ratio, int level, int, double threshold, int radius,
                                 CRect* rect, int progress, int resourceId) {
  constexpr int kMostRadius = 2, kNearest = 4;
  if (!Fits(*a, *this) || b->IsEmpty()) return;
  // Pixels of both are read around the one that is written.
  std::unique_ptr<CVelImage> copyOfA, copyOfB;
  if (a == this && radius > 0) a = (copyOfA = a->Clone(nullptr)).get();
  if (b == this) b = (copyOfB = b->Clone(nullptr)).get();
  const Window window(*this, rect);
  const int planes = std::min(GetPlanes(), kMostCompositePlanes);
  const ProgressScope scope(*this, progress, resourceId == -1 ? kCompositing : resourceId,
                            window.IsEmpty() ? 0 : planes * window.Height());
  const double sine = std::sin(degrees * std::numbers::pi / 180), cosine = std::sqrt(1 - sine * sine);
  const double limitA = level ? threshold * 255 : a->GetMaxPixel(0) * threshold;
  const double limitB = level ? threshold * 255 : b->GetMaxPixel(0) * threshold;
  const auto saturated = [&](double value, double limit) { return level ? value > limit : value >= limit; };
  const int r = std::min(radius, kMostRadius);
  CInterp interp(method, b, 0), nearA(kNearest, a, 0);
  for (int p = 0; p < planes; ++p) {
    const int q = std::min(p, b->GetPlanes() - 1);
    interp.SetBParam(b, dx, dy, sine, cosine, 1.0, 1, q, level ? OutsideValue(mode) : 0.0f);
    const auto pixelOfA = [&](int x, int y) {
      const float raw = nearA.GetPixData(x, y, p);
      return level ? a->To256(raw, p) : raw;
    };
    const auto pixelOfB = [&](double x, double y) {
      const float raw = interp.GetPixData(std::clamp(TruncateToInt(x + 0.5), 0, b->GetWidth() - 1),
                                          std::clamp(TruncateToInt(y + 0.5), 0, b->GetHeight() - 1), q);
      return level ? b->To256(raw, q) : raw;
    };
    const auto combined = [&](int x, int y) -> double {
      int off = 0;
      double sx = 0, sy = 0;
      const double av = pixelOfA(x, y);
      const double bv = level ? interp.GetBPixelGray256f(x, y, &off, &sx, &sy)
                              : interp.GetBPixelGrayRaw(x, y, &off, &sx, &sy);
      const double scaled = bv * ratio;
      if (off || !(sx >= 1 && sx < b->GetWidth() - 1 && sy >= 1 && sy < b->GetHeight() - 1)) return av;
      if (radius == 0) return std::min(scaled, av);
      double largestA = av, largestB = bv;
      for (int j = -r; j <= r; ++j) {
        for (int i = -r; i <= r; ++i) {
          if (x + i < 0 || x + i >= GetWidth() || y + j < 0 || y + j >= GetHeight()) continue;
          largestA = std::max<double>(largestA, pixelOfA(x + i, y + j));
          largestB = std::max<double>(largestB, pixelOfB(sx + i, sy + j));
        }
      }
      const bool spotOfB = saturated(largestB, limitB);
      if (!saturated(largestA, limitA)) return std::min(spotOfB ? largestB * ratio : scaled, av);
      if (!spotOfB) return std::min(scaled, largestA);
      if (saturated(av, limitA) && saturated(bv, limitB)) return std::min(scaled, av);
      // At the border of a spot that both have, the one that is nearer to what is done already.
      double fromA = 0, fromB = 0;
      for (const auto& [left, up] : {std::pair(1, 1), {0, 1}, {1, 0}}) {
        const int nx = std::max(x - left, 0), ny = std::max(y - up, 0);
        const double done = level ? GetPixelGray256f(nx, ny, p) : GetPixelGrayRaw(nx, ny, p);
        fromA += std::abs(av - done);
        fromB += std::abs(scaled - done);
      }
      return fromB > fromA ? av : scaled;
    };
    for (int y = window.top; y < window.bottom; ++y) {
      for (int x = window.left; x < window.right; ++x) {
        const double value = combined(x, y);
        SetPixelGrayRaw(x, y, static_cast<float>(level ? ToRaw(value, 0) : value), p);
      }
      ShowProgress(1);
    }
  }
}
