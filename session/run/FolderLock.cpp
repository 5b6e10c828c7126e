#include "session/run/internal/FolderLock.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

namespace korimg::session {

FolderLock::FolderLock(Job& job, const std::filesystem::path& folder)
    // Over NFS only a file that is open for writing can be locked.
    : file_(open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
  constexpr std::chrono::milliseconds kAgain(200);
  for (bool isTold = false; flock(file_.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;) {
    if (!isTold) job.Say(fmt::format("waiting for another run in {}", folder.parent_path().string()));
    isTold = true;
    job.CheckCancelled();
    std::this_thread::sleep_for(kAgain);
  }
}

}  // namespace korimg::session
