// Files that appear in a folder while it is watched.
#include "session/live/FolderWatch.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class FolderWatchTest : public files::FolderTest {
 protected:
  FolderWatchTest() { fs::create_directory(In("night")); }

  /// The bytes of a FITS file of 64 x 48 pixels.
  std::string Fits() {
    const fs::path path = In("made.fits");
    files::Planes pixels(1, std::vector<float>(64 * 48, 7));
    const auto writer =
        files::ImageWriter::Create(path, {.width = 64, .height = 48, .type = "uint16", .overwrite = true});
    files::WriteAll(*writer, pixels, 64, 48, 16);
    return files::ReadBytes(path);
  }

  fs::path Night(const std::string& name) const { return In("night") / name; }
  void Put(const std::string& name, const std::string& bytes, std::chrono::minutes age = 0min) {
    fs::create_directories(Night(name).parent_path());
    files::WriteBytes(Night(name), bytes);
    if (age > 0min) fs::last_write_time(Night(name), fs::file_time_type::clock::now() - age);
  }

  /// Names of what is told of, until there are so many or long enough has passed.
  std::vector<std::string> Told(FolderWatch& watch, size_t count, std::chrono::milliseconds most = 20s) {
    std::vector<std::string> names;
    const auto end = std::chrono::steady_clock::now() + most;
    while (names.size() < count && std::chrono::steady_clock::now() < end) {
      for (const fs::path& path : watch.Next(100ms)) {
        names.push_back(path.lexically_relative(In("night")).string());
      }
    }
    return names;
  }

  Job job_;
};

using Strings = std::vector<std::string>;

TEST_F(FolderWatchTest, WhatIsThereComesByItsTime) {
  const std::string fits = Fits();
  Put("b.fits", fits, 30min);
  Put("z.FIT", fits, 50min);
  Put("inside/deep/c.fits", fits, 40min);
  Put("Lights/a.fits.gz", "no packed file", 20min);
  Put("cut.fits", fits.substr(0, 4000), 10min);
  for (const char* other : {".hidden.fits", "d.fits.part", "e.fits.tmp", "notes.txt", "darks/f.fits",
                            "Flat Frames/g.fits", "out/report.html", "out/stack.fits", ".thumbs/h.fits"}) {
    Put(other, fits, 30min);
  }
  fs::create_directory_symlink(In("night"), Night("inside/loop"));
  fs::create_symlink(In("nowhere"), Night("dead.fits"));
  FolderWatch watch(job_, {.folder = In("night")});
  Strings names;
  for (const fs::path& path : watch.Next(0ms)) {
    names.push_back(path.lexically_relative(In("night")).string());
  }
  EXPECT_EQ(names, (Strings{"z.FIT", "inside/deep/c.fits", "b.fits", "Lights/a.fits.gz", "cut.fits"}));
  EXPECT_TRUE(watch.Next(0ms).empty());
}

TEST_F(FolderWatchTest, FilesAreToldOfOnceWhenTheyAreComplete) {
  const std::string fits = Fits();
  const size_t half = fits.size() / 2;
  const auto append = [&](const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
  };
  const auto rest = [] { std::this_thread::sleep_for(250ms); };
  struct Case {
    const char* name;
    bool notifications;
    std::chrono::milliseconds interval;  ///< an hour: nobody would wait for it
    std::function<void(const fs::path&)> write;
  } cases[] = {
      {"closed between its pieces", true, 1h,
       [&](const fs::path& path) {
         append(path, "");
         rest();
         append(path, fits.substr(0, half));
         rest();
         append(path, fits.substr(half));
       }},
      {"the same without notifications", false, 60ms,
       [&](const fs::path& path) {
         append(path, "");
         rest();
         append(path, fits.substr(0, half));
         rest();
         append(path, fits.substr(half));
       }},
      {"of its full size from the start, and held open", true, 1h,
       [&](const fs::path& path) {
         const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0666);
         EXPECT_EQ(ftruncate(file, static_cast<off_t>(fits.size())), 0);
         EXPECT_EQ(pwrite(file, fits.data(), half, 0), static_cast<ssize_t>(half));
         rest();
         EXPECT_EQ(pwrite(file, fits.data() + half, fits.size() - half, static_cast<off_t>(half)),
                   static_cast<ssize_t>(fits.size() - half));
         close(file);
       }},
      {"of its full size from the start, without notifications", false, 1s,
       [&](const fs::path& path) {
         const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0666);
         EXPECT_EQ(ftruncate(file, static_cast<off_t>(fits.size())), 0);
         for (size_t at = 0; at < fits.size(); at += 500) {
           EXPECT_GT(pwrite(file, fits.data() + at, std::min<size_t>(500, fits.size() - at),
                            static_cast<off_t>(at)),
                     0);
           std::this_thread::sleep_for(100ms);
         }
         close(file);
       }},
      {"given its name at the end", true, 1h,
       [&](const fs::path& path) {
         append(path.string() + ".part", fits);
         rest();
         fs::rename(path.string() + ".part", path);
       }},
      {"the same without notifications", false, 60ms,
       [&](const fs::path& path) {
         append(path.string() + ".part", fits);
         rest();
         fs::rename(path.string() + ".part", path);
       }},
      {"a link", true, 60ms, [&](const fs::path& path) { fs::create_hard_link(In("made.fits"), path); }},
      {"in a new folder", true, 60ms,
       [&](const fs::path& path) {
         fs::create_directory(Night("new"));
         append(Night("new") / path.filename(), fits);
       }},
  };
  for (const auto& [name, notifications, interval, write] : cases) {
    SCOPED_TRACE(name);
    fs::remove_all(In("night"));
    fs::create_directory(In("night"));
    FolderWatch watch(job_, {.folder = In("night"), .interval = interval, .notifications = notifications});
    EXPECT_TRUE(watch.Next(0ms).empty());
    std::thread writer([&, &write = write] { write(Night("x.fits")); });
    Strings names;
    std::string bytes;
    while (names.empty()) {
      for (const fs::path& path : watch.Next(10s)) {
        names.push_back(path.filename().string());
        bytes = files::ReadBytes(path);
      }
    }
    writer.join();
    EXPECT_EQ(names, Strings{"x.fits"});
    EXPECT_EQ(bytes, fits);
    EXPECT_TRUE(watch.Next(200ms).empty());
  }
}

TEST_F(FolderWatchTest, WhatEndsTooEarlyIsWaitedForAMinute) {
  const std::string fits = Fits();
  FolderWatch watch(job_, {.folder = In("night"), .interval = 30ms});
  Put("x.fits", fits.substr(0, 4000));
  Put("y.fits", fits);
  EXPECT_EQ(Told(watch, 2, 500ms), Strings{"y.fits"});
  fs::last_write_time(Night("x.fits"), fs::file_time_type::clock::now() - 2min);
  EXPECT_EQ(Told(watch, 1), Strings{"x.fits"});
}

TEST_F(FolderWatchTest, WhatIsWrittenAnewComesAgain) {
  const std::string fits = Fits();
  for (const bool notifications : {true, false}) {
    SCOPED_TRACE(notifications);
    FolderWatch watch(job_, {.folder = In("night"), .interval = 40ms, .notifications = notifications});
    Put("x.fits", std::string(fits.size(), 0));  // its room before its pixels
    EXPECT_EQ(Told(watch, 1), Strings{"x.fits"});
    Put("x.fits", fits);
    EXPECT_EQ(Told(watch, 1), Strings{"x.fits"});
    EXPECT_EQ(Told(watch, 1, 300ms), Strings{}) << "once";
    fs::remove(Night("x.fits"));
    EXPECT_EQ(Told(watch, 1, 200ms), Strings{});
    Put("x.fits", fits);
    EXPECT_EQ(Told(watch, 1), Strings{"x.fits"});
    // The folder itself, as on a disk that is pulled out and comes back.
    fs::rename(In("night"), In("away"));
    EXPECT_THROW(Told(watch, 1), files::FileError);
    fs::rename(In("away"), In("night"));
    Put("y.fits", fits);
    EXPECT_EQ(Told(watch, 1), Strings{"y.fits"});
    fs::remove(Night("x.fits")), fs::remove(Night("y.fits"));
  }
}

TEST_F(FolderWatchTest, APipeIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(Night("pipe.fits").c_str(), 0600), 0);
  FolderWatch watch(job_, {.folder = In("night"), .interval = 30ms});
  EXPECT_EQ(Told(watch, 1), Strings{"pipe.fits"});
  EXPECT_NE(files::ErrorOf([&] { files::ImageReader::Open(Night("pipe.fits")); }).find("not a regular file"),
            std::string::npos);
}

TEST_F(FolderWatchTest, EndsWithItsFolderAndItsJob) {
  EXPECT_THROW(FolderWatch(job_, {.folder = In("none")}), files::FileError);
  EXPECT_THROW(FolderWatch(job_, {.folder = In("night"), .interval = 0ms}), UsageError);
  FolderWatch watch(job_, {.folder = In("night"), .interval = 50ms});
  EXPECT_TRUE(watch.Next(0ms).empty());
  fs::remove_all(In("night"));
  EXPECT_THROW(watch.Next(10s), files::FileError);

  fs::create_directory(In("night"));
  FolderWatch other(job_, {.folder = In("night"), .interval = 1h});
  EXPECT_TRUE(other.Next(0ms).empty());
  std::thread canceller([&] {
    std::this_thread::sleep_for(100ms);
    job_.options.cancel->Cancel();
  });
  EXPECT_THROW(other.Next(1h), Cancelled);  // a wait of an hour would be noticed
  canceller.join();
}

}  // namespace
}  // namespace korimg::session
