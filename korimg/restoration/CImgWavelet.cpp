// Filters are sums of shifted signals, so that loops run along memory: columns are filtered in blocks, whose
// rows are the elements; rows are split into their even and odd elements first.
#include "korimg/restoration/CImgWavelet.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <numbers>
#include <vector>

#include "korimg/filters/internal/WeightedSum.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

constexpr int kOrders = WaveletFilters::kMostTaps / 2, kBlock = kSumBlock<float>;

/// The scaling coefficients of each order, whose sum is the square root of 2: the filters of least delay
/// (Daubechies 1992, table 6.1).
constexpr float kScaling[kOrders][2 * kOrders] = {
    {0.70710677f, 0.70710677f},
    {0.4829629f, 0.8365163f, 0.22414386f, -0.12940952f},
    {0.33267054f, 0.8068915f, 0.4598775f, -0.13501102f, -0.08544128f, 0.035226293f},
    {0.23037781f, 0.71484655f, 0.6308808f, -0.02798377f, -0.18703482f, 0.030841382f, 0.03288301f,
     -0.010597402f},
    {0.1601024f, 0.60382926f, 0.72430855f, 0.13842815f, -0.2422949f, -0.03224487f, 0.0775715f, -0.00624149f,
     -0.012580752f, 0.0033357253f},
    {0.11154074f, 0.4946239f, 0.7511339f, 0.31525034f, -0.2262647f, -0.12976687f, 0.097501606f, 0.027522866f,
     -0.03158204f, 0.0005538422f, 0.0047772573f, -0.0010773011f},
    {0.077852055f, 0.39653933f, 0.7291321f, 0.4697823f, -0.143906f, -0.22403619f, 0.07130922f, 0.08061261f,
     -0.038029935f, -0.016574541f, 0.0125509985f, 0.00042957798f, -0.0018016407f, 0.0003537138f},
    {0.05441584f, 0.3128716f, 0.67563075f, 0.5853547f, -0.015829105f, -0.28401554f, 0.00047248456f,
     0.12874743f, -0.0173693f, -0.044088256f, 0.0139810275f, 0.008746094f, -0.004870353f, -0.00039174038f,
     0.0006754494f, -0.00011747678f},
    {0.038077947f, 0.24383467f, 0.6048231f, 0.6572881f, 0.13319738f, -0.29327378f, -0.096840784f, 0.14854075f,
     0.030725682f, -0.06763283f, 0.0002509471f, 0.022361662f, -0.0047232048f, -0.0042815036f, 0.0018476469f,
     0.00023038576f, -0.00025196318f, 3.934732e-05f},
    {0.026670057f,  0.1881768f,     0.5272012f,      0.68845904f,   0.28117234f,
     -0.24984643f,  -0.19594628f,   0.12736934f,     0.093057364f,  -0.071394145f,
     -0.029457537f, 0.033212673f,   0.0036065537f,   -0.010733175f, 0.0013953517f,
     0.0019924054f, -0.0006858567f, -0.00011646686f, 9.358867e-05f, -1.3264203e-05f},
};

int RoundUpToBlocks(int n) {
  return (n + kBlock - 1) / kBlock * kBlock;
}

/// A sum of cells, of which each stands for a line of them.
struct Taps {
  const float* cells[4 * kOrders];
  float weights[4 * kOrders];
  int count = 0;

  void Add(const float* line, float weight) {
    cells[count] = line;
    weights[count++] = weight;
  }
  /// Writes whole blocks. Answers the result.
  const float* Sum(int columns, float* result) const {
    WeightedSum(cells, weights, count, RoundUpToBlocks(columns), result);
    return result;
  }
};

/// Element t of a band with zeros between its cells, of a periodic signal of n elements: the number of the
/// cell, or -1 for a zero.
int CellOf(int t, int n) {
  const int folded = (t % n + n) % n;
  return folded % 2 == 0 && folded / 2 < n / 2 ? folded / 2 : -1;
}

/// A signal split into its even and odd elements, and the room that its filters take.
class RowFilter {
 public:
  RowFilter(const WaveletFilters& filters, int n)
      : filters_(filters), n_(n), pitch_(RoundUpToBlocks(n / 2 + 1) + 2 * kOrders), cells_(6 * pitch_) {}

  void Split(float* signal) {
    const int half = n_ / 2;
    float *even = Cells(0), *odd = Cells(1);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int i = 0; i < half; ++i) {
        even[i] = signal[2 * i];
        odd[i] = signal[2 * i + 1];
      }
    });
    for (int i = half; i < half + kOrders && half > 0; ++i) {
      even[i] = signal[2 * i % n_];
      odd[i] = signal[(2 * i + 1) % n_];
    }
    Taps low, high;
    for (int k = 0; k < filters_.taps; ++k) {
      const float* cells = Cells(k % 2) + k / 2;
      low.Add(cells, filters_.ha[k]);
      high.Add(cells, filters_.ga[k]);
    }
    std::copy_n(low.Sum(half, Cells(4)), half, signal);
    std::copy_n(high.Sum(half, Cells(4)), half, signal + half);
  }

  void Join(float* signal) {
    const int half = n_ / 2, phases = n_ % 2 + 1;  // of an even number the odd elements are all zeros
    if (half == 0) return;
    for (int band = 0; band < 2; ++band) {
      const float* const from = signal + band * half;
      std::copy_n(from, half, Cells(band));
      for (int phase = 0; phase < phases; ++phase) {
        for (int i = 1; i <= kOrders; ++i) {
          const int cell = CellOf(phase - 2 * i, n_);
          Cells(band + 2 * phase)[-i] = cell < 0 ? 0 : from[cell];
        }
      }
    }
    for (int parity = 0; parity < 2; ++parity) {
      Taps sum;
      for (int k = 0; k < filters_.taps; ++k) {
        const int phase = (parity + k) % 2, first = (parity - k - phase) / 2;
        if (phase == phases) continue;
        sum.Add(Cells(2 * phase) + first, filters_.h[k]);
        sum.Add(Cells(2 * phase + 1) + first, filters_.g[k]);
      }
      sum.Sum((n_ + 1) / 2, Cells(4 + parity));
    }
    const float *even = Cells(4), *odd = Cells(5);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int i = 0; i < half; ++i) {
        signal[2 * i] = even[i];
        signal[2 * i + 1] = odd[i];
      }
    });
    if (n_ % 2) signal[n_ - 1] = even[half];
  }

 private:
  /// Lines of cells, with room before their first and behind their last.
  float* Cells(int line) { return cells_.data() + line * pitch_ + kOrders; }

  const WaveletFilters& filters_;
  int n_;
  size_t pitch_;
  std::vector<float> cells_;
};

/// Columns of a plane, side by side, and the room that their filters take.
class ColumnFilter {
 public:
  ColumnFilter(const WaveletFilters& filters, int n, int columns)
      : filters_(filters), n_(n), pitch_(RoundUpToBlocks(columns)), cells_(pitch_ * n), result_(pitch_) {}

  void Split(CVelImage& buffer, int plane, int x, int columns) {
    Read(buffer, plane, x, columns);
    const int half = n_ / 2;
    for (int i = 0; i < half; ++i) {
      Taps low, high;
      for (int k = 0, y = 2 * i; k < filters_.taps; ++k, y = y + 1 < n_ ? y + 1 : 0) {
        low.Add(Row(y), filters_.ha[k]);
        high.Add(Row(y), filters_.ga[k]);
      }
      std::copy_n(low.Sum(columns, result_.data()), columns, buffer.GetWritableLine(x, i, plane));
      std::copy_n(high.Sum(columns, result_.data()), columns, buffer.GetWritableLine(x, half + i, plane));
    }
  }

  void Join(CVelImage& buffer, int plane, int x, int columns) {
    const int half = n_ / 2;
    if (half == 0) return;
    Read(buffer, plane, x, columns);
    for (int y = 0; y < n_; ++y) {
      Taps sum;
      for (int k = 0; k < filters_.taps; ++k) {
        const int cell = CellOf(y - k, n_);
        if (cell < 0) continue;
        sum.Add(Row(cell), filters_.h[k]);
        sum.Add(Row(half + cell), filters_.g[k]);
      }
      std::copy_n(sum.Sum(columns, result_.data()), columns, buffer.GetWritableLine(x, y, plane));
    }
  }

 private:
  float* Row(int y) { return cells_.data() + y * pitch_; }
  void Read(CVelImage& buffer, int plane, int x, int columns) {
    for (int y = 0; y < n_; ++y) {
      std::copy_n(buffer.GetLine(x, y, plane), columns, Row(y));
    }
  }

  const WaveletFilters& filters_;
  int n_;
  size_t pitch_;
  std::vector<float> cells_;
  std::vector<float> result_;
};

/// How many columns are filtered at once: on 6000 x 4000 pixels a quarter less time than for the fewest,
/// which fit the caches, since rows lie in pages of their own; and paged stores read their blocks less often.
int ColumnsAtOnce(int width, int height) {
  constexpr long long kRoom = 32 << 20, kColumn = sizeof(float);  // bytes of all workers
  const int workers = std::max(CParallel::GetMaxThreads(), 1);
  const long long most = kRoom / (kColumn * std::max(height, 1) * workers) / kBlock * kBlock;
  const long long share = RoundUpToBlocks((width + workers - 1) / workers);
  return static_cast<int>(std::max<long long>(std::min(most, share), kBlock));
}

/// The steps of a transform's progress: two for each pixel that a level looks at.
int Steps(const CVelImage& buffer, int levels) {
  double pixels = 0;
  for (int l = 0, w = buffer.GetWidth(), h = buffer.GetHeight(); l < levels && w > 0 && h > 0; ++l) {
    pixels += 2.0 * buffer.GetPlanes() * w * h;
    w /= 2;
    h /= 2;
  }
  return static_cast<int>(std::min<double>(pixels, std::numeric_limits<int>::max()));
}

/// Multiplies cells by a gain about a middle.
void Weigh(float* cells, int count, float gain, float middle) {
  if (gain == 1) return;
  for (int x = 0; x < count; ++x) {
    cells[x] = (cells[x] - middle) * gain + middle;
  }
}

/// Calls work(filter, first, count) for a pass's lines in blocks of `step`. Each worker filters by its own of
/// make(). `display` counts what is done; once the user has cancelled the rest is left out, and the answer is
/// false.
template <class Make, class Work>
bool ForBlocks(CVelImage& display, int lines, int step, int length, Make&& make, Work&& work) {
  const int workers = std::max(CParallel::GetMaxThreads(), 1), blocks = (lines + step - 1) / step;
  const auto share = [&](int worker) { return static_cast<int>(1LL * blocks * worker / workers); };
  std::atomic<bool> cancelled = false;
  ForLines(Team::All, 0, workers, [&](int worker) {
    if (share(worker) == share(worker + 1)) return;
    auto filter = make();
    for (int block = share(worker); block < share(worker + 1) && !cancelled; ++block) {
      const int first = block * step, count = std::min(step, lines - first);
      work(filter, first, count);
      if (!display.ShowProgress(count * length)) cancelled = true;
    }
  });
  return !cancelled;
}

template <class Work>
bool ForColumns(CVelImage& display, const WaveletFilters& filters, int width, int height, Work&& work) {
  const int step = ColumnsAtOnce(width, height);
  return ForBlocks(
      display, width, step, height, [&] { return ColumnFilter(filters, height, std::min(step, width)); },
      work);
}

template <class Work>
bool ForRows(CVelImage& display, const WaveletFilters& filters, int width, int height, Work&& work) {
  return ForBlocks(
      display, height, 1, width, [&] { return RowFilter(filters, width); },
      [&](RowFilter& filter, int y, int) { work(filter, y); });
}

}  // namespace

void CImgWavelet::SetDaubechyParams(int order) {
  WaveletFilters& f = filters_;
  f.taps = 2 * std::clamp(order, 0, kOrders);
  if (order < 1 || order > kOrders) return;
  for (int k = 0; k < WaveletFilters::kMostTaps; ++k) {
    f.h[k] = static_cast<float>(kScaling[order - 1][k] * std::numbers::sqrt2);
  }
  for (int k = 0; k < WaveletFilters::kMostTaps; ++k) {
    const float mirrored = k < f.taps ? f.h[f.taps - 1 - k] : 0.0f;
    f.g[k] = k % 2 ? -mirrored : mirrored;
    f.ha[k] = f.h[k] * 0.5f;
    f.ga[k] = f.g[k] * 0.5f;
  }
}

void CImgWavelet::CalcBufferSize(CRect* rect, int levels, CRect* size) const {
  const auto side = [&](long long length) {
    if (levels <= 0) return static_cast<int>(length);
    const long long multiple = 1LL << std::min(levels, 30);
    const long long rounded = (length + multiple - 1) / multiple * multiple;
    return static_cast<int>(
        std::min<long long>(std::max(rounded, multiple * 2), std::numeric_limits<int>::max()));
  };
  const int width = rect ? rect->Width() : GetWidth(), height = rect ? rect->Height() : GetHeight();
  *size = CRect(0, 0, side(width), side(height));
}

void CImgWavelet::CopyToBuffer(CVelImage* image, CVelImage* buffer, CRect* rect) {
  const Window window(*image, rect);
  if (window.IsEmpty()) return;
  const int columns = std::min(window.Width(), buffer->GetWidth());
  for (int p = 0; p < std::min(image->GetPlanes(), buffer->GetPlanes()); ++p) {
    ForLines(Team::All, 0, buffer->GetHeight(), [&](int y) {
      const float* in = image->GetLine(window.left, std::min(window.top + y, window.bottom - 1), p);
      float* out = buffer->GetWritableLine(0, y, p);
      std::copy_n(in, columns, out);
      std::fill(out + columns, out + buffer->GetWidth(), in[columns - 1]);
    });
  }
}

void CImgWavelet::CopyFromBuffer(CVelImage* buffer, CRect* rect, CVelImage* image) {
  const Window window(*image, rect);
  if (window.IsEmpty()) return;
  const int columns = std::min(window.Width(), buffer->GetWidth());
  const int rows = std::min(window.Height(), buffer->GetHeight());
  for (int p = 0; p < std::min(image->GetPlanes(), buffer->GetPlanes()); ++p) {
    ForLines(Team::All, 0, rows, [&](int y) {
      std::copy_n(buffer->GetLine(0, y, p), columns, image->GetWritableLine(window.left, window.top + y, p));
    });
  }
}

int CImgWavelet::DoMultiResSubbandDecomposition(CVelImage* buffer, int levels, int show) {
  const ProgressScope progress(*this, show, 6181, Steps(*buffer, levels));
  CRect corner(0, 0, buffer->GetWidth(), buffer->GetHeight());
  for (int level = 0; level < levels && !corner.IsRectEmpty(); ++level) {
    if (!Wavelet2d(buffer, &corner)) return 0;
    corner.right /= 2;
    corner.bottom /= 2;
  }
  return 1;
}

int CImgWavelet::DoMultiResSubbandComposition(CVelImage* buffer, int levels, float lowGain,
                                              CArray<float, float>* horizontal,
                                              CArray<float, float>* vertical, CArray<float, float>* diagonal,
                                              int show) {
  const ProgressScope progress(*this, show, 6180, Steps(*buffer, levels));
  for (int level = levels - 1; level >= 0; --level) {
    const int shift = std::min(level, 31);
    CRect corner(0, 0, buffer->GetWidth() >> shift, buffer->GetHeight() >> shift);
    const float low = level == levels - 1 ? lowGain : 1.0f;
    if (!InvWavelet2d(buffer, &corner, low, (*horizontal)[level], (*vertical)[level], (*diagonal)[level])) {
      return 0;
    }
  }
  return 1;
}

void CImgWavelet::Wavelet1d(CArray<float, float>* signal) {
  RowFilter(filters_, static_cast<int>(signal->GetSize())).Split(signal->GetData());
}

void CImgWavelet::InvWavelet1d(CArray<float, float>* signal) {
  RowFilter(filters_, static_cast<int>(signal->GetSize())).Join(signal->GetData());
}

int CImgWavelet::Wavelet2d(CVelImage* buffer, CRect* corner) {
  const int width = corner->Width(), height = corner->Height();
  for (int p = 0; p < buffer->GetPlanes(); ++p) {
    const auto columns = [&](ColumnFilter& filter, int x, int count) { filter.Split(*buffer, p, x, count); };
    const auto row = [&](RowFilter& filter, int y) { filter.Split(buffer->GetWritableLine(0, y, p)); };
    if (!ForColumns(*this, filters_, width, height, columns)) return 0;
    if (!ForRows(*this, filters_, width, height, row)) return 0;
  }
  return 1;
}

int CImgWavelet::InvWavelet2d(CVelImage* buffer, CRect* corner, float low, float topRight, float bottomLeft,
                              float bottomRight) {
  const int width = corner->Width(), height = corner->Height();
  for (int p = 0; p < buffer->GetPlanes(); ++p) {
    const auto middle = static_cast<float>((buffer->GetLevelMax(p) + buffer->GetLevelMin(p)) * 0.5);
    const auto row = [&](RowFilter& filter, int y) {
      float* const line = buffer->GetWritableLine(0, y, p);
      const bool top = y < height / 2;
      Weigh(line, width / 2, top ? low : bottomLeft, top ? middle : 0);
      Weigh(line + width / 2, width - width / 2, top ? topRight : bottomRight, 0);
      filter.Join(line);
    };
    const auto columns = [&](ColumnFilter& filter, int x, int count) { filter.Join(*buffer, p, x, count); };
    if (!ForRows(*this, filters_, width, height, row)) return 0;
    if (!ForColumns(*this, filters_, width, height, columns)) return 0;
  }
  return 1;
}
