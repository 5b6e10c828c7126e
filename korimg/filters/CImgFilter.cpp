#include "korimg/filters/CImgFilter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/Ranks.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/platform/Debug.h"
#include "korimg/platform/StringTable.h"

using namespace korimg;

namespace {

/// The half widths of a mode's rows; none for the pixel alone.
std::span<const int> HalfWidths(int mode) {
  static constexpr int kCross[] = {0, 1, 0}, kSquare[] = {1, 1, 1}, kRound[] = {1, 2, 2, 2, 1};
  switch (mode) {
    case 0:
      return kCross;
    case 1:
      return kSquare;
    case 2:
      return kRound;
    default:
      return {};
  }
}

/// The column that is read for x + dx: beyond the edge, the one on the other side of x.
int MirroredColumn(int x, int dx, int width) {
  const int column = x + dx;
  return std::clamp(column >= 0 && column < width ? column : x - dx, 0, width - 1);
}

/// Calls cell(dx, dy, pixel) for the pixels of a mode by rows, which point at column x; not at all for the
/// pixel alone.
template <class F>
void ForNeighbours(float* const rows[], int x, int mode, int width, F&& cell) {
  const std::span<const int> halfWidths = HalfWidths(mode);
  if (halfWidths.empty()) return;
  const int r = static_cast<int>(halfWidths.size()) / 2;
  for (int dy = -r; dy <= r; ++dy) {
    const int half = halfWidths[r + dy];
    for (int dx = -half; dx <= half; ++dx) {
      cell(dx, dy, rows[r + dy][MirroredColumn(x, dx, width) - x]);
    }
  }
}

constexpr int kMostRows = 5;

/// The rows about a pixel, with the addresses of one column.
using Rows = std::array<float*, kMostRows>;

/// A row table, moved along a line of the source.
class RowsOfLine {
 public:
  RowsOfLine(CVelImage& src, int y, int plane, int r) : count_(2 * r + 1) {
    for (int k = 0; k < count_; ++k) {
      start_[k] =
          src.GetImageAdr(0, RowBelowRepeated(y - r + k, src.GetHeight()), plane, CImage::ReadOnly, nullptr);
    }
  }
  float** At(int x) {
    for (int k = 0; k < count_; ++k) {
      rows_[k] = start_[k] + x;
    }
    return rows_.data();
  }
  float Middle(int x) const { return start_[count_ / 2][x]; }

 private:
  int count_;
  Rows start_{}, rows_{};
};

/// Writes pixel(rows of the line, x) over the window of a plane; r rows to either side.
template <class F>
void FilterPlane(CVelImage& target, CVelImage& src, int p, const Window& window, int r, F&& pixel) {
  if (window.IsEmpty()) return;
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    // Rows and target are few enough for their addresses to stay good without locks.
    RowsOfLine rows(src, y, p, r);
    float* out = target.GetWritableLine(0, y, p);
    for (int x = window.left; x < window.right; ++x) {
      out[x] = pixel(rows, x);
    }
    target.ShowProgress(1);
  });
}

}  // namespace

int CImgFilter::GetMeanR(int mode) {
  return static_cast<int>(HalfWidths(mode).size()) / 2;
}

void CImgFilter::SetFilterAdr(int x, int y, int plane, int r, float* rows[], Mode access) {
  for (int k = 0; k <= 2 * r; ++k) {
    rows[k] = GetImageAdr(x, RowBelowRepeated(y - r + k, GetHeight()), plane, access, nullptr);
  }
}

float CImgFilter::GetMeanRaw(float* rows[], int x, int mode, double weight, double* plain) const {
  const double centre = *rows[GetMeanR(mode)];
  float sum = 0;
  int count = 0;
  ForNeighbours(rows, x, mode, GetWidth(), [&](int dx, int dy, float pixel) {
    if (dx == 0 && dy == 0) return;
    sum += pixel;
    ++count;
  });
  if (count == 0) return static_cast<float>(centre);
  if (plain) *plain = (sum + centre) / (count + 1.0);
  return static_cast<float>((sum * weight + centre) / (weight * count + 1.0));
}

float CImgFilter::GetMinMaxRaw(float* rows[], int x, int mode, int rank) const {
  std::array<float, 25> values;
  int count = 0;
  ForNeighbours(rows, x, mode, GetWidth(), [&](int, int, float pixel) { values[count++] = pixel; });
  if (count == 0) return *rows[0];
  std::sort(values.begin(), values.begin() + count, NanLast);
  return values[std::clamp(rank, 0, count - 1)];
}

float CImgFilter::GetMedianRaw(float* rows[], int x, int mode) const {
  constexpr int kMiddle[] = {2, 4, 10};
  return GetMinMaxRaw(rows, x, mode, mode >= 0 && mode <= 2 ? kMiddle[mode] : 0);
}

float CImgFilter::GetLaplacianRaw(float* rows[], int x, int mode, int plane) const {
  const double centre = *rows[1];
  double laplacian = centre;
  if (mode == 0 || mode == 1) {
    int count = 0;
    double sum = 0;
    ForNeighbours(rows, x, mode, GetWidth(), [&](int dx, int dy, float pixel) {
      if (dx == 0 && dy == 0) return;
      sum += pixel;
      ++count;
    });
    laplacian = count * centre - sum;
  } else if (mode == 2) {
    constexpr double kWeights[3] = {1, -2, 1};
    laplacian = 0;
    ForNeighbours(rows, x, 1, GetWidth(), [&](int dx, int dy, float pixel) {
      laplacian += kWeights[dx + 1] * kWeights[dy + 1] * pixel;
    });
  }
  return static_cast<float>(std::abs(laplacian) + GetLevelMin(plane));
}

float CImgFilter::GetMeanRaw(int x, int y, int mode, double weight, int plane) {
  Rows rows;
  SetFilterAdr(x, y, plane, GetMeanR(mode), rows.data(), ReadOnly);
  return GetMeanRaw(rows.data(), x, mode, weight, nullptr);
}

float CImgFilter::GetMedianRaw(int x, int y, int mode, int plane) {
  Rows rows;
  SetFilterAdr(x, y, plane, GetMeanR(mode), rows.data(), ReadOnly);
  return GetMedianRaw(rows.data(), x, mode);
}

float CImgFilter::GetLaplacianRaw(int x, int y, int mode, int plane) {
  Rows rows;
  SetFilterAdr(x, y, plane, 1, rows.data(), ReadOnly);
  return GetLaplacianRaw(rows.data(), x, mode, plane);
}

float CImgFilter::HighPassRaw(int x, int y, int plane) {
  float sum = 0;
  int count = 0;
  for (int dy = -1; dy <= 1; ++dy) {
    const float* row = GetLine(0, std::clamp(y + dy, 0, GetHeight() - 1), plane);
    for (int dx = -1; dx <= 1; ++dx) {
      if (dx == 0 && dy == 0) continue;
      sum += row[NearestColumn(x + dx, GetWidth())];
      ++count;
    }
  }
  return std::abs(static_cast<float>(count) * GetPixelGrayRaw(x, y, plane) - sum);
}

float CImgFilter::GetMeanGray(int x, int y, int mode, double weight, int plane) {
  return GetMeanRaw(x, y, mode, weight, plane) - static_cast<float>(GetLevelMin(plane));
}

float CImgFilter::GetMedianGray(int x, int y, int mode, int plane) {
  return GetMedianRaw(x, y, mode, plane) - static_cast<float>(GetLevelMin(plane));
}

float CImgFilter::GetLaplacianGray(int x, int y, int mode, int plane) {
  return GetLaplacianRaw(x, y, mode, plane) - static_cast<float>(GetLevelMin(plane));
}

float CImgFilter::GetMean256f(int x, int y, int mode, double weight, int plane) {
  return To256(GetMeanRaw(x, y, mode, weight, plane), plane);
}

float CImgFilter::GetMedian256f(int x, int y, int mode, int plane) {
  return To256(GetMedianRaw(x, y, mode, plane), plane);
}

float CImgFilter::GetLaplacian256f(int x, int y, int mode, int plane) {
  return To256(GetLaplacianRaw(x, y, mode, plane), plane);
}

void CImgFilter::CalcRect(int& left, int& top, int& right, int& bottom, CRect* rect) const {
  const CRect whole(0, 0, GetWidth(), GetHeight());
  const CRect& r = rect ? *rect : whole;
  left = std::clamp(r.left, 0, GetWidth());
  top = std::clamp(r.top, 0, GetHeight());
  right = std::clamp(r.right, 0, GetWidth());
  bottom = std::clamp(r.bottom, 0, GetHeight());
}

void CImgFilter::CalcShift(int& dx, int& dy, int, CVelImage* other) const {
  if (GetWidth() >= other->GetWidth() && GetHeight() >= other->GetHeight()) return;
  dx = (other->GetWidth() - GetWidth()) / 2;
  dy = (other->GetHeight() - GetHeight()) / 2;
}

void CImgFilter::LaplacianFilter(int mode, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  Window window(0, 0, 0, 0);
  CalcRect(window.left, window.top, window.right, window.bottom, rect);
  const ProgressScope progress(*this, show, 6143, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    FilterPlane(*this, *src, p, window, 1,
                [&](RowsOfLine& rows, int x) { return GetLaplacianRaw(rows.At(x), x, mode, 0); });
  }
}

void CImgFilter::MedianFilter(int mode, CVelImage* src, CRect* rect, int show) {
  RankFilter(mode, std::nullopt, 6120, src, rect, show);
}

void CImgFilter::MinMaxFilter(int mode, int rank, CVelImage* src, CRect* rect, int show) {
  RankFilter(mode, std::max(rank, 0), 6153, src, rect, show);
}

void CImgFilter::RankFilter(int mode, std::optional<int> rank, int message, CVelImage* src, CRect* rect,
                            int show) {
  if (!Fits(*src, *this)) return;
  Window window(0, 0, 0, 0);
  CalcRect(window.left, window.top, window.right, window.bottom, rect);
  const ProgressScope progress(*this, show, message, window.Lines(*this));
  RankQuery query{.row = RowBelowRepeated, .column = NearestColumn};
  if (const std::span<const int> halfWidths = HalfWidths(mode); !halfWidths.empty()) {
    query.cells = {static_cast<int>(halfWidths.size()) / 2, {halfWidths.begin(), halfWidths.end()}};
  }
  if (rank) query.rank = std::min(*rank, query.cells.Count() - 1);
  const int r = query.cells.r;
  for (int p = 0; p < GetPlanes(); ++p) {
    FindRanks(*this, *src, p, window, query, [&](int x, int y, const float* values, int columns) {
      std::copy_n(values, columns, GetWritableLine(x, y, p));
      // Columns mirror about the pixel, not about the edge.
      RowsOfLine rows(*src, y, p, r);
      float* out = GetWritableLine(0, y, p);
      const auto edge = [&](int from, int to) {
        for (int at = std::max(from, x); at < std::min(to, x + columns); ++at) {
          out[at] = rank ? GetMinMaxRaw(rows.At(at), at, mode, *rank) : GetMedianRaw(rows.At(at), at, mode);
        }
      };
      edge(0, r);
      edge(std::max(GetWidth() - r, r), GetWidth());
    });
  }
}

void CImgFilter::UnSharpMask(double strength, int mode, double weight, double threshold, CVelImage* src,
                             CRect* rect, int show) {
  SharpenPlanes(strength, mode, weight, threshold, src, 0, GetPlanes(), rect, show);
}

void CImgFilter::UnSharpMask(double strength, int mode, double weight, double threshold, CVelImage* src,
                             int plane, CRect* rect, int show) {
  if (plane < 0 || plane >= GetPlanes()) return;
  SharpenPlanes(strength, mode, weight, threshold, src, plane, plane + 1, rect, show);
}

void CImgFilter::SharpenPlanes(double strength, int mode, double weight, double threshold, CVelImage* src,
                               int first, int end, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  Window window(0, 0, 0, 0);
  CalcRect(window.left, window.top, window.right, window.bottom, rect);
  const ProgressScope progress(*this, show, 6122, window.IsEmpty() ? 0 : window.Height() * (end - first));
  for (int p = first; p < end; ++p) {
    FilterPlane(*this, *src, p, window, GetMeanR(mode), [&](RowsOfLine& rows, int x) {
      const double c = rows.Middle(x);
      double plain = c;
      const double mean = GetMeanRaw(rows.At(x), x, mode, weight, &plain);
      const bool differs = std::abs(plain / c - 1.0) >= threshold;
      return static_cast<float>(differs ? (c - mean) * strength + c : c);
    });
  }
}

CVelImage* CImgFilter::MakeFilterWork(int margin, int show) {
  return MakeWork(margin, GetPlanes(), GetPlanes(), show, 6126);
}

CVelImage* CImgFilter::MakeDDWork(int margin, int show) {
  const int sources = GetPlanes() < 3 ? 1 : 3;
  return MakeWork(margin, sources, sources == 3 ? 4 : 1, show, 6125);
}

/// A work image of `planes` planes, filled from the first `sources` of this one. A plane more is brightness.
CVelImage* CImgFilter::MakeWork(int margin, int sources, int planes, int show, int message) {
  constexpr int kDefault = 2;
  const int r = margin ? margin : kDefault;
  const auto manager = IsEmpty() ? nullptr : VmManager();
  const long long longest = std::max(GetWidth(), GetHeight()) + 2LL * r;
  if (!manager || r < 0 || longest > std::numeric_limits<int>::max()) return nullptr;
  try {
    auto work = std::make_unique<CVelImage>(manager, Float, GetWidth() + 2 * r, GetHeight() + 2 * r, planes,
                                            1.0, 0.0, 1, GetProgressHandle(), LoadString(6169).c_str());
    FillWork(*work, r, sources, show, message);
    return work.release();
  } catch (const velora::CVeloraImageException& error) {
    DebugLine(error.what());
  } catch (const std::bad_alloc& error) {
    DebugLine(error.what());
  }
  return nullptr;
}

void CImgFilter::FillWork(CVelImage& work, int r, int sources, int show, int message) {
  const int width = work.GetWidth(), height = work.GetHeight(), planes = work.GetPlanes();
  const bool brightness = planes > sources;
  const ProgressScope progress(*this, show, message, height * (2 * sources + brightness));
  for (int p = 0; p < planes; ++p) {
    const int levels = p < sources ? p : 0;
    work.SetLevel(p, GetLevelMin(levels), GetLevelMax(levels));
  }
  for (int p = 0; p < sources; ++p) {
    ForLines(Team::All, 0, height, [&](int y) {
      const float* in = GetLine(0, RowBelowRepeated(y - r, GetHeight()), p);
      float* out = work.GetWritableLine(0, y, p);
      std::copy_n(in, GetWidth(), out + r);
      for (int x = 0; x < r; ++x) {
        out[x] = in[RowBelowRepeated(x - r, GetWidth())];
        out[r + GetWidth() + x] = in[RowBelowRepeated(GetWidth() + x, GetWidth())];
      }
      ShowProgress(2);
    });
  }
  if (brightness) {
    const double min = GetLevelMin(0), range = GetLevelRange(0);
    ForLines(Team::All, 0, height, [&](int y) {
      float const *red = work.GetLine(0, y, 0), *green = work.GetLine(0, y, 1), *blue = work.GetLine(0, y, 2);
      float* out = work.GetWritableLine(0, y, 3);
      const auto scaled = [&](float v) { return (v - min) / range * 255.0; };
      for (int x = 0; x < width; ++x) {
        auto sum = static_cast<float>(scaled(red[x]));
        sum = static_cast<float>(sum + scaled(green[x]));
        sum = static_cast<float>(sum + scaled(blue[x]));
        out[x] = static_cast<float>(static_cast<float>(sum / 3.0) / 255.0 * range + min);
      }
      ShowProgress(1);
    });
  }
}
