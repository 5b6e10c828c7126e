#include "korimg/image/internal/Memory.h"

#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "korimg/image/CVmImage.h"

#include "tests/support/Process.h"

using namespace korimg;
namespace fs = std::filesystem;

namespace {

constexpr long long kMiB = 1 << 20;

struct Case {
  const char* name;
  const char* groups;  // of the process
  std::vector<std::pair<const char*, const char*>> limits;
  long long bytes;  // 0: the machine's
};

TEST(Memory, OfAContainerIsItsLeastLimit) {
  const fs::path root = fs::temp_directory_path() / ("korimg-groups-" + std::to_string(getpid()));
  const long long machine = UsableMemory(root);
  EXPECT_EQ(machine, 1LL * sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)) << "no control groups at all";
  const Case cases[] = {
      {"version 2", "0::/a/b\n", {{"a/b/memory.max", "300000000\n"}, {"a/memory.max", "max\n"}}, 300000000},
      {"version 2, limited above",
       "0::/a/b\n",
       {{"a/b/memory.max", "max"}, {"a/memory.max", "5000000"}},
       5000000},
      {"version 2, seen from inside", "0::/\n", {{"memory.max", "70000000"}}, 70000000},
      {"version 2, of another group", "0::/a\n", {{"b/memory.max", "70000000"}}, 0},
      {"version 1",
       "5:cpu,cpuacct:/x\n4:hugetlb,memory:/docker/c\n1:name=systemd:/y\n",
       {{"memory/docker/c/memory.limit_in_bytes", "80000000"}},
       80000000},
      {"version 1, from outside its own tree",
       "4:memory:/docker/c\n0::/\n",
       {{"memory/memory.limit_in_bytes", "90000000"}},
       90000000},
      {"version 1, none", "4:memory:/\n", {{"memory/memory.limit_in_bytes", "9223372036854771712"}}, 0},
      {"nonsense", "memory\n4:\n\n::\n", {{"memory.max", "-1"}}, 0},
  };
  for (const Case& c : cases) {
    fs::remove_all(root);
    fs::create_directories(root / "proc/self");
    std::ofstream(root / "proc/self/cgroup") << c.groups;
    for (const auto& [file, limit] : c.limits) {
      const fs::path path = root / "sys/fs/cgroup" / file;
      fs::create_directories(path.parent_path());
      std::ofstream(path) << limit;
    }
    EXPECT_EQ(UsableMemory(root), c.bytes == 0 ? machine : c.bytes) << c.name;
  }
  fs::remove_all(root);
}

TEST(Memory, AFileThatCantBeMappedIsNamed) {
  if (test::kSanitized) GTEST_SKIP() << "sanitizers need all of the address space";
  const auto store = CreateContiguousManager({.budget = 1});
  long long pages = 0;  // of the address space that is taken
  std::ifstream("/proc/self/statm") >> pages;
  struct rlimit before {};
  getrlimit(RLIMIT_AS, &before);
  const struct rlimit limit {
    static_cast<rlim_t>(pages* sysconf(_SC_PAGESIZE) + 64 * kMiB), before.rlim_max
  };
  setrlimit(RLIMIT_AS, &limit);
  std::string said;
  try {
    CVmImage(store, 1024, 256 * 1024, 1, 1, nullptr);
  } catch (const velora::CVmMemoryAllocationError& error) {
    said = error.what();
  }
  setrlimit(RLIMIT_AS, &before);
  EXPECT_NE(said.find(" in " + SwapDirectory({}).string() + " ("), std::string::npos) << said;
}

TEST(Memory, IsHalvedOnceMoreForADirectoryInMemory) {
  if (!IsInMemory("/dev/shm") || IsInMemory("/proc")) GTEST_SKIP() << "/dev/shm is no memory here";
  EXPECT_EQ(DefaultBudget({.swapDirectory = "/proc"}), UsableMemory() / 2);
  EXPECT_EQ(DefaultBudget({.swapDirectory = "/dev/shm"}), UsableMemory() / 4);
  EXPECT_EQ(DefaultBudget({.swapDirectory = "/nonexistent"}), UsableMemory() / 2);

  // Temporary files there may take a half of it, together.
  const auto store = CreateContiguousManager({.budget = 1, .swapDirectory = "/dev/shm"});
  const CVmImage some(store, 1024, 1024, 1, 1, nullptr);
  const test::WithFileLimit limit(2 * kMiB);  // nothing big is made if all goes wrong
  std::string said;
  try {
    CVmImage(store, 1024, UsableMemory() / 2048, 1, 1, nullptr);
  } catch (const velora::CVmMemoryAllocationError& error) {
    said = error.what();
  }
  EXPECT_NE(said.find("half of the memory"), std::string::npos) << said;
  EXPECT_NE(said.find("available " + std::to_string((UsableMemory() / 2 - kMiB) / kMiB) + " MiB"),
            std::string::npos)
      << said;
}

}  // namespace
