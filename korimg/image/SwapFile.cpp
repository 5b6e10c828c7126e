#include "korimg/image/SwapFile.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "korimg/image/Exceptions.h"

namespace korimg {
namespace {

std::string MiB(unsigned long long bytes) {
  return std::to_string(bytes >> 20) + " MiB";
}

[[noreturn]] void Fail(const std::filesystem::path& directory, long long bytes, int error) {
  struct statvfs disk {};
  const bool known = statvfs(directory.c_str(), &disk) == 0;
  throw velora::CVmMemoryAllocationError(
      "no room for a temporary file in " + directory.string() + ": needed " + MiB(bytes) + ", available " +
      (known ? MiB(static_cast<unsigned long long>(disk.f_bavail) * disk.f_frsize) : std::string("unknown")) +
      " (" + std::strerror(error) + "); free some space or choose another swap directory");
}

int OpenWithoutName(const std::filesystem::path& directory) {
  const int unnamed = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (unnamed >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT)) return unnamed;
  std::string name = (directory / "korimg-XXXXXX").string();
  const int named = mkostemp(name.data(), O_CLOEXEC);
  if (named >= 0) unlink(name.c_str());
  return named;
}

}  // namespace

SwapFile::SwapFile(const std::filesystem::path& directory, long long bytes) : directory_(directory) {
  // Beyond the limit the reservation would raise a signal rather than an error.
  struct rlimit limit {};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      static_cast<unsigned long long>(bytes) > limit.rlim_cur) {
    Fail(directory, bytes, EFBIG);
  }
  descriptor_ = OpenWithoutName(directory);
  if (descriptor_ < 0) Fail(directory, bytes, errno);
  if (const int error = posix_fallocate(descriptor_, 0, bytes); error != 0) {
    close(descriptor_);
    Fail(directory, bytes, error);
  }
}

SwapFile::~SwapFile() {
  close(descriptor_);
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

std::filesystem::path SwapDirectory(const std::filesystem::path& wanted) {
  return wanted.empty() ? std::filesystem::temp_directory_path() : wanted;
}

long long StoreBudget(long long wanted) {
  return wanted > 0 ? wanted : static_cast<long long>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE) / 2;
}

}  // namespace korimg
