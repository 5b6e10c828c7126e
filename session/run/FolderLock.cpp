#include "session/run/internal/FolderLock.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace korimg::session {

FolderLock::FolderLock(Job& job, const std::filesystem::path& folder) {
  constexpr std::chrono::milliseconds kAgain(100);  // chosen
  const std::filesystem::path path = folder / "lock";
  const auto isThere = [&] {
    struct stat held {
    }, now{};
    return fstat(file_.Get(), &held) == 0 && stat(path.c_str(), &now) == 0 && held.st_ino == now.st_ino;
  };
  bool isTold = false;
  do {
    std::filesystem::create_directories(folder);
    // Over NFS only a file that is open for writing can be locked.
    file_ = files::FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (file_.Get() < 0) files::ThrowSystemError(path, "create the file", errno);
    while (flock(file_.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      if (!isTold) job.Say(fmt::format("waiting for another run in {}", folder.parent_path().string()));
      isTold = true;
      job.CheckCancelled();
      std::this_thread::sleep_for(kAgain);
    }
  } while (!isThere());  // who had it may have taken the folder away
}

}  // namespace korimg::session
