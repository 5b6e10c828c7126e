// Which values of the frames a stack rejects, on disk while they are needed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "session/files/Formats.h"
#include "session/stack/internal/Journal.h"

namespace korimg::session {

/// Keeps the file "<output>.rejected": a bit for each value, by frames, planes and rows of the grid that is
/// stacked on, and what became of each frame. As a Journal it may survive a run that was killed.
class RejectedPixels {
 public:
  RejectedPixels(const std::filesystem::path& output, const std::string& digest, const Shape& shape,
                 size_t frames, Journal::Use use);

  /// Answers the rows of the grid that are known.
  int Rows() const { return state_.rows; }
  /// Answers the counts of each frame, in these rows.
  const std::vector<CImgStack::Counts>& Counts() const { return counts_; }

  /// Takes marks in the next rows, at most so many.
  void Begin(int rows);
  /// Marks a value; any thread may call it, and for the pixels of one row one at a time.
  void Mark(int frame, int x, int y, int plane) {
    bits_[Offset(frame, plane) + (y - state_.rows) * rowBytes_ + x / 8] |=
        static_cast<std::uint8_t>(1 << x % 8);
  }
  /// Ends a band: it survives the end of the program from now on, and as a Journal's that of the
  /// machine.
  void End(int rows, const std::vector<CImgStack::Counts>& counts);

  /// Some rows of a frame.
  class Bits {
   public:
    bool operator()(int x, int y, int plane) const {
      return bits_[plane * planeBytes_ + (y - y0_) * rowBytes_ + x / 8] >> x % 8 & 1;
    }

   private:
    friend class RejectedPixels;
    std::vector<std::uint8_t> bits_;
    std::int64_t rowBytes_ = 0, planeBytes_ = 0;
    int y0_ = 0;
  };
  /// Answers rows y0 to y0 + rows - 1 of the grid. Any thread may ask.
  Bits Of(int frame, int y0, int rows) const;

  void Remove();
  const std::filesystem::path& Path() const { return path_; }

 private:
  struct State {
    std::int64_t rows = 0;
    std::uint64_t sum = 0;  ///< of the rows and the counts
  };

  size_t Offset(int frame, int plane) const {
    return (1UL * frame * shape_.planes + plane) * capacity_ * rowBytes_;
  }
  std::uint64_t Place(int frame, int plane, int y) const {
    return start_ + ((1ULL * frame * shape_.planes + plane) * shape_.height + y) * rowBytes_;
  }
  std::uint64_t SumOf(const State& state) const;
  void Synchronise() const;

  std::filesystem::path path_;
  Shape shape_;
  std::vector<CImgStack::Counts> counts_;
  Journal::Use use_;
  std::int64_t rowBytes_;
  State state_;
  std::uint64_t stateAt_ = 0, start_ = 0;  ///< in the file
  std::unique_ptr<files::TransientFile> transient_;
  std::unique_ptr<files::File> file_;
  size_t capacity_ = 0;  ///< rows of the band
  std::vector<std::uint8_t> bits_;
};

}  // namespace korimg::session
