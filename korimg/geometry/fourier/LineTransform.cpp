#include "korimg/geometry/fourier/internal/LineTransform.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <numbers>

#include "korimg/image/internal/Vectors.h"

namespace korimg {
namespace {

using Row = LineTransform::Row;
using Lines = LineTransform::Lines;
constexpr int kLanes = LineTransform::kLanes;
constexpr int kCached = 256;  ///< rows that stay in the nearest cache

using Four [[gnu::vector_size(16)]] = float;
using Eight [[gnu::vector_size(32)]] = float;

KORIMG_IN_LOOP inline void Load(Four& v, const void* from) {
  std::memcpy(&v, from, sizeof v);
}
KORIMG_IN_LOOP inline void Load(Eight& v, const void* from) {
  std::memcpy(&v, from, sizeof v);
}
template <class Vector>
KORIMG_IN_LOOP inline void Store(void* to, const Vector& v) {
  std::memcpy(to, &v, sizeof v);
}

/// Rows of a 4 x 4 matrix become its columns.
KORIMG_IN_LOOP inline void Transpose(Four (&m)[4]) {
  const Four a = __builtin_shufflevector(m[0], m[1], 0, 4, 1, 5);
  const Four b = __builtin_shufflevector(m[2], m[3], 0, 4, 1, 5);
  const Four c = __builtin_shufflevector(m[0], m[1], 2, 6, 3, 7);
  const Four d = __builtin_shufflevector(m[2], m[3], 2, 6, 3, 7);
  m[0] = __builtin_shufflevector(a, b, 0, 1, 4, 5);
  m[1] = __builtin_shufflevector(a, b, 2, 3, 6, 7);
  m[2] = __builtin_shufflevector(c, d, 0, 1, 4, 5);
  m[3] = __builtin_shufflevector(c, d, 2, 3, 6, 7);
}

/// Fewer lines than lanes, or shorter ones than a vector. Lanes without a line are 0.
void LoadFew(const Lines& l, int length, Row* rows) {
  for (int k = 0; k < length; ++k) {
    rows[k] = {};
    for (int i = 0; i < l.count; ++i) {
      const complex& c = l.data[static_cast<size_t>(k) * l.step + static_cast<size_t>(i) * l.pitch];
      rows[k].re[i] = c.re;
      rows[k].im[i] = c.im;
    }
  }
}

void StoreFew(const Lines& l, int length, const Row* rows, const int* places, float scale) {
  for (int k = 0; k < length; ++k) {
    const Row& row = rows[places[k]];
    for (int i = 0; i < l.count; ++i) {
      l.data[static_cast<size_t>(k) * l.step + static_cast<size_t>(i) * l.pitch] = {row.re[i] * scale,
                                                                                    row.im[i] * scale};
    }
  }
}

/// Lines that lie along memory: four lines by two elements at a time are turned in registers.
KORIMG_IN_LOOP inline void LoadAlong(const Lines& l, int length, Row* rows) {
  for (int k = 0; k < length; k += 2) {
    for (int half = 0; half < kLanes; half += 4) {
      Four m[4];
      for (int i = 0; i < 4; ++i) {
        Load(m[i], l.data + static_cast<size_t>(half + i) * l.pitch + k);
      }
      Transpose(m);
      Store(rows[k].re + half, m[0]);
      Store(rows[k].im + half, m[1]);
      Store(rows[k + 1].re + half, m[2]);
      Store(rows[k + 1].im + half, m[3]);
    }
  }
}

KORIMG_IN_LOOP inline void StoreAlong(const Lines& l, int length, const Row* rows, const int* places,
                                      float scale) {
  for (int k = 0; k < length; k += 2) {
    const Row& first = rows[places[k]];
    const Row& second = rows[places[k + 1]];
    for (int half = 0; half < kLanes; half += 4) {
      Four m[4];
      Load(m[0], first.re + half);
      Load(m[1], first.im + half);
      Load(m[2], second.re + half);
      Load(m[3], second.im + half);
      Transpose(m);
      for (int i = 0; i < 4; ++i) {
        Store(l.data + static_cast<size_t>(half + i) * l.pitch + k, m[i] * scale);
      }
    }
  }
}

/// Lines that lie across memory: the eight elements of an index are neighbours.
KORIMG_IN_LOOP inline void LoadAcross(const Lines& l, int length, Row* rows) {
  constexpr int kAhead = 16;  // each row lies in a page of its own, which no processor foresees
  for (int k = 0; k < length; ++k) {
    const complex* from = l.data + static_cast<size_t>(k) * l.step;
    if (k + kAhead < length) __builtin_prefetch(from + static_cast<size_t>(kAhead) * l.step);
    for (int half = 0; half < kLanes; half += 4) {
      Four a, b;
      Load(a, from + half);
      Load(b, from + half + 2);
      Store(rows[k].re + half, __builtin_shufflevector(a, b, 0, 2, 4, 6));
      Store(rows[k].im + half, __builtin_shufflevector(a, b, 1, 3, 5, 7));
    }
  }
}

KORIMG_IN_LOOP inline void StoreAcross(const Lines& l, int length, const Row* rows, const int* places,
                                       float scale) {
  for (int k = 0; k < length; ++k) {
    complex* to = l.data + static_cast<size_t>(k) * l.step;
    const Row& row = rows[places[k]];
    for (int half = 0; half < kLanes; half += 4) {
      Four re, im;
      Load(re, row.re + half);
      Load(im, row.im + half);
      re *= scale;
      im *= scale;
      Store(to + half, __builtin_shufflevector(re, im, 0, 4, 1, 5));
      Store(to + half + 2, __builtin_shufflevector(re, im, 2, 6, 3, 7));
    }
  }
}

/// (re, im) * w to a row.
KORIMG_IN_LOOP inline void StoreTimes(Row& to, const Eight& re, const Eight& im, const float* w) {
  Store(to.re, re * w[0] - im * w[1]);
  Store(to.im, re * w[1] + im * w[0]);
}

/// Splits a part into four: element j + q of each becomes that of part q. `roots` is null for parts of four,
/// whose roots are all 1.
KORIMG_IN_LOOP inline void SplitByFour(Row* part, int size, const float* roots) {
  const int quarter = size / 4;
  for (int j = 0; j < quarter; ++j) {
    Row& a = part[j];
    Row& b = part[j + quarter];
    Row& c = part[j + 2 * quarter];
    Row& d = part[j + 3 * quarter];
    Eight are, aim, bre, bim, cre, cim, dre, dim;
    Load(are, a.re), Load(aim, a.im), Load(bre, b.re), Load(bim, b.im);
    Load(cre, c.re), Load(cim, c.im), Load(dre, d.re), Load(dim, d.im);
    const Eight sumRe = are + cre, sumIm = aim + cim, differenceRe = are - cre, differenceIm = aim - cim;
    const Eight otherRe = bre + dre, otherIm = bim + dim;
    const Eight turnedRe = bim - dim, turnedIm = dre - bre;  // (b - d) * -i
    Store(a.re, sumRe + otherRe);
    Store(a.im, sumIm + otherIm);
    if (roots) {
      const float* w = roots + static_cast<size_t>(j) * 6;
      StoreTimes(b, differenceRe + turnedRe, differenceIm + turnedIm, w);
      StoreTimes(c, sumRe - otherRe, sumIm - otherIm, w + 2);
      StoreTimes(d, differenceRe - turnedRe, differenceIm - turnedIm, w + 4);
    } else {
      Store(b.re, differenceRe + turnedRe), Store(b.im, differenceIm + turnedIm);
      Store(c.re, sumRe - otherRe), Store(c.im, sumIm - otherIm);
      Store(d.re, differenceRe - turnedRe), Store(d.im, differenceIm - turnedIm);
    }
  }
}

KORIMG_IN_LOOP inline void SplitByTwo(Row& a, Row& b) {
  Eight are, aim, bre, bim;
  Load(are, a.re), Load(aim, a.im), Load(bre, b.re), Load(bim, b.im);
  Store(a.re, are + bre), Store(a.im, aim + bim);
  Store(b.re, are - bre), Store(b.im, aim - bim);
}

}  // namespace

LineTransform::Work::Work(int length)
    : rows_(static_cast<Row*>(::operator new(sizeof(Row) * length, std::align_val_t(64)))) {}

void LineTransform::Work::Release::operator()(Row* p) const {
  ::operator delete(p, std::align_val_t(64));
}

LineTransform::LineTransform(int length) : length_(length), places_(length), reversed_(length) {
  int size = length;
  for (; size > 4; size /= 4) {
    steps_.push_back({size, roots_.size()});
    for (int j = 0; j < size / 4; ++j) {
      for (const int power : {1, 2, 3}) {
        const double angle = -2 * std::numbers::pi * j * power / size;
        roots_.push_back(static_cast<float>(std::cos(angle)));
        roots_.push_back(static_cast<float>(std::sin(angle)));
      }
    }
  }
  last_ = size;
  for (int k = 0; k < length; ++k) {
    for (int part = length, rest = k; part > 1;) {
      const int parts = part % 4 == 0 ? 4 : 2;
      part /= parts;
      places_[k] += rest % parts * part;
      rest /= parts;
    }
    reversed_[(length - k) % length] = places_[k];
  }
}

KORIMG_IN_LOOP inline void LineTransform::Load(const Lines& lines, Row* rows) const {
  if (lines.count < kLanes || length_ < 4) {
    LoadFew(lines, length_, rows);
  } else if (lines.step == 1) {
    LoadAlong(lines, length_, rows);
  } else {
    LoadAcross(lines, length_, rows);
  }
}

KORIMG_IN_LOOP inline void LineTransform::Store(const Lines& lines, const Row* rows, int sign,
                                                float scale) const {
  const int* places = Places(sign);
  if (lines.count < kLanes || length_ < 4) {
    StoreFew(lines, length_, rows, places, scale);
  } else if (lines.step == 1) {
    StoreAlong(lines, length_, rows, places, scale);
  } else {
    StoreAcross(lines, length_, rows, places, scale);
  }
}

KORIMG_IN_LOOP inline void LineTransform::Split(Row* rows) const {
  const auto split = [this](Row* part, int rowsOfPart, const Step& step) KORIMG_IN_LOOP {
    for (int first = 0; first < rowsOfPart; first += step.size) {
      SplitByFour(part + first, step.size, roots_.data() + step.roots);
    }
  };
  size_t next = 0;
  for (; next < steps_.size() && steps_[next].size > kCached; ++next) {
    split(rows, length_, steps_[next]);
  }
  const int cached = next < steps_.size() ? steps_[next].size : std::min(length_, last_);
  for (int first = 0; first < length_; first += cached) {
    Row* part = rows + first;
    for (size_t i = next; i < steps_.size(); ++i) {
      split(part, cached, steps_[i]);
    }
    for (int k = 0; k < cached && last_ == 4; k += 4) {
      SplitByFour(part + k, 4, nullptr);
    }
    for (int k = 0; k < cached && last_ == 2; k += 2) {
      SplitByTwo(part[k], part[k + 1]);
    }
  }
}

void LineTransform::Run(const Lines& lines, int sign, float scale, const Work& work) const {
  Row* rows = work.Rows();
  RunInLongVectors([&]() KORIMG_IN_LOOP {
    Load(lines, rows);
    Split(rows);
    Store(lines, rows, sign, scale);
  });
}

void LineTransform::Filter(const Lines& lines, const float* response, const Work& work,
                           const Work& between) const {
  Row* rows = work.Rows();
  Row* spectrum = between.Rows();
  RunInLongVectors([&]() KORIMG_IN_LOOP {
    Load(lines, rows);
    Split(rows);
    for (int k = 0; k < length_; ++k) {
      Eight re, im;
      korimg::Load(re, rows[places_[k]].re), korimg::Load(im, rows[places_[k]].im);
      korimg::Store(spectrum[k].re, re * response[k]), korimg::Store(spectrum[k].im, im * response[k]);
    }
    Split(spectrum);
    Store(lines, spectrum, 1, 1.0f);
  });
}

}  // namespace korimg
