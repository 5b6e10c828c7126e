// What the readers and writers of the single formats share.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

std::unique_ptr<ImageReader> OpenFits(const std::filesystem::path& path, const ReadOptions& options);
std::unique_ptr<ImageReader> OpenTiff(const std::filesystem::path& path, const ReadOptions& options);
std::unique_ptr<ImageReader> OpenPng(const std::filesystem::path& path);
std::unique_ptr<ImageReader> OpenRaw(const std::filesystem::path& path, const ReadOptions& options);

std::unique_ptr<ImageWriter> CreateFits(const std::filesystem::path& path, const WriteOptions& options);
std::unique_ptr<ImageWriter> CreateTiff(const std::filesystem::path& path, const WriteOptions& options);
std::unique_ptr<ImageWriter> CreatePng(const std::filesystem::path& path, const WriteOptions& options);
std::unique_ptr<ImageWriter> CreateJpeg(const std::filesystem::path& path, const WriteOptions& options);
/// Makes a picture whose file is added to `bytes`, which must outlive the writer.
std::unique_ptr<ImageWriter> CreateJpeg(std::string& bytes, const WriteOptions& options);

/// Throws a FileError with the text of an errno value.
[[noreturn]] void ThrowSystemError(const std::filesystem::path& path, std::string_view doing, int error);

/// Throws a FileError for a folder that has no room for `needed` more bytes.
[[noreturn]] void ThrowDiskFull(const std::filesystem::path& path, const std::filesystem::path& folder,
                                std::uint64_t needed);

/// Tells whether a file was written to within the last minute. The clocks of cameras and servers may be fast
/// by hours, but not by days.
bool WasJustWritten(const std::filesystem::path& path);

/// Throws for a file that ends too early: an UnfinishedError when it has just been written, else a FileError.
[[noreturn]] void ThrowIncomplete(const std::filesystem::path& path, const std::string& what);

/// Tells one state of a file from another: its size and when it was written last. Throws FileError.
KORIMG_SESSION_API std::string StampOf(const std::filesystem::path& path);

/// Answers the free bytes for us on the file system of a folder; the largest number if that is not known.
std::uint64_t FreeSpace(const std::filesystem::path& folder);

/// @throws FileError unless both sides are 1..kMaxSide.
void CheckSides(const std::filesystem::path& path, std::int64_t width, std::int64_t height);

/// A file descriptor that closes itself.
class FileDescriptor {
 public:
  explicit FileDescriptor(int number = -1) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~FileDescriptor();

  int Get() const { return number_; }

 private:
  int number_;
};

/// Keeps a file open, for reads and writes that are complete or throw. Errors speak of the file `shown`,
/// which the user knows, where `path` is a partial or temporary one.
class File {
 public:
  File(const std::filesystem::path& path, int flags, const std::filesystem::path& shown);
  File(FileDescriptor descriptor, const std::filesystem::path& path, const std::filesystem::path& shown)
      : path_(path), shown_(shown), descriptor_(std::move(descriptor)) {}

  int Descriptor() const { return descriptor_.Get(); }
  std::uint64_t Size() const;
  /// Reads up to `size` bytes, fewer only at the end of the file.
  std::size_t Read(void* data, std::size_t size, std::uint64_t offset) const;
  void Write(const void* data, std::size_t size, std::uint64_t offset) const;

 private:
  std::filesystem::path path_, shown_;
  FileDescriptor descriptor_;
};

/// A file that vanishes with this object, or with RemovePartialFiles(), unless it was renamed.
class KORIMG_SESSION_API TransientFile {
 public:
  explicit TransientFile(const std::filesystem::path& path);
  ~TransientFile();
  TransientFile(const TransientFile&) = delete;
  TransientFile& operator=(const TransientFile&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  void RenameTo(const std::filesystem::path& target);

 private:
  void Forget();

  std::filesystem::path path_;
  int slot_;
};

/// Makes a new empty file for temporary data, without a name; the system's temporary folder holds it.
File TemporaryFile(const std::filesystem::path& shown);

/// Answers "<name>.part" beside a file to be written.
KORIMG_SESSION_API std::filesystem::path PartialName(const std::filesystem::path& path);
/// Answers "<name>.<16 digits>.part", which no other process has, on this machine or another.
std::filesystem::path UniquePartialName(const std::filesystem::path& path);

/// Answers the seconds since 1970 that files are told to be written at: SOURCE_DATE_EPOCH of the environment,
/// so that the same work gives the same bytes, or else now.
std::time_t TimeOfWriting();

/// Headers and data of FITS files take whole blocks of so many bytes.
constexpr std::uint64_t kFitsBlock = 2880;

/// Answers the nearest whole number in the range of T, uint8_t or uint16_t; NaN becomes 0.
template <std::unsigned_integral T>
T RoundTo(float value) {
  static_assert(sizeof(T) <= 2);
  constexpr float kMax = std::numeric_limits<T>::max();
  // In this order of arguments NaN becomes 0.
  const float clamped = std::min(std::max(0.0f, value), kMax);
  const auto whole = static_cast<std::int32_t>(clamped);
  return static_cast<T>(whole + (clamped - static_cast<float>(whole) >= 0.5f));
}

/// Reverses the bytes between the processor's order and the big-endian one of FITS.
template <typename T>
T BigEndian(T value) {
  if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) return value;
  if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(static_cast<std::uint16_t>(value)));
  if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(static_cast<std::uint32_t>(value)));
  if constexpr (sizeof(T) == 8) return static_cast<T>(__builtin_bswap64(static_cast<std::uint64_t>(value)));
}

}  // namespace korimg::files
