#include "session/stack/internal/RejectedPixels.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace korimg::session {

namespace fs = std::filesystem;

RejectedPixels::RejectedPixels(const fs::path& output, const std::string& digest, const Shape& shape,
                               size_t frames, Journal::Use use)
    : path_(output.string() + ".rejected"),
      shape_(shape),
      counts_(frames),
      use_(use),
      rowBytes_((shape.width + 7) / 8) {
  const bool found = use == Journal::Kept && fs::exists(path_);
  const fs::path folder = fs::absolute(path_).parent_path();
  const std::uint64_t needed = frames * shape.planes * shape.height * rowBytes_;
  if (!found && files::FreeSpace(folder) < needed) files::ThrowDiskFull(path_, folder, needed);
  if (use == Journal::Passing) transient_ = std::make_unique<files::TransientFile>(path_);
  file_ = std::make_unique<files::File>(path_, O_RDWR | O_CREAT | (found ? 0 : O_TRUNC), path_);
  const std::string title = "korimg stack: rejected pixels, for --resume\n" + digest + "\n";
  stateAt_ = title.size();
  start_ = stateAt_ + sizeof(State) + frames * sizeof(CImgStack::Counts);
  if (found) {
    std::string start(title.size(), '\0');
    start.resize(file_->Read(start.data(), start.size(), 0));
    State state;
    const size_t counts = frames * sizeof(CImgStack::Counts);
    const bool isWhole = start == title && file_->Read(&state, sizeof state, stateAt_) == sizeof state &&
                         file_->Read(counts_.data(), counts, stateAt_ + sizeof state) == counts &&
                         state.rows <= shape.height && state.sum == SumOf(state);
    if (isWhole) {
      state_ = state;
      return;
    }
    counts_.assign(frames, {});
    if (ftruncate(file_->Descriptor(), 0) != 0) files::ThrowSystemError(path_, "shorten the file", errno);
  }
  file_->Write(title.data(), title.size(), 0);
}

void RejectedPixels::Begin(int rows) {
  capacity_ = rows;
  bits_.assign(Offset(static_cast<int>(counts_.size()), 0), 0);
}

void RejectedPixels::End(int rows, const std::vector<CImgStack::Counts>& counts) {
  const auto y = static_cast<int>(state_.rows);
  for (int i = 0; i < static_cast<int>(counts_.size()); ++i) {
    for (int p = 0; p < shape_.planes; ++p) {
      file_->Write(bits_.data() + Offset(i, p), rows * rowBytes_, Place(i, p, y));
    }
    counts_[i] += counts[i];
  }
  Synchronise();
  state_.rows += rows;
  state_.sum = SumOf(state_);
  file_->Write(&state_, sizeof state_, stateAt_);
  file_->Write(counts_.data(), counts_.size() * sizeof counts_[0], stateAt_ + sizeof state_);
  Synchronise();
  std::fill(bits_.begin(), bits_.end(), 0);
}

RejectedPixels::Bits RejectedPixels::Of(int frame, int y0, int rows) const {
  Bits bits;
  bits.y0_ = y0;
  bits.rowBytes_ = rowBytes_;
  bits.planeBytes_ = rows * rowBytes_;
  bits.bits_.resize(shape_.planes * bits.planeBytes_);
  for (int p = 0; p < shape_.planes; ++p) {
    const auto bytes = static_cast<size_t>(bits.planeBytes_);
    if (file_->Read(bits.bits_.data() + p * bytes, bytes, Place(frame, p, y0)) != bytes)
      throw files::FileError(path_, "was changed while the stack was made; run it again");
  }
  return bits;
}

void RejectedPixels::Remove() {
  if (use_ == Journal::Kept) fs::remove(path_);
  transient_.reset();
}

std::uint64_t RejectedPixels::SumOf(const State& state) const {
  auto sum = static_cast<std::uint64_t>(state.rows) + 1;
  for (const CImgStack::Counts& counts : counts_) {
    for (const long long count : {counts.values, counts.low, counts.high}) {
      sum = (sum ^ static_cast<std::uint64_t>(count)) * 0x100000001B3ULL;
    }
  }
  return sum;
}

void RejectedPixels::Synchronise() const {
  if (use_ == Journal::Kept && fdatasync(file_->Descriptor()) != 0)
    files::ThrowSystemError(path_, "write", errno);
}

}  // namespace korimg::session
