// Finished runs that pages look at: their frames, flags, and previews for blinking.
#pragma once

#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "session/job/Job.h"
#include "session/run/Finished.h"
#include "viewer/image/OpenImages.h"
#include "viewer/run/Flags.h"

namespace korimg::viewer {

/// Makes JPEGs of a run's registered frames, all of a stack at one stretch about their own sky. As many are
/// kept as fit into a budget.
class Previews {
 public:
  explicit Previews(long long bytes) : bytes_(bytes) {}

  /// Answers a frame with at most `side` pixels along its longer side, upright as its stack.
  /// @throws Cancelled once isGone() says so, and what RegisteredFrames throw
  std::string Get(
      session::RegisteredFrames& frames, const session::FinishedRun& run, std::size_t frame, int side,
      const std::function<bool()>& isGone = [] { return false; });

 private:
  using Key = std::tuple<std::size_t, int, std::string>;  ///< frame, size, and state of its file

  long long bytes_, held_ = 0;
  std::mutex mutex_, making_;
  std::list<std::pair<Key, std::string>> kept_;  ///< the last one used first
};

/// Holds a run as it was opened. Another object takes its place when it was done again.
class ViewedRun {
 public:
  ViewedRun(session::Job& job, OpenImages& images, const std::filesystem::path& folder, int version);

  const session::FinishedRun& Run() const { return run_; }
  /// Answers a number for addresses: another one each time that it is opened.
  int Version() const { return version_; }
  /// True when the folder holds another run than this one by now.
  bool IsOld() const;

  /// Calls change(flags), which nobody else uses meanwhile.
  template <class Change>
  auto WithFlags(Change&& change) {
    const std::lock_guard lock(flagging_);
    return change(flags_);
  }
  std::string Preview(std::size_t frame, int side, const std::function<bool()>& isGone);
  /// Answers what a frame is shown by.
  session::Levels LevelsOf(std::size_t frame);
  int Planes() { return Frames()->Size().planes; }
  /// Answers the number that a registered frame can be looked at by, as a file is.
  int ImageOf(std::size_t frame);

 private:
  std::shared_ptr<session::RegisteredFrames> Frames();

  session::Job& job_;
  OpenImages& images_;
  std::string stamp_;  ///< of the folder's record when it was read
  session::FinishedRun run_;
  int version_;
  std::mutex flagging_, opening_;
  Flags flags_;
  std::shared_ptr<session::RegisteredFrames> frames_;  ///< once they were asked for
  std::map<std::size_t, int> offered_;
  Previews previews_;
};

/// Holds the finished runs in the folders that may be seen, by numbers. Any thread may ask.
class Runs {
 public:
  Runs(session::Job& job, Files& files, OpenImages& images) : job_(job), files_(files), images_(images) {}

  struct Entry {
    int id = 0;
    std::string name;
  };
  std::vector<Entry> List();
  /// Answers the run that the folder holds now. @throws UsageError for a number that nothing has, FileError
  /// for what is no run any more
  std::shared_ptr<ViewedRun> Get(int id);

 private:
  std::filesystem::path FolderOf(int id);

  session::Job& job_;
  Files& files_;
  OpenImages& images_;
  std::mutex mutex_;
  std::vector<std::filesystem::path> folders_;  ///< by number
  std::map<int, std::shared_ptr<ViewedRun>> open_;
  int versions_ = 0;
};

}  // namespace korimg::viewer
