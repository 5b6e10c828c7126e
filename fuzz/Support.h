// What the fuzz targets share: a folder in memory, a silent job with small stores, and reading whole images.
#pragma once

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"

#include "session/files/ImageFile.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::fuzz {

/// A promise that was not kept ends the run as a crash does.
inline void Expect(bool kept, const std::string& promise) {
  if (kept) return;
  fmt::print(stderr, "broken promise: {}\n", promise);
  std::abort();
}

/// A folder of this process, in memory where there is such a place, which vanishes at its end.
inline const std::filesystem::path& Folder() {
  struct Made {
    std::filesystem::path path;
    Made() {
      const bool inMemory = access("/dev/shm", W_OK) == 0;
      std::string name =
          (inMemory ? "/dev/shm" : std::filesystem::temp_directory_path()) / "korimg-fuzz-XXXXXX";
      path = mkdtemp(name.data());
      setenv("TMPDIR", path.c_str(), 1);
    }
    ~Made() {
      std::error_code error;
      std::filesystem::remove_all(path, error);
    }
  };
  static const Made made;
  return made.path;
}

inline std::filesystem::path WriteInput(const char* name, const void* data, std::size_t size) {
  const std::filesystem::path path = Folder() / name;
  std::ofstream(path, std::ios::binary)
      .write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  return path;
}

/// One job for all runs, on one thread and with a small budget.
inline session::Job& QuietJob() {
  static session::Job* const job = [] {
    Folder();
    // Recipes may ask for images of any size: those that are no small ones find a full disk.
    constexpr rlim_t kLargest = 8 << 20;
    const rlimit limit{kLargest, kLargest};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN);
    CParallel::SetMaxThreads(1);
    SetPipelineThreads(1);
    return new session::Job({.memory = 4 << 20, .overwrite = true});
  }();
  return *job;
}

/// Whether an input begins as files of its format do; others go to the decoders of camera raw, at a cost.
inline bool Begins(const std::uint8_t* data, std::size_t size,
                   std::initializer_list<std::string_view> starts) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  return std::any_of(starts.begin(), starts.end(),
                     [&](std::string_view start) { return input.starts_with(start); });
}

/// Opens an image and reads it into a store; of a large one a few rows, to and fro. Files may be refused, by
/// one line.
inline void ReadImage(const std::filesystem::path& path, const files::ReadOptions& options = {}) {
  constexpr std::int64_t kSmall = 1 << 18;  // pixels
  static const auto store = QuietJob().MakeStore();
  try {
    const auto reader = files::ImageReader::Open(path, options);
    const files::ImageInfo& info = reader->Info();
    if (std::int64_t{info.width} * info.height * info.planes <= kSmall) {
      session::Image::Open(QuietJob(), store, path, options);
      return;
    }
    BandBuffer row;
    for (const int y : {0, info.height - 1, info.height / 2}) {
      reader->ReadRows(row.Get(info.planes, info.width, y, 1));
    }
  } catch (const files::FileError& error) {
    const std::string text = error.what();
    Expect(text.find('\n') == text.npos && text.starts_with(path.string() + ": "),
           "one line that begins with the path: " + text);
    Expect(text.find("without the program") == text.npos, "what reads it is there: " + text);
  }
}

}  // namespace korimg::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
