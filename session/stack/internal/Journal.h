// The finished bands of a stack, on disk until the result is written: a run that was killed goes on from
// them.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/files/Formats.h"
#include "session/stack/Stack.h"

namespace korimg::session {

/// Keeps a file of bands that follow each other.
class Journal {
 public:
  enum Use {
    Passing,  ///< begins anew, and vanishes with this object
    Kept,     ///< goes on with what is there, and stays until Remove
    Finished  ///< is read, and never changed; it has to be there
  };

  /// The images of a band that are kept.
  using Images = std::vector<Band<const float> StackBand::*>;

  /// `digest` stands for all that the result depends on: bands of another one are of no use. Damaged bands at
  /// the end of the file are left out. The bands are those of `rows` of a result of that shape.
  Journal(const std::filesystem::path& path, const std::string& digest, const Shape& shape, Images images,
          size_t frames, Use use, const StackRows& rows = {});

  /// True when there was a file of another digest; unless it is only read, it is lost.
  bool WasOther() const { return wasOther_; }
  /// Tells that rows of the result before this one are done, and no others.
  int NextRow() const { return next_; }
  /// True of a finished one of this digest in which nothing is missing.
  bool IsWhole() const { return !wasOther_ && next_ == rows_.end; }

  /// Takes the next band. Once this returns it survives the end of the program, and one that is kept also
  /// that of the machine.
  void Add(const StackBand& band);
  /// Calls visit for all bands, in order, or from the lowest up.
  void ForBands(const std::function<void(const StackBand&)>& visit, bool fromLowest = false) const;
  void Remove();
  /// Gives a passing one a name that it keeps. What it holds survives the end of the machine.
  void KeepAs(const std::filesystem::path& path);

 private:
  struct Record;
  /// A band with the memory that it points to.
  struct Stored {
    StackBand band;
    std::vector<float> pixels;
    std::uint64_t end;  ///< in the file
  };

  std::optional<Stored> Read(std::uint64_t offset, int y0) const;

  std::filesystem::path path_;
  Shape shape_;
  StackRows rows_;
  Images images_;
  size_t frames_;
  Use use_;
  bool wasOther_ = false;
  std::unique_ptr<files::TransientFile> transient_;
  std::unique_ptr<files::File> file_;
  /// A band in the file, and its first row.
  struct Place {
    std::uint64_t offset;
    int y0;
  };
  std::vector<Place> bands_;
  std::uint64_t end_ = 0;  ///< of the bands in the file
  int next_ = 0;
};

}  // namespace korimg::session
