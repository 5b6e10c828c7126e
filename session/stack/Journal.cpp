#include "session/stack/internal/Journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace korimg::session {

namespace fs = std::filesystem;
using Counts = CImgStack::Counts;

namespace {

/// A sum over words, in the manner of Fowler, Noll and Vo.
std::uint64_t Sum(std::uint64_t sum, const void* data, size_t bytes) {
  const char* at = static_cast<const char*>(data);
  for (size_t i = 0; i < bytes; i += sizeof(std::uint32_t)) {
    std::uint32_t word;
    std::memcpy(&word, at + i, sizeof word);
    sum = (sum ^ word) * 0x100000001B3ULL;
  }
  return sum;
}

}  // namespace

/// What a band begins with in the file. The counts of its frames follow, and then its images, each plane by
/// plane.
struct Journal::Record {
  std::int32_t y0 = 0, rows = 0;
  std::uint64_t sum = 0;  ///< of all else
};

Journal::Journal(const fs::path& path, const std::string& digest, const Shape& shape, Images images,
                 size_t frames, Use use, const StackRows& rows)
    : path_(path),
      shape_(shape),
      rows_{rows.first, std::min(rows.end, shape.height)},
      images_(std::move(images)),
      frames_(frames),
      use_(use),
      next_(rows.first) {
  const bool found = use == Finished || (use == Kept && fs::exists(path_));
  // The bands and the images that are made of them lie side by side at the end.
  const fs::path folder = fs::absolute(path_).parent_path();
  const std::uint64_t needed =
      2 * sizeof(float) * images_.size() * shape.planes * (rows_.end - rows_.first) * shape.width;
  if (!found && files::FreeSpace(folder) < needed) files::ThrowDiskFull(path_, folder, needed);
  if (use == Passing) transient_ = std::make_unique<files::TransientFile>(path_);
  const int flags = use == Finished ? O_RDONLY : O_RDWR | O_CREAT | (found ? 0 : O_TRUNC);
  file_ = std::make_unique<files::File>(path_, flags, path_);
  const std::string title = fmt::format("korimg stack: finished bands\n{}\n", digest);
  end_ = title.size();
  if (found) {
    std::string start(title.size(), '\0');
    start.resize(file_->Read(start.data(), start.size(), 0));
    wasOther_ = start != title;
    while (!wasOther_ && next_ < rows_.end) {
      const auto stored = Read(end_, next_);
      if (!stored) break;
      bands_.push_back({end_, next_});
      end_ = stored->end;
      next_ += stored->band.result.Rows();
    }
  }
  if (use == Finished) return;
  if (ftruncate(file_->Descriptor(), static_cast<off_t>(next_ > rows_.first ? end_ : 0)) != 0) {
    files::ThrowSystemError(path_, "shorten the file", errno);
  }
  file_->Write(title.data(), title.size(), 0);
}

std::optional<Journal::Stored> Journal::Read(std::uint64_t offset, int y0) const {
  Record record;
  if (file_->Read(&record, sizeof record, offset) != sizeof record || record.y0 != y0 || record.rows < 1 ||
      record.rows > rows_.end - y0) {
    return std::nullopt;
  }
  const size_t image = static_cast<size_t>(shape_.planes) * record.rows * shape_.width;
  Stored stored{{}, std::vector<float>(images_.size() * image), 0};
  stored.band.counts.resize(frames_);
  std::uint64_t at = offset + sizeof record, sum = y0;
  const auto take = [&](void* data, size_t bytes) {
    if (file_->Read(data, bytes, at) != bytes) return false;
    at += bytes;
    sum = Sum(sum, data, bytes);
    return true;
  };
  if (!take(stored.band.counts.data(), frames_ * sizeof(Counts)) ||
      !take(stored.pixels.data(), stored.pixels.size() * sizeof(float)) || sum != record.sum) {
    return std::nullopt;
  }
  for (size_t i = 0; i < images_.size(); ++i) {
    stored.band.*images_[i] =
        Band<const float>(stored.pixels.data() + i * image, shape_.planes, shape_.width, y0, record.rows);
  }
  stored.end = at;
  return stored;
}

void Journal::Add(const StackBand& band) {
  Record record{band.result.Top(), band.result.Rows()};
  std::uint64_t at = end_ + sizeof record, sum = record.y0;
  const auto put = [&](const void* data, size_t bytes) {
    file_->Write(data, bytes, at);
    at += bytes;
    sum = Sum(sum, data, bytes);
  };
  put(band.counts.data(), frames_ * sizeof(Counts));
  for (const auto member : images_) {
    const Band<const float>& image = band.*member;
    for (int p = 0; p < image.Planes(); ++p) {
      image.Plane(p).ForRuns([&](Row<const float> run) { put(run.data(), run.size_bytes()); });
    }
  }
  record.sum = sum;
  file_->Write(&record, sizeof record, end_);
  if (use_ == Kept && fdatasync(file_->Descriptor()) != 0) files::ThrowSystemError(path_, "write", errno);
  bands_.push_back({end_, next_});
  end_ = at;
  next_ += record.rows;
}

void Journal::ForBands(const std::function<void(const StackBand&)>& visit, bool fromLowest) const {
  for (size_t i = 0; i < bands_.size(); ++i) {
    const Place& place = bands_[fromLowest ? bands_.size() - 1 - i : i];
    const auto stored = Read(place.offset, place.y0);
    if (!stored) throw files::FileError(path_, "was changed while the stack was made; run it again");
    visit(stored->band);
  }
}

void Journal::Remove() {
  if (use_ == Kept) fs::remove(path_);
  transient_.reset();
}

void Journal::KeepAs(const fs::path& path) {
  if (fdatasync(file_->Descriptor()) != 0) files::ThrowSystemError(path, "write", errno);
  transient_->RenameTo(path);
  path_ = path;
}

}  // namespace korimg::session
