#include "korimg/image/internal/SwapFile.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "korimg/image/Exceptions.h"
#include "korimg/image/internal/Memory.h"
#include "korimg/platform/Debug.h"

namespace korimg {
namespace {

/// What all temporary files of this process take of memory itself.
std::atomic<long long> bytes_in_memory = 0;

std::string MiB(unsigned long long bytes) {
  return std::to_string(bytes >> 20) + " MiB";
}

int OpenWithoutName(const std::filesystem::path& directory) {
  const int unnamed = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (unnamed >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT)) return unnamed;
  std::string name = (directory / "korimg-XXXXXX").string();
  const int named = mkostemp(name.data(), O_CLOEXEC);
  if (named >= 0) unlink(name.c_str());
  return named;
}

/// What a file can count on having on its file system: the space it has reserved, only what it has written,
/// or nothing, where each change goes to a new place.
enum class Keeping { Reserved, Written, Nothing };

Keeping KeepingOf(int descriptor) {
  constexpr unsigned kXfs = 0x58465342, kZfs = 0x2FC12FC1, kBcachefs = 0xCA451A4E;
  struct statfs system {};
  if (fstatfs(descriptor, &system) != 0) return Keeping::Written;
  switch (static_cast<unsigned>(system.f_type)) {
    case EXT4_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case OVERLAYFS_SUPER_MAGIC:
    case RAMFS_MAGIC:
    case TMPFS_MAGIC:
    case kXfs:
      return Keeping::Reserved;
    case BTRFS_SUPER_MAGIC:
    case kBcachefs:
    case kZfs:
      return Keeping::Nothing;
    default:
      return Keeping::Written;
  }
}

}  // namespace

SwapFile::SwapFile(const std::filesystem::path& directory, long long bytes, Use use)
    : SwapFile(SwapDirectory(directory)) {
  CountMemory(bytes);
  // Beyond the limit the reservation would raise a signal rather than an error.
  struct rlimit limit {};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      static_cast<unsigned long long>(bytes) > limit.rlim_cur) {
    Fail(bytes, std::strerror(EFBIG));
  }
  descriptor_ = OpenWithoutName(directory_);
  if (descriptor_ < 0) Fail(bytes, std::strerror(errno));
  Reserve(bytes, use);
}

SwapFile::~SwapFile() {
  if (descriptor_ >= 0) close(descriptor_);
  bytes_in_memory -= bytesInMemory_;
}

void SwapFile::CountMemory(long long bytes) {
  if (!IsInMemory(directory_)) return;
  static std::once_flag said;
  std::call_once(said, [&] {
    DebugLine("temporary files in " + directory_.string() +
              " take memory, of which they may have a half; let TMPDIR name a directory on a disk");
  });
  bytesInMemory_ = bytes;
  if (bytes > UsableMemory() / 2 - bytes_in_memory.fetch_add(bytes))
    Fail(bytes, "they may take half of the memory");
}

void SwapFile::Reserve(long long bytes, Use use) {
  const Keeping keeping = KeepingOf(descriptor_);
  if (keeping == Keeping::Nothing && use == Mapped)
    Fail(bytes, "this file system reserves no space for changes; a paged store can use it");
  const bool reserved = fallocate(descriptor_, 0, 0, bytes) == 0;
  if (!reserved && errno != EOPNOTSUPP && errno != ENOSYS) Fail(bytes, std::strerror(errno));
  if (keeping == Keeping::Written || (keeping == Keeping::Reserved && !reserved)) WriteZeros(bytes);
}

void SwapFile::WriteZeros(long long bytes) {
  const std::vector<char> zeros(std::min(bytes, 1LL << 20));
  int error = 0;
  try {
    for (long long offset = 0; offset < bytes; offset += static_cast<long long>(zeros.size())) {
      Write(zeros.data(), std::min<long long>(zeros.size(), bytes - offset), offset);
    }
    if (fsync(descriptor_) != 0) error = errno;  // a server may say so only now
  } catch (const velora::CVmManagerException&) {
    error = errno;
  }
  if (error == 0) return;
  close(std::exchange(descriptor_, -1));  // what it has taken counts as available
  Fail(bytes, std::strerror(error));
}

void SwapFile::Fail(long long bytes, const std::string& reason) const {
  throw velora::CVmMemoryAllocationError(
      "no room for a temporary file in " + directory_.string() + ": needed " + MiB(bytes) + ", available " +
      Available() + " (" + reason +
      "); free some space, or choose another swap directory (TMPDIR) or a larger memory budget");
}

std::string SwapFile::Available() const {
  struct statvfs disk {};
  if (statvfs(directory_.c_str(), &disk) != 0) return "unknown";
  unsigned long long bytes = static_cast<unsigned long long>(disk.f_bavail) * disk.f_frsize;
  if (IsInMemory(directory_)) {
    const long long others = bytes_in_memory - bytesInMemory_;
    bytes = std::min<unsigned long long>(bytes, std::max(UsableMemory() / 2 - others, 0LL));
  }
  return MiB(bytes);
}

void SwapFile::Read(void* to, long long bytes, long long offset) const {
  for (auto* at = static_cast<char*>(to); bytes > 0;) {
    const ssize_t done = pread(descriptor_, at, bytes, offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      throw velora::CVmManagerException("can't read back a temporary file in " + directory_.string() + ": " +
                                        (done == 0 ? "it is too short" : std::strerror(errno)));
    }
    at += done, bytes -= done, offset += done;
  }
}

void SwapFile::Write(const void* from, long long bytes, long long offset) {
  for (const auto* at = static_cast<const char*>(from); bytes > 0;) {
    const ssize_t done = pwrite(descriptor_, at, bytes, offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      throw velora::CVmManagerException("can't write a temporary file in " + directory_.string() + ": " +
                                        std::strerror(errno));
    }
    at += done, bytes -= done, offset += done;
  }
}

}  // namespace korimg
