#include "session/operations/internal/Polygon.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "session/files/ImageFile.h"
#include "session/operations/internal/NumberLines.h"

namespace korimg::session {
namespace {

struct Vertex {
  double x = 0, y = 0;
};

/// Columns from `first` to `last`, both included, before or after they are brought to whole pixels.
template <class T>
using Span = std::pair<T, T>;

std::vector<Vertex> ReadVertices(const std::filesystem::path& path) {
  constexpr double kFar = 1e6;  // pixels
  std::vector<Vertex> vertices;
  for (const auto& line :
       ReadNumberLines(path, 2, 2, kFar, "vertex; write x and y in pixels, such as 12.5 80")) {
    vertices.push_back({line[0], line[1]});
  }
  if (vertices.size() < 3) {
    throw files::FileError(path, fmt::format("has {} vertices; a polygon has 3 or more", vertices.size()));
  }
  return vertices;
}

/// Where row y meets a closed polygon: what is inside just above and just below it, and edges along it.
std::vector<Span<double>> Cut(const std::vector<Vertex>& vertices, double y) {
  std::vector<Span<double>> spans;
  std::vector<double> above, below;
  for (size_t i = 0; i < vertices.size(); ++i) {
    auto [a, b] = std::pair(vertices[i], vertices[(i + 1) % vertices.size()]);
    if (a.y > b.y) std::swap(a, b);
    if (y < a.y || y > b.y) continue;
    if (a.y == b.y) {
      spans.push_back(std::minmax({a.x, b.x}));
      continue;
    }
    const double x = y == b.y ? b.x : a.x + (y - a.y) / (b.y - a.y) * (b.x - a.x);
    if (y < b.y) below.push_back(x);
    if (y > a.y) above.push_back(x);
  }
  for (std::vector<double>* crossings : {&above, &below}) {
    std::sort(crossings->begin(), crossings->end());
    for (size_t i = 0; i + 1 < crossings->size(); i += 2) {
      spans.emplace_back((*crossings)[i], (*crossings)[i + 1]);
    }
  }
  return spans;
}

/// The pixels whose centres lie in the spans, in runs from the left.
std::vector<Span<int>> PixelRuns(const std::vector<Span<double>>& spans, int width) {
  constexpr double kRounding = 1e-9;  // pixels
  std::vector<Span<int>> pixels, runs;
  for (const auto& [low, high] : spans) {
    const int first = static_cast<int>(std::ceil(std::max(low - kRounding, 0.0)));
    const int last = static_cast<int>(std::floor(std::min(high + kRounding, width - 1.0)));
    if (first <= last) pixels.emplace_back(first, last);
  }
  std::sort(pixels.begin(), pixels.end());
  for (const auto& [first, last] : pixels) {
    if (!runs.empty() && first <= runs.back().second + 1) {
      runs.back().second = std::max(runs.back().second, last);
    } else {
      runs.emplace_back(first, last);
    }
  }
  return runs;
}

}  // namespace

CImageSelection ReadPolygon(const std::filesystem::path& path, int width, int height) {
  const std::vector<Vertex> vertices = ReadVertices(path);
  CImageSelection selection;
  selection.SetHeight(height);
  bool any = false;
  for (int y = 0; y < height; ++y) {
    const auto runs = PixelRuns(Cut(vertices, y), width);
    if (runs.size() > 1) {
      throw files::FileError(
          path,
          fmt::format("row {} of the image would be selected in {} pieces (columns {} to {} and {} to {}); "
                      "a selection has one in each row: split the polygon, or use --mask",
                      y, runs.size(), runs[0].first, runs[0].second, runs[1].first, runs[1].second));
    }
    if (runs.empty()) {
      selection.SetAllLine(y, 0);
    } else {
      selection.SetInOut(y, runs[0].first, runs[0].second);
      any = true;
    }
  }
  if (!any) {
    throw files::FileError(
        path, fmt::format("selects no pixel of the image, whose pixels run from 0 0 to {} {}", width - 1,
                          height - 1));
  }
  return selection;
}

}  // namespace korimg::session
