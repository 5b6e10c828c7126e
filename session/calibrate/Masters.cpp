#include "session/calibrate/Masters.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <fmt/format.h>
#include <sys/resource.h>

#include "korimg/calibration/MedianOfFrames.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/raw/internal/HoneycombLattice.h"

#include "session/files/Mosaic.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::session {

float ScaleEnd(const files::ImageInfo& info, bool lessBlack) {
  constexpr float kCamera = 65535;
  if (info.camera) return static_cast<float>(info.camera->white - (lessBlack ? info.camera->black[0] : 0));
  if (info.type.starts_with("float")) return kCamera;
  if (info.type == "uint16" && info.bscale == 1) return kCamera;
  if (info.type.ends_with("int8")) return static_cast<float>(info.bzero + 255 * info.bscale);
  if (info.type == "int16") return static_cast<float>(info.bzero + 32767 * info.bscale);
  return static_cast<float>(info.bzero + 2147483647 * info.bscale);
}

namespace {

constexpr size_t kBandPixels = 4 << 20;  // of all frames of a group together; chosen: 16 MiB
constexpr double kManySaturated = 0.01;  // chosen: share of a flat's pixels

/// Flats without an offset of their own: camera raw files know their black level.
files::ReadOptions FlatOptions(const Group& group, bool hasOffset) {
  return {.lessBlack = group.kind == FrameKind::Flat && !hasOffset,
          .manyOpen = group.frames.size() > 1,
          .lessBorder = true};
}

/// Lets as many files be open as the system allows: all frames of a group are read band by band.
void AllowManyFiles() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// The frames of a group, open for reading.
class Stack {
 public:
  Stack(const Group& group, const files::ReadOptions& options) : lessBlack_(options.lessBlack) {
    AllowManyFiles();
    for (const Frame& frame : group.frames) {
      readers_.push_back(files::ImageReader::Open(frame.path, options));
      const files::ImageInfo &info = readers_.back()->Info(), &first = Info();
      if (info.width != first.width || info.height != first.height || info.planes != first.planes) {
        throw files::FileError(frame.path, "has changed since the frames were grouped");
      }
    }
    factors_.assign(readers_.size(), 1.0f);
    saturated_.assign(readers_.size(), 0);
  }

  const files::ImageInfo& Info() const { return readers_.front()->Info(); }
  int Count() const { return static_cast<int>(readers_.size()); }

  /// From now on frames have the offset taken off, and come with one mean, by a sample of their rows.
  void Normalise(CVelImage* offset) {
    constexpr int kSampleRows = 256;  // chosen
    offset_ = offset;
    const files::ImageInfo& info = Info();
    const int step = std::max(info.height / kSampleRows, 1);
    std::vector<double> means(readers_.size());
    ForLines(Team::All, 0, Count(), [&](int i) {
      std::vector<float> pixels(RowPixels());
      double sum = 0;
      long long valid = 0;
      for (int y = 0; y < info.height; y += step) {
        Read(i, Rows(pixels.data(), y, 1));
        for (const float v : pixels) {
          if (std::isfinite(v)) sum += v, ++valid;
        }
      }
      means[i] = sum / static_cast<double>(valid);
      if (!(means[i] > 0)) {
        throw files::FileError(readers_[i]->Info().path,
                               fmt::format("this flat has a mean of {:g} without its offset; it is too dark "
                                           "to divide by",
                                           means[i]));
      }
    });
    double mean = 0;
    for (const double m : means) {
      mean += m / static_cast<double>(means.size());
    }
    for (size_t i = 0; i < means.size(); ++i) {
      factors_[i] = static_cast<float>(mean / means[i]);
    }
    std::fill(saturated_.begin(), saturated_.end(), 0);
  }

  /// Writes the median into an image of the frames' size.
  void Median(Job& job, CVelImage& image, const std::string& title) {
    const files::ImageInfo& info = Info();
    const int rows =
        static_cast<int>(std::clamp<size_t>(kBandPixels / (RowPixels() * Count()), 1, info.height));
    std::vector<float> pixels(RowPixels() * Count() * rows);
    for (int y0 = 0; y0 < info.height; y0 += rows) {
      job.CheckCancelled();
      job.Progress(title, y0, info.height);
      const int count = std::min(rows, info.height - y0);
      const auto frame = [&](int i) { return Rows(pixels.data() + RowPixels() * rows * i, y0, count); };
      ForLines(Team::All, 0, Count(), [&](int i) { Read(i, frame(i)); });
      for (int p = 0; p < info.planes; ++p) {
        std::vector<const float*> frames;
        for (int i = 0; i < Count(); ++i) {
          frames.push_back(frame(i).Data()[p]);
        }
        MedianOfFrames(frames, info.width, count, image.GetWritableLine(0, y0, p));
      }
    }
    job.EndProgress();
  }

  /// A piece of a row in the first two frames.
  struct Piece {
    double variance;  ///< of their difference, the second one brought to the first one's scale
    double light;     ///< of a pixel in the first one
  };

  /// The first two frames' noise, by many pieces of rows, so that cosmic rays do not count in the median.
  std::vector<Piece> Noise() {
    constexpr int kSampleRows = 512;  // chosen
    constexpr size_t kPiece = 64;     // pixels; chosen: cosmic rays hit few of the pieces
    // Of the sum of so many squares, less the means of a mosaic's two colours in a row: the cube root of its
    // median over its mean (Wilson and Hilferty 1931).
    constexpr double kFreedom = kPiece - 2, kMedian = 1 - 2 / (9 * kFreedom);
    const int step = std::max(Info().height / kSampleRows, 1);
    const double back = 1 / factors_[0];
    std::vector<float> a(RowPixels()), b(RowPixels());
    std::vector<Piece> pieces;
    for (int y = 0; y < Info().height; y += step) {
      Read(0, Rows(a.data(), y, 1));
      Read(1, Rows(b.data(), y, 1));
      for (size_t first = 0; first + kPiece <= a.size(); first += kPiece) {
        double light = 0, squares = 0, sums[2] = {};
        for (size_t x = first; x < first + kPiece; ++x) {
          const double difference = back * (a[x] - b[x]);
          light += back * a[x] / kPiece;
          squares += difference * difference;
          sums[x % 2] += difference;
        }
        const double spread = squares - (sums[0] * sums[0] + sums[1] * sums[1]) / (kPiece / 2);
        const double variance = spread / (kFreedom * kMedian * kMedian * kMedian);
        if (std::isfinite(variance)) pieces.push_back({variance, light});
      }
    }
    return pieces;
  }

  /// Electrons of a raw value by photon transfer between the first two flats, once they are normalised: light
  /// counted in electrons has a variance of its mean. 0 when that is not most of their noise.
  /// `offsetVariance` is that of a pixel of the frames that came off.
  double MeasureGain(double offsetVariance) {
    constexpr double kMost = 100;  // electrons, chosen: beyond that flats are no raw ones
    const double ratio = factors_[1] / factors_[0], read = offsetVariance * (1 + ratio * ratio);
    std::vector<double> variances, ofLight;  // of a unit of light
    for (const Piece& piece : Noise()) {
      if (!(piece.light > 0)) continue;
      variances.push_back(piece.variance);
      ofLight.push_back((piece.variance - read) / (piece.light * (1 + ratio)));
    }
    if (!(UpperMedian(variances) > 2 * read)) return 0;
    const double gain = 1 / UpperMedian(ofLight);
    return gain > 0 && gain < kMost ? gain : 0;
  }

  /// Share of the pixels read that were at the end of their scale.
  double Saturated() const {
    double sum = 0;
    for (const long long n : saturated_) {
      sum += static_cast<double>(n);
    }
    return sum / (static_cast<double>(RowPixels()) * Info().height * Count());
  }

 private:
  size_t RowPixels() const { return static_cast<size_t>(Info().width) * Info().planes; }

  /// Rows of the frames' width and planes over memory for them.
  Band<float> Rows(float* pixels, int top, int rows) const {
    return {pixels, Info().planes, Info().width, top, rows};
  }

  /// Reads rows of a frame.
  void Read(int i, const Band<float>& to) {
    const float factor = factors_[i];
    readers_[i]->ReadRows(to);
    const float end = ScaleEnd(readers_[i]->Info(), lessBlack_);
    for (int p = 0; p < to.Planes(); ++p) {
      for (int y = to.Top(); y < to.Bottom(); ++y) {
        float* row = to.Row(p, y).data();
        int saturated = 0;
        for (int x = 0; x < to.Width(); ++x) {
          saturated += row[x] >= end;
        }
        saturated_[i] += saturated;
        const float* offset =
            offset_ ? offset_->GetLine(0, y, std::min(p, offset_->GetPlanes() - 1)) : nullptr;
        for (int x = 0; x < to.Width() && offset; ++x) {
          row[x] -= offset[x];
        }
        for (int x = 0; x < to.Width() && factor != 1; ++x) {
          row[x] *= factor;
        }
      }
    }
  }

  bool lessBlack_;
  std::vector<std::unique_ptr<files::ImageReader>> readers_;
  std::vector<float> factors_;
  std::vector<long long> saturated_;
  CVelImage* offset_ = nullptr;
};

/// Share of an image's pixels that a condition holds for.
template <class Condition>
double ShareWhere(CVelImage& image, Condition&& holds) {
  long long count = 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (const long long n : MapLines(0, image.GetHeight(), [&](int y) {
           const float* row = image.GetLine(0, y, p);
           return std::count_if(row, row + image.GetWidth(), holds);
         })) {
      count += n;
    }
  }
  return static_cast<double>(count) / image.GetPlanes() / image.GetWidth() / image.GetHeight();
}

/// Brings the places of a mosaic's cells to the mean of all, so that dividing by the flat leaves an image's
/// colours alone. Pixels that are no finite numbers are passed over. Between the sites of a honeycomb there
/// is no light: what lies there becomes the mean.
void EqualiseCells(CVelImage& image, int cfa) {
  const bool honeycomb = files::IsHoneycomb(cfa);
  const int side = honeycomb ? HoneycombLattice::kPeriod : 2;
  struct Line {
    double sums[HoneycombLattice::kPeriod] = {};
    int counts[HoneycombLattice::kPeriod] = {};
  };
  const std::vector<Line> lines = MapLines(0, image.GetHeight(), [&](int y) {
    const float* row = image.GetLine(0, y, 0);
    Line line;
    for (int x = 0; x < image.GetWidth(); ++x) {
      if (!std::isfinite(row[x])) continue;
      line.sums[x % side] += row[x];
      ++line.counts[x % side];
    }
    return line;
  });
  double sums[4][4] = {}, counts[4][4] = {}, factors[4][4] = {}, mean = 0;
  for (size_t y = 0; y < lines.size(); ++y) {
    for (int x = 0; x < side; ++x) {
      sums[y % side][x] += lines[y].sums[x];
      counts[y % side][x] += lines[y].counts[x];
    }
  }
  const auto isSite = [&](int x, int y) { return !honeycomb || HoneycombLattice().IsSite(x, y); };
  const int sites = honeycomb ? HoneycombLattice::kPositions : 4;
  for (int i = 0; i < side * side; ++i) {
    const int x = i % side, y = i / side;
    if (!isSite(x, y)) continue;
    if (!(sums[y][x] > 0)) return;
    mean += sums[y][x] / counts[y][x] / sites;
  }
  for (int i = 0; i < side * side; ++i) {
    factors[i / side][i % side] = mean * counts[i / side][i % side] / sums[i / side][i % side];
  }
  ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
    float* row = image.GetWritableLine(0, y, 0);
    for (int x = 0; x < image.GetWidth(); ++x) {
      row[x] =
          isSite(x, y) ? row[x] * static_cast<float>(factors[y % side][x % side]) : static_cast<float>(mean);
    }
  });
}

}  // namespace

double NoiseVariance(const Group& group) {
  std::vector<double> variances;
  for (const Stack::Piece& piece : Stack({group.kind, group.name, {group.frames[0], group.frames[1]}},
                                         {.manyOpen = true, .lessBorder = true})
                                       .Noise()) {
    variances.push_back(piece.variance / 2);
  }
  return UpperMedian(variances);
}

double ShareBelow(CVelImage& image, float value) {
  return ShareWhere(image, [value](float v) { return v < value; });
}

Measures::Measures(CVelImage& image) {
  struct Line {
    float min = std::numeric_limits<float>::infinity(), max = -min;
    double sum = 0;
    int count = 0;
  };
  double sums = 0, counts = 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    Line all;
    double count = 0;
    for (const Line& line : MapLines(0, image.GetHeight(), [&](int y) {
           constexpr int kLanes = 8;
           const float* row = image.GetLine(0, y, p);
           float low[kLanes], high[kLanes], sum[kLanes] = {};
           int valid[kLanes] = {};
           std::fill(low, low + kLanes, Line().min);
           std::fill(high, high + kLanes, Line().max);
           const auto add = [&](float v, int lane) {
             const bool finite = std::abs(v) <= std::numeric_limits<float>::max();
             low[lane] = finite && v < low[lane] ? v : low[lane];
             high[lane] = finite && v > high[lane] ? v : high[lane];
             sum[lane] += finite ? v : 0.0f;
             valid[lane] += finite;
           };
           int x = 0;
           for (; x + kLanes <= image.GetWidth(); x += kLanes) {
             for (int lane = 0; lane < kLanes; ++lane) {
               add(row[x + lane], lane);
             }
           }
           for (; x < image.GetWidth(); ++x) {
             add(row[x], 0);
           }
           Line line;
           for (int lane = 0; lane < kLanes; ++lane) {
             line.min = std::min(line.min, low[lane]);
             line.max = std::max(line.max, high[lane]);
             line.sum += sum[lane];
             line.count += valid[lane];
           }
           return line;
         })) {
      all.min = std::min(all.min, line.min);
      all.max = std::max(all.max, line.max);
      all.sum += line.sum;
      count += line.count;
    }
    hasBlank |= count < static_cast<double>(image.GetWidth()) * image.GetHeight();
    if (count == 0) continue;
    minima[p] = all.min;
    maxima[p] = all.max;
    averages[p] = static_cast<float>(all.sum / count);
    min = counts > 0 ? std::min<double>(min, all.min) : all.min;
    max = counts > 0 ? std::max<double>(max, all.max) : all.max;
    sums += all.sum;
    counts += count;
  }
  mean = counts > 0 ? sums / counts : 0;
}

std::string Master::Text() const {
  if (group->scaledFrom) {
    return fmt::format("{}: {}, less {} and back, by {:.4g}", group->name, group->scaledFrom->name,
                       group->bias->name, group->scale);
  }
  if (group->frames.size() == 1) return group->Text();
  return fmt::format("{}, median of {}{}", group->name, group->Text(),
                     offset ? " less " + offset->group->name : "");
}

Master MakeMaster(Job& job, const std::shared_ptr<CVmManager>& store, const Group& group,
                  const Master* offset, int cfa) {
  Master master;
  master.group = &group;
  if (group.frames.size() == 1) {
    const files::ReadOptions options = FlatOptions(group, false);
    Image loaded = Image::Open(job, store, group.frames.front().path, options);
    master.image = std::move(loaded.Pointer());
    master.saturated = ShareWhere(
        *master.image, [end = ScaleEnd(loaded.Info(), options.lessBlack)](float v) { return v >= end; });
  } else {
    Stack stack(group, FlatOptions(group, offset != nullptr));
    const files::ImageInfo& info = stack.Info();
    master.image = NewImage(store, info.width, info.height, info.planes);
    if (group.kind == FrameKind::Flat) {
      master.offset = offset;
      stack.Normalise(offset ? offset->image.get() : nullptr);
    }
    stack.Median(job, *master.image, "making " + group.name);
    master.saturated = stack.Saturated();
    const bool raw = info.planes == 1 && !info.type.starts_with("float") &&
                     !info.header.GetString("NCOMBINE") && !info.header.GetString("STACKCNT");
    if (group.kind == FrameKind::Flat && raw && offset && offset->group->frames.size() > 1 &&
        master.saturated < kManySaturated) {
      master.gain = stack.MeasureGain(NoiseVariance(*offset->group));
    }
  }
  const files::ImageInfo& first = group.frames.front().info;
  if (const int own = files::FindMosaic(first).cfa; own > 0) cfa = own;
  if (group.kind == FrameKind::Flat && first.planes == 1 && cfa > 0) {
    EqualiseCells(*master.image, cfa);
    master.equalised = true;
  }
  master.measures = Measures(*master.image);
  return master;
}

namespace {

/// Takes the offset off an image; what would be less than `least` becomes that. Answers how many pixels were.
long long Subtract(CVelImage& image, CVelImage& offset, float least) {
  long long count = 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (const int n : MapLines(0, image.GetHeight(), [&](int y) {
           float* row = image.GetWritableLine(0, y, p);
           const float* off = offset.GetLine(0, y, std::min(p, offset.GetPlanes() - 1));
           int below = 0;
           RunInLongVectors([=, &below, width = image.GetWidth()]() KORIMG_IN_LOOP {
             int found = 0;
             for (int x = 0; x < width; ++x) {
               const float light = row[x] - off[x];
               found += light < least;
               row[x] = light < least ? least : light;  // blank pixels stay
             }
             below = found;
           });
           return below;
         })) {
      count += n;
    }
  }
  return count;
}

/// Makes blank what a flat has no data for.
void Blank(CVelImage& image, CVelImage& flat) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
      float* row = image.GetWritableLine(0, y, p);
      const float* divisor = flat.GetLine(0, y, std::min(p, flat.GetPlanes() - 1));
      for (int x = 0; x < image.GetWidth(); ++x) {
        row[x] = std::isfinite(divisor[x]) ? row[x] : std::numeric_limits<float>::quiet_NaN();
      }
    });
  }
}

}  // namespace

long long ApplyMasters(CVelImage& image, CVelImage* offset, float least, CVelImage* flat,
                       const Measures& ofFlat) {
  const long long limited = offset ? Subtract(image, *offset, least) : 0;
  if (flat) {
    Measures m = ofFlat;
    image.DarkFlat(&image, nullptr, flat, m.minima, m.maxima, m.averages, 0, 0, nullptr, 0);
    if (m.hasBlank) Blank(image, *flat);
  }
  return limited;
}

void SaveMaster(Job& job, Master& master, const std::filesystem::path& path) {
  files::Header header = master.group->frames.front().info.header;
  const auto count = static_cast<int>(master.group->frames.size());
  if (count > 1) {
    header.Set("NCOMBINE", count, "frames in this master");
    header.Set("STACKCNT", count, "frames in this master");
  }
  header.AddHistory(fmt::format("korimg {} {}", Version(), master.Text()));
  if (master.equalised) header.AddHistory("the colours of its mosaic brought to one mean");
  for (const Frame& frame : master.group->frames) {
    header.AddHistory("made of " + frame.path.filename().string());
  }
  for (int p = 0; p < master.image->GetPlanes(); ++p) {
    const float min = master.measures.minima[p], max = master.measures.maxima[p];
    master.image->SetLevel(p, min, max > min ? max : min + 1);
  }
  SaveImage(job, *master.image, header, path);
}

}  // namespace korimg::session
