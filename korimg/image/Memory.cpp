#include "korimg/image/internal/Memory.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "korimg/image/CVmManager.h"

namespace fs = std::filesystem;

namespace korimg {
namespace {

/// The least limit of a control group and of those around it. A container may see its own group as the root.
long long LeastLimit(const fs::path& controller, fs::path group, const char* file) {
  long long least = LLONG_MAX;
  for (group = group.relative_path();; group = group.parent_path()) {
    std::string text;
    std::ifstream(controller / group / file) >> text;
    long long limit = 0;  // "max" is none
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), limit);
    if (error == std::errc() && limit > 0) least = std::min(least, limit);
    if (group.empty()) return least;
  }
}

}  // namespace

long long UsableMemory(const fs::path& root) {
  long long bytes = static_cast<long long>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
  const fs::path groups = root / "sys/fs/cgroup";
  std::ifstream list(root / "proc/self/cgroup");
  for (std::string line; std::getline(list, line);) {
    // number:controllers:group; version 2 names no controllers.
    const size_t first = line.find(':'), second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    const fs::path group = line.substr(second + 1);
    if (controllers == ",,") bytes = std::min(bytes, LeastLimit(groups, group, "memory.max"));
    if (controllers.find(",memory,") != std::string::npos)
      bytes = std::min(bytes, LeastLimit(groups / "memory", group, "memory.limit_in_bytes"));
  }
  return bytes;
}

fs::path SwapDirectory(const fs::path& wanted) {
  if (!wanted.empty()) return wanted;
  // The standard library's own look-up does not name a directory that is missing.
  for (const char* name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"}) {
    if (const char* value = std::getenv(name); value && *value) return value;
  }
  return "/tmp";
}

bool IsInMemory(const fs::path& directory) {
  struct statfs system {};
  return statfs(directory.c_str(), &system) == 0 &&
         (system.f_type == TMPFS_MAGIC || system.f_type == RAMFS_MAGIC);
}

long long StoreBudget(const StoreOptions& options) {
  return options.budget > 0 ? options.budget : DefaultBudget(options);
}

long long DefaultBudget(const StoreOptions& options) {
  return UsableMemory() / (IsInMemory(SwapDirectory(options.swapDirectory)) ? 4 : 2);
}

}  // namespace korimg
