// A folder that a camera fills, stacked as it comes.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "session/live/FolderWatch.h"
#include "session/live/LiveStack.h"
#include "viewer/server/Router.h"

namespace korimg::viewer {

struct WatchedFolder {
  std::filesystem::path folder;
  std::filesystem::path masters;  ///< ready ones; empty: calibration frames in the folder, if any
};

/// Watches a folder from when it is made: each frame that is complete is added to the stack, and a picture of
/// it made. Nothing is written. Any thread may ask.
class Live {
 public:
  /// Begins with a quarter of the job's memory. Ends with the job.
  Live(session::Job& job, const WatchedFolder& watched);
  ~Live();

  const WatchedFolder& Watched() const { return watched_; }
  /// Tells what a page has seen: how often the stack was begun, how many frames, and which picture.
  struct Seen {
    int begun = 0, frames = 0, picture = -1;
  };
  /// Answers the state, and the frames that the page has not seen: at once where there are such, or another
  /// picture, else when there are, or after some seconds.
  Json State(const Seen& seen, const std::function<bool()>& isGone) const;
  /// Begins anew with a frame as the first one, that others are laid on, by its number in the stack that was
  /// begun so often. Throws UsageError for a number that nothing has, or had in another one.
  void BeginWith(int frame, int begun);
  /// Answers the picture of the stack, a JPEG of at most kSide pixels a side; empty before the first frame.
  std::string Picture() const;
  static constexpr int kSide = 2048;  ///< chosen for a screen
  /// Tells of a file or folder within the watched one that is about to be written: it holds no frames.
  void PassOver(const std::filesystem::path& own);
  /// Answers the stack so far. Throws UsageError before the first frame.
  session::Image Snapshot() const;
  /// Answers what stacks the frames properly, into `out`.
  session::RunOptions Proper(session::Job& job, const std::filesystem::path& out) const;

 private:
  void Watch();
  void Stack();
  std::vector<std::filesystem::path> Next(session::FolderWatch& watch);
  bool Add(const std::filesystem::path& file);
  template <class Make>
  auto Patiently(Make&& make) -> std::optional<decltype(make())>;
  bool BeginsAnew() const;
  void Tell(const std::string& failure);
  session::LiveOptions Options() const;

  WatchedFolder watched_;
  std::shared_ptr<session::CancelToken> token_;
  session::Job job_;
  mutable std::mutex mutex_;  ///< of what follows
  mutable std::condition_variable changed_;
  std::shared_ptr<session::LiveStack> stack_;
  std::optional<std::filesystem::path> first_;  ///< that the stack is to be begun anew with
  int begun_ = 0;
  std::vector<Json> frames_;
  std::vector<std::filesystem::path> files_;  ///< of these
  std::vector<std::filesystem::path> own_;    ///< what was written by the page
  std::string picture_, failure_, doing_;
  int pictures_ = 0;
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace korimg::viewer
