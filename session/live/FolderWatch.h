// A folder that a camera fills: which files are complete.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"

namespace korimg::session {

struct WatchOptions {
  std::filesystem::path folder;
  /// How often the folder is looked through, and how long size and time of a file have to stay the same.
  std::chrono::milliseconds interval{1000};
  bool notifications = true;  ///< of the file system; without them the folder is only looked through
};

/// Tells of the image files in a folder and the folders in it when they are complete: each once, and once
/// more whenever it was written anew. Folders of darks, flats and biases, those that a run wrote, hidden
/// ones, and files under the names that programs give them until they are complete (.part, .tmp) are passed
/// over.
///
/// A file is complete when the program that writes it has closed it or given it its name, where the file
/// system tells of that (inotify), else when it has not changed for an interval; and when it can be read to
/// its last row. One that ends too early, or stays open, is waited for until it has not been written to for a
/// minute. Then, or when something else is wrong with it, it is told of all the same: who reads it finds out
/// what.
///
/// Its work is done by the thread that asks. Beside the names of the files it keeps nothing.
class KORIMG_SESSION_API FolderWatch {
 public:
  /// @throws FileError when there is no such folder, UsageError for an interval that is not positive
  FolderWatch(Job& job, WatchOptions options);
  ~FolderWatch();

  /// Waits for files, not longer than told, and answers those that are complete by now, the oldest first. The
  /// first call answers at once what is there already.
  /// @throws Cancelled as soon as the job is, FileError when the folder is gone
  std::vector<std::filesystem::path> Next(std::chrono::milliseconds timeout);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace korimg::session
