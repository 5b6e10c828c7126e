#include "viewer/image/Pyramid.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "session/job/Errors.h"
#include "session/picture/Image.h"

namespace korimg::viewer {

using namespace session;

namespace {

/// Bytes of the file that may be read for a strip while something rough would do. Chosen.
constexpr long long kQuick = 48LL << 20;

long long BytesOf(const Shape& shape) {
  return 4LL * shape.width * shape.height * shape.planes;
}

/// Has the pass wait for as long as it lives.
struct Asking {
  explicit Asking(std::atomic<int>& count) : count(count) { ++count; }
  ~Asking() { --count; }
  std::atomic<int>& count;
};

/// The mean of up to four pixels that are no NaN.
float MeanOf(float a, float b, float c, float d) {
  const auto value = [](float v) { return v == v ? v : 0.0f; };
  const auto counts = [](float v) { return v == v ? 1.0f : 0.0f; };
  return (value(a) + value(b) + value(c) + value(d)) / (counts(a) + counts(b) + counts(c) + counts(d));
}

}  // namespace

void Halve(const Band<const float>& from, const Band<float>& to) {
  const float nothing = std::numeric_limits<float>::quiet_NaN();
  const int pairs = from.Width() / 2;
  const std::vector<float> empty(from.Width(), nothing);
  for (int p = 0; p < to.Planes(); ++p) {
    for (int y = 0; y < to.Rows(); ++y) {
      const float* upper = from.Plane(p)[2 * y].data();
      const float* lower = 2 * y + 1 < from.Rows() ? from.Plane(p)[2 * y + 1].data() : empty.data();
      float* out = to.Plane(p)[y].data();
      for (int x = 0; x < pairs; ++x) {
        out[x] = MeanOf(upper[2 * x], upper[2 * x + 1], lower[2 * x], lower[2 * x + 1]);
      }
      if (pairs < to.Width()) out[pairs] = MeanOf(upper[2 * pairs], lower[2 * pairs], nothing, nothing);
    }
  }
}

Pyramid::Pyramid(std::shared_ptr<const Source> source, long long budget) : source_(std::move(source)) {
  shapes_.push_back(source_->shape);
  while (std::max(shapes_.back().width, shapes_.back().height) > kTile) {
    const Shape& last = shapes_.back();
    shapes_.push_back({(last.width + 1) / 2, (last.height + 1) / 2, last.planes});
  }
  long long kept = 0;
  firstKept_ = Levels();
  while (firstKept_ > 0 && kept + BytesOf(shapes_[firstKept_ - 1]) <= budget / 4 * 3) {
    kept += BytesOf(shapes_[--firstKept_]);
  }
  roomForOthers_ = budget - kept;
  extremes_.assign(std::min(source_->shape.planes, 3),
                   {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()});
  MeasureSky();
  pass_ = std::thread([this] { Pass(); });
}

Pyramid::~Pyramid() {
  ends_ = true;
  pass_.join();
}

void Pyramid::MeasureSky() {
  const auto [width, height, planes] = source_->shape;
  const std::vector<int> lines = LinesForLevels(width, height);
  const Image sample(NewImage(CreateContiguousManager({}), width, static_cast<int>(lines.size()), planes));
  for (int i = 0; i < static_cast<int>(lines.size()); ++i) {
    const Band<float> row = sample.Rows(i, 1);
    source_->read(row.At(lines[i]));
    Widen(row);
  }
  sky_ = MeasureLevels(sample.Pixels());
}

/// Takes rows into account for the extremes of the planes.
void Pyramid::Widen(const Band<const float>& rows) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  Extremes found;
  for (int p = 0; p < static_cast<int>(extremes_.size()); ++p) {
    float low = kInfinity, high = -kInfinity;
    rows.Plane(p).ForRuns([&](Row<const float> run) {
      for (const float v : run) {
        const bool isFinite = std::abs(v) < kInfinity;
        const float least = isFinite ? v : kInfinity, most = isFinite ? v : -kInfinity;
        low = least < low ? least : low;
        high = most > high ? most : high;
      }
    });
    found.emplace_back(low, high);
  }
  const std::lock_guard lock(mutex_);
  for (std::size_t p = 0; p < found.size(); ++p) {
    extremes_[p] = {std::min(extremes_[p].first, found[p].first),
                    std::max(extremes_[p].second, found[p].second)};
  }
}

Levels Pyramid::Shown(bool linked) const {
  const files::ImageInfo& info = source_->info;
  if (info.type == "uint8" && !linked) {
    // As it is: what has 8 bits is a picture already.
    const Image pixel(NewImage(CreateContiguousManager({}), 1, 1, source_->shape.planes));
    SetLevels(pixel.Pixels(), info, false);
    return session::Levels(pixel.Pixels());
  }
  const std::lock_guard lock(mutex_);
  return StretchForPicture(sky_, extremes_, linked);
}

void Pyramid::GiveLevels(CVelImage& image) const {
  // Of an image that has the extremes of all pixels.
  const Image ends(NewImage(CreateContiguousManager({}), 2, 1, source_->shape.planes));
  {
    const std::lock_guard lock(mutex_);
    for (int p = 0; p < ends.Planes(); ++p) {
      const auto row = ends.Rows().Plane(p)[0];
      row[0] = static_cast<float>(extremes_[p].first);
      row[1] = static_cast<float>(extremes_[p].second);
    }
  }
  SetLevels(ends.Pixels(), source_->info, false);
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const int known = std::min(p, ends.Planes() - 1);
    image.SetLevel(p, ends.Pixels().GetLevelMin(known), ends.Pixels().GetLevelMax(known));
  }
}

std::shared_ptr<Pyramid::Strip> Pyramid::NewStrip(int level, int index) const {
  const Shape& shape = shapes_[level];
  const int top = index * kTile, rows = std::min(kTile, shape.height - top);
  auto strip = std::make_shared<Strip>();
  strip->pixels.resize(static_cast<std::size_t>(shape.width) * rows * shape.planes);
  strip->rows = Band<float>(strip->pixels.data(), shape.planes, shape.width, top, rows);
  return strip;
}

namespace {

/// The pixels of a strip that is being made.
Band<float> Writable(Pyramid::Strip& strip) {
  return {strip.pixels.data(), strip.rows.Planes(), strip.rows.Width(), strip.rows.Top(), strip.rows.Rows()};
}

}  // namespace

void Pyramid::Fill(int level, const CRect& window, const Band<float>& to,
                   const std::function<bool()>& isGone) {
  for (int index = window.top / kTile; index * kTile < window.bottom; ++index) {
    const StripPtr strip = Get(level, index, isGone);
    const Band<const float>& rows = strip->rows;
    for (int y = std::max<int>(rows.Top(), window.top); y < std::min<int>(rows.Bottom(), window.bottom);
         ++y) {
      for (int p = 0; p < to.Planes(); ++p) {
        std::ranges::copy(rows.Row(p, y).subspan(window.left, window.Width()),
                          to.Row(p, y - window.top).begin());
      }
    }
  }
}

void Pyramid::Read(const Band<float>& to) {
  const Asking asking(asking_);
  const std::lock_guard lock(reading_);
  source_->read(to);
}

void Pyramid::Pass() {
  try {
    // Of each level the strip that is being filled.
    std::vector<std::shared_ptr<Strip>> open(Levels());
    const std::function<void(int, int, const StripPtr&)> add = [&](int level, int index,
                                                                   const StripPtr& strip) {
      if (level >= firstKept_) Keep({level, index}, strip);
      if (level + 1 == Levels()) return;
      auto& next = open[level + 1];
      if (!next) next = NewStrip(level + 1, index / 2);
      const int half = (strip->rows.Rows() + 1) / 2;
      Halve(strip->rows, Writable(*next).Part(strip->rows.Top() / 2, half));
      if (index % 2 == 0 && index + 1 < Strips(level)) return;
      const StripPtr full = std::move(next);
      next = nullptr;
      add(level + 1, index / 2, full);
    };
    for (int index = 0; index < Strips(0) && !ends_; ++index) {
      const auto strip = NewStrip(0, index);
      while (asking_ > 0 && !ends_) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      {
        const std::lock_guard lock(reading_);
        source_->read(Writable(*strip));
      }
      Widen(strip->rows);
      add(0, index, strip);
      if (index + 1 < Strips(0)) progress_ = static_cast<double>(index + 1) / Strips(0);
    }
    if (ends_) return;
    const std::lock_guard lock(mutex_);
    others_.remove_if([](const auto& other) { return other.second->isRough; });
    progress_ = 1;
  } catch (...) {
    try {
      ThrowOfFamily();
    } catch (const Error& error) {
      const std::lock_guard lock(mutex_);
      failure_ = error.what();
    }
  }
}

std::string Pyramid::Failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

Pyramid::StripPtr Pyramid::Kept(const Key& key) {
  const std::lock_guard lock(mutex_);
  if (const auto found = kept_.find(key); found != kept_.end()) return found->second;
  const auto other =
      std::find_if(others_.begin(), others_.end(), [&](const auto& entry) { return entry.first == key; });
  if (other == others_.end()) return nullptr;
  others_.splice(others_.begin(), others_, other);
  return other->second;
}

void Pyramid::Keep(const Key& key, const StripPtr& strip) {
  const std::lock_guard lock(mutex_);
  if (key.first >= firstKept_ && !strip->isRough) {
    kept_[key] = strip;
    return;
  }
  if (strip->isRough && progress_ == 1) return;
  others_.emplace_front(key, strip);
  const auto bytes = [](const StripPtr& s) { return 4 * static_cast<long long>(s->pixels.size()); };
  long long sum = 0;
  // The last one stays whatever it takes: its other tiles are asked for next.
  others_.remove_if([&, isFirst = true](const auto& other) mutable {
    sum += bytes(other.second);
    return !std::exchange(isFirst, false) && sum > roomForOthers_;
  });
}

Pyramid::StripPtr Pyramid::Get(int level, int index, const std::function<bool()>& isGone) {
  if (StripPtr kept = Kept({level, index})) return kept;
  const Asking asking(asking_);
  const std::lock_guard lock(making_);
  if (isGone()) throw Cancelled();
  if (StripPtr kept = Kept({level, index})) return kept;  // made while this thread waited
  const long long bytes = BytesOf({shapes_[0].width, kTile, shapes_[0].planes}) << level;
  const bool isRough = level > 0 && bytes > kQuick && progress_ < 1;
  StripPtr strip = isRough ? MakeRough(level, index) : Make(level, index, isGone);
  Keep({level, index}, strip);
  return strip;
}

/// Halves some rows of the picture until they are those of a level.
void Pyramid::Reduce(Band<const float> rows, const Band<float>& to, int level) const {
  BandBuffer buffers[2];
  for (int l = 1; l < level; ++l) {
    const Band<float> half = buffers[l % 2].Get(to.Planes(), shapes_[l].width, 0, (rows.Rows() + 1) / 2);
    Halve(rows, half);
    rows = half;
  }
  Halve(rows, to);
}

Pyramid::StripPtr Pyramid::Make(int level, int index, const std::function<bool()>& isGone) {
  const auto strip = NewStrip(level, index);
  const Band<float> to = Writable(*strip);
  if (level == 0) {
    Read(to);
    return strip;
  }
  // Some rows at a time: whole strips brought the peak of a picture of 2.4 GB to 459 MB, these to 326.
  constexpr int kRows = 32;
  const int count = std::max(kRows >> level, 1);
  BandBuffer buffer;
  for (int y = to.Top(); y < to.Bottom(); y += count) {
    if (isGone()) throw Cancelled();
    const int rows = std::min(count, to.Bottom() - y), top = y << level;
    const int bottom = std::min((y + rows) << level, shapes_[0].height);
    const Band<float> from = buffer.Get(to.Planes(), shapes_[0].width, top, bottom - top);
    Read(from);
    Reduce(from, to.Part(y, rows), level);
  }
  return strip;
}

/// Each row of one row of the picture, halved along the row only.
Pyramid::StripPtr Pyramid::MakeRough(int level, int index) {
  const auto strip = NewStrip(level, index);
  const Band<float> to = Writable(*strip);
  BandBuffer buffer;
  for (int y = to.Top(); y < to.Bottom(); ++y) {
    const int middle = std::min((2 * y + 1) << (level - 1), shapes_[0].height - 1);
    const Band<float> row = buffer.Get(to.Planes(), shapes_[0].width, middle, 1);
    Read(row);
    Widen(row);
    Reduce(row, to.Part(y, 1), level);
  }
  strip->isRough = true;
  return strip;
}

}  // namespace korimg::viewer
