// A folder that a camera fills, stacked as it comes.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
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
  /// With a quarter of the job's memory. Ends with the job.
  Live(session::Job& job, const WatchedFolder& watched);
  ~Live();

  const WatchedFolder& Watched() const { return watched_; }
  /// The state, and the frames after the first `after`: at once where there are such, or the picture is
  /// another one than `picture`, else when there are, or after some seconds.
  Json State(int after, int picture, const std::function<bool()>& isGone) const;
  /// The picture of the stack, a JPEG of at most kSide pixels a side; empty before the first frame.
  std::string Picture() const;
  static constexpr int kSide = 2048;
  /// Tells of a file or folder within the watched one that is about to be written: it holds no frames.
  void PassOver(const std::filesystem::path& own);
  /// The stack so far. Throws UsageError before the first frame.
  session::Image Snapshot() const;
  /// What stacks the frames properly, into `out`.
  session::RunOptions Proper(session::Job& job, const std::filesystem::path& out) const;

 private:
  void Watch();
  std::vector<std::filesystem::path> Next(session::FolderWatch& watch);
  session::LiveOptions Options() const;

  WatchedFolder watched_;
  std::shared_ptr<session::CancelToken> token_;
  session::Job job_;
  std::unique_ptr<session::LiveStack> stack_;
  mutable std::mutex mutex_;  ///< of what follows
  mutable std::condition_variable changed_;
  std::vector<Json> frames_;
  std::vector<std::filesystem::path> own_;  ///< what was written by the page
  std::string picture_, failure_, doing_;
  int pictures_ = 0;
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace korimg::viewer
