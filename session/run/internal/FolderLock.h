// One process at a time in a folder of results.
#pragma once

#include <filesystem>

#include "session/files/Formats.h"
#include "session/job/Job.h"

namespace korimg::session {

/// Locks a folder for as long as it lives, and let go by the system when the process ends, however it does.
/// Machines that share the folder respect it where their file system tells them of locks, as NFS does; where
/// it has none, it is as if nobody else were there.
class FolderLock {
 public:
  /// Makes the folder where there is none, and waits for another process that has it. Throws Cancelled.
  FolderLock(Job& job, const std::filesystem::path& folder);

 private:
  files::FileDescriptor file_;
};

}  // namespace korimg::session
