#include "session/live/FolderWatch.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "session/calibrate/internal/FrameUse.h"
#include "session/files/Formats.h"
#include "session/job/internal/Edge.h"
#include "session/picture/Images.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

/// False where a file ends too early, and may still grow.
bool IsWhole(const fs::path& path) {
  try {
    const auto reader = files::ImageReader::Open(path);
    const files::ImageInfo& info = reader->Info();
    BandBuffer last;
    reader->ReadRows(last.Get(info.planes, info.width, info.height - 1, 1));
  } catch (const files::UnfinishedError&) {
    return false;
  } catch (const Error&) {  // it is wrong in another way, which who reads it is told
  }
  return true;
}

}  // namespace

class FolderWatch::Impl {
 public:
  Impl(Job& job, WatchOptions options) : job_(job), options_(std::move(options)) {
    if (options_.interval.count() <= 0) throw UsageError("the interval of a watch has to be positive");
    if (!fs::is_directory(options_.folder)) {
      throw files::FileError(options_.folder, "is no folder; name the one that the camera fills");
    }
    if (options_.notifications)
      notifications_ = files::FileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  }

  std::vector<fs::path> Next(std::chrono::milliseconds timeout) {
    const Clock::time_point end = Clock::now() + timeout;
    for (;;) {
      job_.CheckCancelled();
      if (isNew_ || Clock::now() >= nextLook_) {
        isNew_ = false;
        std::vector<fs::path> found = LookThrough();
        nextLook_ = Clock::now() + options_.interval;
        if (!found.empty()) return found;
      }
      const Clock::time_point now = Clock::now();
      if (now >= end) return {};
      Wait(std::min(end, nextLook_) - now);
    }
  }

 private:
  struct State {
    std::string stamp;        ///< size and time
    Clock::time_point since;  ///< that it has had this stamp
    bool isWritten = false;   ///< somebody has it open, and has written to it
    bool isComplete = false;  ///< it was closed, or got its name, since
    bool isTold = false;      ///< with this stamp
  };

  std::vector<fs::path> LookThrough() {
    if (!fs::is_directory(options_.folder)) {
      throw files::FileError(options_.folder, "is gone; is the disk still there?");
    }
    std::vector<std::pair<fs::file_time_type, fs::path>> found;
    std::set<fs::path> seen;  // links may lead back
    LookThrough(options_.folder, seen, found);
    isFirst_ = false;
    std::sort(found.begin(), found.end());
    std::vector<fs::path> files;
    for (auto& [time, path] : found) {
      files.push_back(std::move(path));
    }
    return files;
  }

  void LookThrough(const fs::path& folder, std::set<fs::path>& seen,
                   std::vector<std::pair<fs::file_time_type, fs::path>>& found) {
    std::error_code gone;  // what vanishes meanwhile is nothing to tell of
    if (!seen.insert(fs::weakly_canonical(folder, gone)).second) return;
    Subscribe(folder);
    for (auto entry = fs::directory_iterator(folder, gone); !gone && entry != fs::directory_iterator();
         entry.increment(gone)) {
      std::error_code unknown;
      const fs::path& path = entry->path();
      if (entry->is_directory(unknown)) {
        if (MayHoldLights(path)) LookThrough(path, seen, found);
      } else if (HasImageName(path) && IsReady(path)) {
        found.emplace_back(fs::last_write_time(path, unknown), path);
      }
    }
  }

  bool IsReady(const fs::path& path) {
    State& state = files_[path];
    std::string stamp;
    try {
      stamp = files::StampOf(path);
    } catch (const files::FileError&) {
      files_.erase(path);  // it is gone already, or a link that leads nowhere
      return false;
    }
    const Clock::time_point now = Clock::now();
    if (stamp != state.stamp) {
      state.stamp = std::move(stamp);
      state.isTold = false;
      // What was there before and is old has been quiet long enough.
      std::error_code unknown;
      const auto age = fs::file_time_type::clock::now() - fs::last_write_time(path, unknown);
      const bool isOld = isFirst_ && age >= options_.interval;
      state.since = isOld ? now - options_.interval : now;
    }
    if (state.isTold) return false;
    // Setting a file's time is told of as writing, and nothing comes after it.
    const bool isQuiet =
        now - state.since >= options_.interval && !(state.isWritten && files::WasJustWritten(path));
    if (!state.isComplete && !isQuiet) return false;
    state.isTold = IsWhole(path);
    state.isComplete = false;
    state.since = now;
    return state.isTold;
  }

  /// Where there are no notifications, as on some network file systems, nothing comes of it.
  void Subscribe(const fs::path& folder) {
    if (notifications_.Get() < 0) return;
    const int number = inotify_add_watch(notifications_.Get(), folder.c_str(),
                                         IN_CLOSE_WRITE | IN_MOVED_TO | IN_MODIFY | IN_CREATE | IN_ONLYDIR);
    if (number >= 0) folders_[number] = folder;
  }

  /// Waits for a notification, not longer than told; a cancelled job is not kept waiting.
  void Wait(Clock::duration most) {
    constexpr std::chrono::milliseconds kAtOnce(50);
    const auto wait = std::min(std::chrono::ceil<std::chrono::milliseconds>(most), kAtOnce);
    pollfd ready{notifications_.Get(), POLLIN, 0};  // one below 0 is passed over
    if (poll(&ready, 1, static_cast<int>(wait.count())) > 0) TakeNotifications();
  }

  void TakeNotifications() {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      const ssize_t size = read(notifications_.Get(), buffer, sizeof buffer);
      if (size <= 0) return;
      for (const char* at = buffer; at < buffer + size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        Take(*event);
        at += sizeof(inotify_event) + event->len;
      }
    }
  }

  void Take(const inotify_event& event) {
    if (event.mask & IN_Q_OVERFLOW) {  // whatever was closed meanwhile has to be seen to be quiet
      for (auto& [path, state] : files_) {
        state.isWritten = false;
      }
      isNew_ = true;
    }
    if (event.mask & IN_IGNORED) folders_.erase(event.wd);
    const auto folder = folders_.find(event.wd);
    if (folder == folders_.end() || event.len == 0) return;
    const fs::path path = folder->second / event.name;
    if (event.mask & IN_ISDIR) {
      isNew_ = true;
    } else if (HasImageName(path)) {
      State& state = files_[path];
      state.isWritten = (event.mask & IN_MODIFY) != 0;
      state.isComplete = (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0;
      isNew_ |= !state.isWritten;
    }
  }

  Job& job_;
  const WatchOptions options_;
  files::FileDescriptor notifications_;
  std::map<int, fs::path> folders_;  ///< by the numbers that notifications have
  std::map<fs::path, State> files_;
  Clock::time_point nextLook_ = Clock::now();
  bool isFirst_ = true, isNew_ = true;
};

FolderWatch::FolderWatch(Job& job, WatchOptions options)
    : impl_(AtEdge([&] { return std::make_unique<Impl>(job, std::move(options)); })) {}

FolderWatch::~FolderWatch() = default;

std::vector<fs::path> FolderWatch::Next(std::chrono::milliseconds timeout) {
  return AtEdge([&] { return impl_->Next(timeout); });
}

}  // namespace korimg::session
