#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "korimg/platform/Debug.h"

#include "tests/support/Images.h"
#include "tests/support/Process.h"

using namespace korimg;
using namespace korimg::test;

/// What kind of file system temporary files are told to be on; 0: what they are on.
static long g_file_system = 0;

/// Stands before the system's own.
extern "C" int fstatfs(int descriptor, struct statfs* system) noexcept {
  const auto status = static_cast<int>(syscall(SYS_fstatfs, descriptor, system));
  if (status == 0 && g_file_system != 0) system->f_type = g_file_system;
  return status;
}

namespace {

/// A pool of `blocks` blocks of four lines each of 16 pixels.
std::shared_ptr<CVmManager> Pool(int blocks) {
  return CreatePagedManager({.budget = blocks * 256LL, .blockSize = 256});
}

CVmImage Image16(const std::shared_ptr<CVmManager>& store, int height, int planes) {
  return CVmImage(store, 16, height, planes, 4, nullptr);
}

float& At(CVmImage& image, int x, int y, int plane, bool readOnly) {
  return *reinterpret_cast<float*>(image.GetImageAdr(x, y, plane, readOnly, false, nullptr));
}

std::string MessageOf(const std::function<void()>& allocate) {
  try {
    allocate();
  } catch (const velora::CVmMemoryAllocationError& error) {
    return error.what();
  }
  return "no error";
}

/// Runs a case in a process of its own, whose only disk for temporary files is what `mount` mounts on the
/// directory $D: "" when all is well, else what the case says, or "skip" where the system allows no mounting.
std::string OnDisk(const std::string& mount,
                   const std::function<std::string(const std::filesystem::path&)>& run) {
  if (kThreadSanitized) return "skip";  // a process that has forked may start no threads
  std::string directory = std::filesystem::temp_directory_path() / "korimg-disk-XXXXXX";
  if (!mkdtemp(directory.data())) return "no directory";
  int ends[2];
  if (pipe(ends) != 0) return "no pipe";
  const pid_t child = fork();
  if (child == 0) {
    std::string said = "skip";
    setenv("D", directory.c_str(), 1);
    if (unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        std::system(mount.c_str()) == 0) {
      try {
        said = run(directory);
      } catch (const std::exception& error) {
        said = error.what();
      }
    }
    [[maybe_unused]] const ssize_t written = write(ends[1], said.data(), said.size());
    _exit(0);
  }
  close(ends[1]);
  std::string said(4096, ' ');
  said.resize(std::max<ssize_t>(read(ends[0], said.data(), said.size()), 0));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  std::filesystem::remove_all(directory);
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : said;
}
/// What makes a file system in a file and mounts it.
std::string LoopDisk(const std::string& size, const std::string& make) {
  return "truncate -s " + size + " \"$D.disk\" && " + make + " \"$D.disk\" > /dev/null 2>&1 && " +
         "mount -o loop \"$D.disk\" \"$D\"; done=$?; rm \"$D.disk\"; exit $done";
}
constexpr const char* kFiveMiB = "mount -t tmpfs -o size=5m none \"$D\"";

TEST(Store, Shape) {
  const auto pool = Pool(4);
  CVmImage image = Image16(pool, 10, 3);
  EXPECT_EQ(image.GetLinesPerBlock(), 4);
  EXPECT_EQ(image.GetTotalLines(), 30);
  EXPECT_EQ(image.GetBlockCount(), 8);
  EXPECT_EQ(image.GetBlockLineCount(0), 4);
  EXPECT_EQ(image.GetBlockLineCount(7), 2);
  EXPECT_EQ(image.GetBlockShape(), std::tuple(4, 16));
  EXPECT_EQ(image.GetAllocationPolicy(), 0);

  const auto memory = MemoryStore();
  CVmImage planes = Image16(memory, 10, 3);
  EXPECT_EQ(planes.GetBlockCount(), 3);
  EXPECT_EQ(planes.GetAllocationPolicy(), 1);
  EXPECT_EQ(planes.GetBlockOnMemory(2, true) + (5 * 16 + 3) * 4,
            planes.GetImageAdr(3, 5, 2, true, false, nullptr));
}

TEST(Store, StartsAtZeroAndKeepsWhatIsWritten) {
  for (const StoreCase& store : Stores()) {
    const auto manager = store.make();
    for (int round = 0; round < 2; ++round) {  // the second image may get memory of the first
      CVelImage image(manager, CImage::Float, 101, 203, 3, 1, 0, 1, nullptr);
      CVelImage created;
      created.Create(image, nullptr);
      for (int p = 0; p < 3; ++p) {
        for (int y = 202; y >= 0; --y) {
          ASSERT_EQ(created.GetPixelGrayRaw(100, y, p), 0.0f) << store.name;
        }
      }
      Paint(image, Random(0, 1));
      Paint(created, Random(1, 2, 5));
      EXPECT_EQ(Difference(
                    image, [](int p, int x, int y) { return static_cast<float>(Random(0, 1)(p, x, y)); }, 0),
                "");
      EXPECT_EQ(image.IsOnMemory(), store.name == "memory") << store.name;
      CVelImage copy(image, nullptr);
      EXPECT_EQ(Difference(copy, image), "") << store.name;
    }
  }
}

TEST(Store, LockedBlocksStayAndThePoolGrowsRatherThanDeadlock) {
  const auto pool = Pool(4);
  CVmImage early = Image16(pool, 8, 1);  // fits, and has to leave all the same
  At(early, 0, 5, 0, false) = 3;
  CVmImage image = Image16(pool, 400, 1);
  std::vector<CVmImage::AddressHandle> locks(50);
  std::vector<float*> lines;
  for (int i = 0; i < 50; ++i) {
    lines.push_back(reinterpret_cast<float*>(image.GetImageAdr(0, 4 * i, 0, false, true, &locks[i])));
    *lines.back() = static_cast<float>(i);
  }
  for (int y = 200; y < 400; ++y) {
    At(image, 3, y, 0, false) = 7;
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(*lines[i], i);
    *lines[i] += 0.5f;
  }
  // Counted: a block locked twice outlives the first unlock.
  CVmImage::AddressHandle again;
  image.GetImageAdr(0, 0, 0, true, true, &again);
  for (const auto& lock : locks) {
    EXPECT_TRUE(image.Unlock(lock));
  }
  for (int y = 8; y < 400; ++y) {
    At(image, 0, y, 0, true);
  }
  EXPECT_EQ(*lines[0], 0.5f);
  EXPECT_TRUE(image.Unlock(again));
  EXPECT_FALSE(image.Unlock(again)) << "nothing is locked any more";
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(At(image, 0, 4 * i, 0, true), i + 0.5f);
  }
  image.GetImageAdr(0, 0, 0, false, true, nullptr);
  image.UnlockAll();
  EXPECT_FALSE(image.Unlock({0}));
  At(image, 0, 399, 0, true);
  int resident = 0;
  for (int i = 0; i < 100; ++i) {
    resident += image.GetVmHandle()->GetType(i) == CVmBlock::Memory;
  }
  EXPECT_LE(resident, 4 + 8) << "what nobody holds any more has left";
  EXPECT_EQ(At(early, 0, 5, 0, true), 3);
}

TEST(Store, AddressesHoldForTheNextFewAccesses) {
  // A colour source, a dark, a flat and a colour target: eight lines of different blocks at once.
  const auto pool = Pool(1);
  CVmImage image = Image16(pool, 400, 1);
  for (int round = 0; round < 40; ++round) {
    float* lines[8];
    for (int i = 0; i < 8; ++i) {
      lines[i] = &At(image, 0, (round + 4 * i * 11) % 400, 0, false);
    }
    for (int i = 0; i < 8; ++i) {
      *lines[i] = static_cast<float>(100 * round + i);
    }
    for (int i = 0; i < 8; ++i) {
      ASSERT_EQ(At(image, 0, (round + 4 * i * 11) % 400, 0, true), 100 * round + i);
    }
  }
  // A block that is asked for again is the latest again.
  float& kept = At(image, 0, 0, 0, false);
  for (int i = 1; i < 14; ++i) {
    if (i == 7) At(image, 1, 0, 0, true);
    At(image, 0, 4 * i, 0, true);
  }
  kept = -7;
  for (int i = 0; i < 15; ++i) {
    At(image, 0, 200 + 4 * i, 0, true);
  }
  EXPECT_EQ(At(image, 0, 0, 0, true), -7);
}

TEST(Store, ServesManyThreads) {
  for (const int blocks : {1, 4, 1000}) {
    const auto pool = Pool(blocks);
    CVmImage image = Image16(pool, 512, 2), other = Image16(pool, 512, 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int round = 0; round < 20; ++round) {
          for (int y = t; y < 512; y += 8) {
            // The neighbouring lines of the block belong to other threads.
            float* line = &At(image, 0, y, round % 2, false);
            At(other, t, y, 0, false) += 1;
            for (int x = 0; x < 16; ++x) {
              line[x] += static_cast<float>(x + y);
            }
          }
          CVmImage::AddressHandle lock;
          auto* kept = reinterpret_cast<float*>(image.GetImageAdr(0, 8 * round + t, 0, true, true, &lock));
          EXPECT_GE(kept[15], 0);
          image.Unlock(lock);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    for (int y = 0; y < 512; ++y) {
      ASSERT_EQ(At(image, 5, y, 0, true), 10 * (5 + y));
      ASSERT_EQ(At(image, 5, y, 1, true), 10 * (5 + y));
      ASSERT_EQ(At(other, y % 8, y, 0, true), 20);
    }
  }
}

TEST(Store, ServesThreadsAtRandomWhileOthersFree) {
  constexpr int kThreads = 6, kHeight = 600;
  const auto pool = Pool(3);
  CVmImage images[] = {Image16(pool, kHeight, 1), Image16(pool, kHeight, 1)};
  std::atomic<int> wrong = 0;
  const auto work = [&](int t) {
    // Each line has an owner who knows what it holds; the other lines of its block have other owners.
    std::vector<float> truth[] = {std::vector<float>(kHeight), std::vector<float>(kHeight)};
    std::unique_ptr<CVmImage> own;
    for (int round = 0; round < 3000; ++round) {
      int n = 0;
      const auto next = [&](int sides) {
        return static_cast<int>(sides * Noise(1000000ULL * t + 10ULL * round + n++));
      };
      const int which = next(2), y = next(kHeight / kThreads) * kThreads + t;
      CVmImage& image = images[which];
      float& value = truth[which][y];
      switch (next(8)) {
        case 0: {
          CVmImage::AddressHandle lock;
          auto* line = reinterpret_cast<float*>(image.GetImageAdr(0, y, 0, false, true, &lock));
          for (int i = 0; i < 12; ++i) {
            At(images[1 - which], 0, (y + 7 * i) % kHeight, 0, true);  // pushes out what is not locked
          }
          wrong += line[15] != value;
          line[15] = value = static_cast<float>(round);
          image.Unlock(lock);
          break;
        }
        case 1:
          if (own) {
            wrong += At(*own, 3, 17, 0, true) != 5 || At(*own, 3, 30, 0, true) != 0;
            own.reset();
          } else {
            own = std::make_unique<CVmImage>(pool, 16, 40, 1, 4, nullptr);
            At(*own, 3, 17, 0, false) = 5;
          }
          break;
        case 2:
        case 3:
        case 4: {
          float* line = &At(image, 0, y, 0, false);
          wrong += line[15] != value;
          line[15] = value = static_cast<float>(round);
          break;
        }
        default:
          wrong += At(image, 15, y, 0, true) != value;
      }
      if (round % 500 == 0) wrong += pool->IsUntouched(image.GetVmHandle(), y / 4) && value != 0;
    }
    for (int which : {0, 1}) {
      for (int y = t; y < kHeight; y += kThreads) {
        wrong += At(images[which], 15, y, 0, true) != truth[which][y];
      }
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(work, t);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(Store, WhatCantBeWrittenOutStays) {
  const auto pool = Pool(2);
  CVmImage image = Image16(pool, 400, 1);
  const auto write = [&](int from, int to, int by) {
    for (int y = from; y < to; ++y) {
      At(image, 5, y, 0, false) = static_cast<float>(y + by);
    }
  };
  const auto check = [&](int by) {
    for (int y = 0; y < 400; ++y) {
      ASSERT_EQ(At(image, 5, y, 0, true), y + by) << y;
    }
  };
  write(0, 400, 0);
  std::vector<std::string> said;
  SetDebugSink([&](const std::wstring& line) { said.push_back(Narrow(line)); });
  {
    const WithFileLimit limit(256 * 40);  // the first forty blocks can be written, the others can't
    write(0, 400, 1000);
    check(1000);
    EXPECT_FALSE(said.empty());
  }
  said.clear();
  write(0, 400, 2000);
  check(2000);
  EXPECT_EQ(said, std::vector<std::string>()) << "the disk is well again";
  SetDebugSink(nullptr);
}

TEST(Store, FreedImagesLeaveNothingBehind) {
  // An idle thread still holds blocks of the freed image.
  const auto run = [](const std::filesystem::path& disk) -> std::string {
    const auto pool = CreatePagedManager({.budget = 1 << 20, .blockSize = 1 << 18, .swapDirectory = disk});
    auto first = std::make_unique<CVmImage>(pool, 1024, 1024, 1, 4, nullptr);
    const std::shared_ptr<CVmHandle> handle = first->GetVmHandle();
    std::latch filled(1), freed(1);
    std::string said;
    std::thread idle([&] {
      for (int y = 0; y < 1024; ++y) {
        At(*first, 0, y, 0, false) = 1;
      }
      filled.count_down();
      freed.wait();
      try {
        pool->GetBlock(handle, 15, true);
        said += "a block of a freed image was served; ";
      } catch (const velora::CVmManagerException&) {
      }
      CVmImage small(pool, 1024, 64, 1, 4, nullptr);
      for (int y = 0; y < 64; ++y) {
        if (At(small, 0, y, 0, true) != 0) said += "not zero; ";
      }
    });
    filled.wait();
    first.reset();
    CVmImage second(pool, 1024, 1024, 1, 4, nullptr);
    for (int y = 0; y < 1024; ++y) {
      At(second, 0, y, 0, false) = static_cast<float>(y);
    }
    freed.count_down();
    idle.join();
    for (int y = 0; y < 1024; ++y) {
      if (At(second, 0, y, 0, true) != y) said += "lost; ";
    }
    return said;
  };
  EXPECT_EQ(run(std::filesystem::temp_directory_path()), "");
  const std::string said = OnDisk(kFiveMiB, run);
  if (said == "skip") GTEST_SKIP() << "no disk can be mounted here";
  EXPECT_EQ(said, "");
}

TEST(Store, SpaceIsReservedOnDisksOfEveryKind) {
  // The second one has no call to reserve space.
  for (const std::string& mount : {std::string(kFiveMiB), LoopDisk("5M", "mkfs.ext2 -q -F")}) {
    const std::string said = OnDisk(mount, [](const std::filesystem::path& disk) -> std::string {
      for (const auto& make : {CreateContiguousManager, CreatePagedManager}) {
        const auto manager = make({.budget = 1, .swapDirectory = disk});
        const std::string message = MessageOf([&] { CVmImage(manager, 1024, 2048, 1, 4, nullptr); });
        if (message.find("available 4 MiB") == std::string::npos &&
            message.find("available 5 MiB") == std::string::npos)
          return message;
        CVmImage fits(manager, 1024, 1000, 1, 4, nullptr);
        for (int y = 0; y < 1000; ++y) {
          At(fits, 1023, y, 0, false) = static_cast<float>(y);
        }
        for (int y = 0; y < 1000; ++y) {
          if (At(fits, 1023, y, 0, true) != y) return "lost";
        }
      }
      return "";
    });
    if (said == "skip") GTEST_SKIP() << "cannot be run here: " << mount;
    EXPECT_EQ(said, "") << mount;
  }
}

TEST(Store, MappedPlanesAreRefusedWhereChangesTakeNewSpace) {
  const std::string said =
      OnDisk(LoopDisk("128M", "mkfs.btrfs"), [](const std::filesystem::path& disk) -> std::string {
        const auto contiguous = CreateContiguousManager({.budget = 1, .swapDirectory = disk});
        const std::string message = MessageOf([&] { CVmImage(contiguous, 1024, 100, 1, 4, nullptr); });
        if (message.find("a paged store can use it") == std::string::npos) return message;
        const auto pool = CreatePagedManager({.budget = 1, .swapDirectory = disk});
        CVmImage image(pool, 1024, 5000, 1, 4, nullptr);
        for (int y = 0; y < 5000; ++y) {
          At(image, 7, y, 0, false) = static_cast<float>(y);
        }
        for (int y = 0; y < 5000; ++y) {
          if (At(image, 7, y, 0, true) != y) return "lost";
        }
        return "";
      });
  if (said == "skip") GTEST_SKIP() << "no such disk can be mounted here";
  EXPECT_EQ(said, "");
}

TEST(Store, FilesAreFilledWhereAReservationIsNotKnownToBeKept) {
  if (!std::filesystem::exists("/proc/self/io")) GTEST_SKIP() << "the system does not count what is written";
  constexpr long kNobodys = 0x1234567;
  const auto written = [] {
    std::ifstream counts("/proc/self/io");
    std::string name;
    long long count = 0;
    while (counts >> name >> count && name != "wchar:") {
    }
    return count;
  };
  std::FILE* probe = std::tmpfile();
  const bool reserves = fallocate(fileno(probe), 0, 0, 4096) == 0;
  std::fclose(probe);
  for (const auto& [system, isFilled] :
       {std::pair(kNobodys, true), {NFS_SUPER_MAGIC, true}, {EXT4_SUPER_MAGIC, !reserves}}) {
    g_file_system = system;
    const long long before = written();
    const CVmImage image(CreateContiguousManager({.budget = 1}), 1024, 1000, 1, 4, nullptr);
    EXPECT_EQ(written() - before >= 1024 * 1000 * 4, isFilled) << system;
  }
  g_file_system = BTRFS_SUPER_MAGIC;
  const std::string message =
      MessageOf([] { CVmImage(CreateContiguousManager({.budget = 1}), 1024, 100, 1, 4, nullptr); });
  g_file_system = 0;
  EXPECT_NE(message.find("a paged store can use it"), std::string::npos) << message;
}

TEST(Store, ATemporaryDirectoryIsNeededForTemporaryFilesOnly) {
  const char* before = std::getenv("TMPDIR");
  const std::string kept = before ? before : "";
  setenv("TMPDIR", "/nonexistent/tmp", 1);
  for (const auto& make : {CreateContiguousManager, CreatePagedManager}) {
    const auto manager = make({.budget = 4 << 20, .blockSize = 1 << 16});
    for (int round = 0; round < 5; ++round) {  // what was freed is room again
      CVmImage image(manager, 1000, 1000, 1, 4, nullptr);
      for (int y = 0; y < 1000; ++y) {
        At(image, y, y, 0, false) = 7;
      }
      EXPECT_EQ(At(image, 99, 99, 0, true), 7);
      EXPECT_TRUE(image.IsOnMemory());
    }
    const std::string message = MessageOf([&] { CVmImage(manager, 1024, 1024, 2, 4, nullptr); });
    EXPECT_NE(message.find("/nonexistent/tmp"), std::string::npos) << message;
    EXPECT_NE(message.find("TMPDIR"), std::string::npos) << message;
  }
  before ? setenv("TMPDIR", kept.c_str(), 1) : unsetenv("TMPDIR");
}

TEST(Store, RefusesSizesThatCantBe) {
  std::vector<StoreCase> stores = Stores();
  stores.push_back({"endless", [] { return CreateContiguousManager({.budget = LLONG_MAX}); }});
  for (const StoreCase& store : stores) {
    const auto manager = store.make();
    for (const auto& [width, height, planes] :
         {std::tuple(0LL, 5LL, 1LL), std::tuple(5LL, -1LL, 1LL), std::tuple(5LL, 5LL, 0LL),
          std::tuple(1LL << 31, 1LL << 31, 3LL), std::tuple(1LL << 62, 2LL, 1LL)}) {
      EXPECT_THROW(CVmImage(manager, width, height, planes, 4, nullptr), velora::CVmMemoryAllocationError);
    }
    // Just below the most that an image can have, and in lines of any length: true figures.
    for (const long long width : {1LL, 3LL, 1LL << 20, 1LL << 61}) {
      const long long height = LLONG_MAX / 2 / width, bytes = width * height;
      const std::string message = MessageOf([&] { CVmImage(manager, width, height, 1, 1, nullptr); });
      const auto says = [&](long long mebibytes) {
        return message.find("needed " + std::to_string(mebibytes) + " MiB") != std::string::npos;
      };
      EXPECT_TRUE(says(bytes >> 20) || says((bytes >> 20) + 1)) << store.name << ": " << message;
      EXPECT_NE(MessageOf([&] {
                  CVmImage(manager, width, height + 1, 1, 1, nullptr);
                }).find("no image can have the size " + std::to_string(width)),
                std::string::npos);
    }
    CVelImage image(manager, CImage::Float, 20, 20, 1, 1, 0, 1, nullptr);
    Paint(image, Random(0, 1));
    EXPECT_FALSE(image.ChangeSize(-3, 20, nullptr));
    EXPECT_FALSE(image.ChangeSize(2147483647, 2147483647, nullptr));
    EXPECT_FALSE(image.ChangePlanes(2147483647, nullptr));
    EXPECT_EQ(image.GetWidth(), 20);
    EXPECT_EQ(Difference(
                  image, [](int p, int x, int y) { return static_cast<float>(Random(0, 1)(p, x, y)); }, 0),
              "");
  }
}

TEST(Store, SaysWhereThereIsNoRoomAndHowMuchIsThere) {
  const auto file = std::filesystem::temp_directory_path() / "korimg-not-a-directory";
  std::ofstream(file) << "x";
  for (const std::filesystem::path& directory : {std::filesystem::path("/nonexistent/swap ß"), file}) {
    const StoreOptions options{.budget = 1, .swapDirectory = directory};
    for (const auto& manager : {CreateContiguousManager(options), CreatePagedManager(options)}) {
      const std::string message = MessageOf([&] { CVmImage(manager, 1024, 1024, 3, 4, nullptr); });
      EXPECT_NE(message.find(directory.string()), std::string::npos) << message;
      EXPECT_NE(message.find("needed"), std::string::npos) << message;
      EXPECT_NE(message.find("available"), std::string::npos) << message;
    }
  }
  std::filesystem::remove(file);
}

TEST(Store, AFullDiskIsAnErrorAndLosesNothing) {
  // A limit of file sizes stands for the disk.
  std::vector<std::string> lines;
  SetDebugSink([&](const std::wstring& line) {
    if (line.find(L"needed") != std::wstring::npos) lines.push_back(Narrow(line));
  });
  for (const auto& manager :
       {CreateContiguousManager({.budget = 1}), CreatePagedManager({.budget = 300000})}) {
    CVelImage image(manager, CImage::Float, 256, 256, 1, 1, 0, 1, nullptr);
    Paint(image, Random(0, 1));
    {
      const WithFileLimit small(1 << 20);
      EXPECT_FALSE(image.ChangeSize(2000, 2000, nullptr));
      EXPECT_THROW(CVelImage(manager, CImage::Float, 2000, 2000, 3, 1, 0, 1, nullptr),
                   velora::CVmMemoryAllocationError);
    }
    {
      const WithFileLimit tiny(100000);
      CVelImage copy;
      EXPECT_EQ(copy.CopyImage(image, nullptr, nullptr), 0);
      EXPECT_TRUE(copy.IsEmpty());
      EXPECT_EQ(image.CloneWithoutImage(nullptr), nullptr);
    }
    EXPECT_EQ(Difference(
                  image, [](int p, int x, int y) { return static_cast<float>(Random(0, 1)(p, x, y)); }, 0),
              "");
    EXPECT_TRUE(image.ChangeSize(2000, 2000, nullptr)) << "there is room again";
  }
  SetDebugSink(nullptr);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_NE(lines[0].find("needed 15 MiB"), std::string::npos) << lines[0];
}

TEST(Store, EveryImageHasItsOwnRoomOnceTheyExceedTheBudget) {
  const auto manager = CreatePagedManager({.budget = 1 << 20});
  const CVelImage large(manager, CImage::Float, 480, 480, 1, 1, 0, 1, nullptr);
  const auto make = [&] { CVelImage(manager, CImage::Float, 200, 200, 1, 1, 0, 1, nullptr); };
  {
    const WithFileLimit limit(600000);  // enough for the small image only
    EXPECT_THROW(make(), velora::CVmMemoryAllocationError);
  }
  EXPECT_NO_THROW(make());
}

TEST(Store, AManagerThatHasGoneIsAnException) {
  for (const StoreCase& store : Stores()) {
    auto manager = store.make();
    CVelImage image(manager, CImage::Float, 20, 20, 1, 1, 0, 1, nullptr);
    EXPECT_TRUE(image.GetVmImage()->GetVmHandle()->Deleted());
    manager.reset();
    EXPECT_FALSE(image.GetVmImage()->GetVmHandle()->Deleted());
    EXPECT_EQ(image.VmManager(), nullptr);
    EXPECT_THROW(image.GetBlockOnMemory(0, true), velora::CVmManagerHandleDeletedError);
    EXPECT_THROW(image.GetPixelGrayRaw(1, 1, 0), velora::CVmManagerHandleDeletedError);
  }
}

TEST(Store, FreedPlanesAreUsedAgain) {
  const auto manager = MemoryStore();
  auto first = std::make_unique<CVmImage>(manager, 2000, 1000, 1, 4, nullptr);
  const unsigned char* address = first->GetBlockOnMemory(0, false);
  first.reset();
  const CVmImage second(manager, 1000, 2000, 1, 4, nullptr);
  EXPECT_EQ(const_cast<CVmImage&>(second).GetBlockOnMemory(0, true), address);
}

TEST(Store, HandlesAndRecordsAreValues) {
  const auto manager = MemoryStore();
  CVmHandle handle(512, 2, manager);
  handle.Set(1, CVmBlock::File, 77);
  const CVmHandle copy = handle;
  handle.Set(1, CVmBlock::Memory, 5);
  EXPECT_EQ(copy.GetType(1), CVmBlock::File);
  EXPECT_EQ(copy.GetSlotIndex(1), 77);
  EXPECT_EQ(copy.GetSlotIndex(0), -1);
  EXPECT_EQ(copy.VmManager(), manager);
}

}  // namespace
