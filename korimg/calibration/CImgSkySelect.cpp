#include "korimg/calibration/CImgSkySelect.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/LineSums.h"
#include "korimg/image/internal/Numbers.h"

using namespace korimg;

namespace {

/// Of an even number the upper one; NaN sorts last.
double MiddleOf(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end(),
                   [](double a, double b) { return a < b || (std::isnan(b) && !std::isnan(a)); });
  return *middle;
}

}  // namespace

int CImgSkySelect::PrepareRegion(int size, CRect* area, CRect* hole, unsigned int step, Items& items) {
  const long long stride = 1LL * size * step;
  if (stride < 1) return 0;
  const auto isInHole = [hole](int x, int y) {
    return hole && x >= hole->left && x < hole->right && y >= hole->top && y < hole->bottom;
  };
  int count = 0;
  for (long long y = area->top; y + stride < area->bottom; y += stride) {
    for (long long x = area->left; x + stride < area->right; x += stride) {
      CSelectRegionItem item;
      item.topLeft = CPoint(static_cast<int>(x), static_cast<int>(y));
      item.size.cx = item.size.cy = size;
      if (isInHole(item.topLeft.x, item.topLeft.y)) continue;
      items.Add(item);
      ++count;
    }
  }
  return count;
}

/// Makes the squares of rectangles that are clipped to the image.
int CImgSkySelect::Prepare(int size, CRect* area, CRect* hole, int step, Items& items) {
  const Window all(*this, area), none(0, 0, 0, 0), out = hole ? Window(*this, hole) : none;
  CRect within(all.left, all.top, all.right, all.bottom), without(out.left, out.top, out.right, out.bottom);
  return PrepareRegion(size, &within, &without, step, items);
}

// The figures of both are those of CImgPixelInfo::Calc.

double CImgSkySelect::DeviationOf(const CSelectRegionItem& square) {
  const int x = square.topLeft.x, y = square.topLeft.y;
  const int width = square.size.cx, height = square.size.cy;
  const double pixels = static_cast<double>(width) * height;
  thread_local std::vector<double> lines;
  lines.resize(height);
  double deviation = 0;
  for (int p = 0; p < GetPlanes(); ++p) {
    const auto sum = [&](auto&& term) {
      SumLines(*this, Window(x, y, x + width, y + height), p, term, lines.data());
      return std::accumulate(lines.begin(), lines.end(), 0.0);
    };
    const double mean = sum([](float v) { return static_cast<double>(v); }) / pixels;
    deviation += std::sqrt(sum([mean](float v) { return (v - mean) * (v - mean); }) / pixels);
  }
  return deviation / GetPlanes();
}

double CImgSkySelect::MedianOf(const CSelectRegionItem& square) {
  thread_local std::vector<float> pixels;
  double median = 0;
  for (int p = 0; p < GetPlanes(); ++p) {
    pixels.clear();
    for (int line = 0; line < square.size.cy; ++line) {
      const float* in = GetLine(square.topLeft.x, square.topLeft.y + line, p);
      pixels.insert(pixels.end(), in, in + square.size.cx);
    }
    const auto middle = pixels.begin() + static_cast<std::ptrdiff_t>((pixels.size() - 1) / 2);
    std::nth_element(pixels.begin(), middle, pixels.end(), NanLast);
    median += *middle;
  }
  return median / GetPlanes();
}

int CImgSkySelect::CalcStddevMedian(int size, CRect* area, CRect* hole, double* deviation, double* median,
                                    int nProgress) {
  const int step = std::max(2 * (std::max(GetWidth(), GetHeight()) >> 11), 2);
  Items items;
  const int count = Prepare(size, area, hole, step, items);
  const ProgressScope progress(*this, nProgress, 6199, count);
  if (count == 0) return 0;
  std::vector<double> deviations(count), medians(count);
  ForLines(Team::All, 0, count, [&](int i) {
    CSelectRegionItem& item = items[i];
    deviations[i] = item.deviation = DeviationOf(item);
    medians[i] = item.median = MedianOf(item);
    ShowProgress(1);
  });
  *deviation = MiddleOf(deviations);
  *median = MiddleOf(medians);
  return 1;
}

int CImgSkySelect::Do(int size, CRect* area, CRect* hole, double deviation, double median, CRect* out,
                      int nProgress) {
  const int step = std::max(std::max(GetWidth(), GetHeight()) >> 11, 1);
  Items items;
  const int count = Prepare(size, area, hole, step, items);
  const ProgressScope progress(*this, nProgress, 6200, count);
  std::vector<char> isClean(count);
  ForLines(Team::All, 0, count, [&](int i) {
    CSelectRegionItem& item = items[i];
    item.deviation = DeviationOf(item);
    if (item.deviation <= deviation) {  // few are: medians cost more
      item.median = MedianOf(item);
      isClean[i] = item.median <= median;
    }
    ShowProgress(1);
  });
  const auto first = std::find(isClean.begin(), isClean.end(), 1);
  if (first == isClean.end()) return 0;
  const CSelectRegionItem& item = items[first - isClean.begin()];
  *out = CRect(item.topLeft.x, item.topLeft.y, item.topLeft.x + item.size.cx, item.topLeft.y + item.size.cy);
  return 1;
}

int CImgSkySelect::AutoSelect(CRect* out, int nProgress) {
  const int width = GetWidth(), height = GetHeight(), w8 = width / 8, h8 = height / 8;
  CRect area(w8, h8, width - w8, height - h8);
  CRect hole(width / 2 - w8, height / 2 - h8, width / 2 + w8, height / 2 + h8);
  double deviation = 0, median = 0;
  if (!CalcStddevMedian(8, &area, &hole, &deviation, &median, nProgress)) return 0;
  for (const int size : {128, 64, 32, 16}) {
    if (Do(size, &area, &hole, deviation, median, out, nProgress)) return 1;
  }
  return 0;
}
