// Temporary files without a name, for what memory does not hold. Internal.
#pragma once

#include <filesystem>
#include <string>

namespace korimg {

/// A temporary file of a fixed size whose space is reserved when it is made, so that a full disk is an error
/// here and never one at a later write. It vanishes with the process, however that ends.
///
/// Where the file system does not reserve (network, user space), zeros are written once. Where it writes each
/// change to a new place, no reservation holds: writing may fail later, and files to be mapped are refused,
/// since there that would be a signal.
class SwapFile {
 public:
  enum Use { Written, Mapped };

  /// An empty directory is the system's. Throws velora::CVmMemoryAllocationError with the directory, the
  /// bytes needed and the bytes there.
  SwapFile(const std::filesystem::path& directory, long long bytes, Use use);
  ~SwapFile();
  SwapFile(const SwapFile&) = delete;
  SwapFile& operator=(const SwapFile&) = delete;

  int Descriptor() const { return descriptor_; }

  /// Reads or writes a range. Throws velora::CVmManagerException.
  void Read(void* to, long long bytes, long long offset) const;
  void Write(const void* from, long long bytes, long long offset);

 private:
  explicit SwapFile(std::filesystem::path directory) : directory_(std::move(directory)) {}

  void CountMemory(long long bytes);
  void Reserve(long long bytes, Use use);
  void WriteZeros(long long bytes);
  [[noreturn]] void Fail(long long bytes, const std::string& reason) const;
  std::string Available() const;

  std::filesystem::path directory_;
  int descriptor_ = -1;
  long long bytesInMemory_ = 0;  ///< what it takes of memory, when the directory does
};

}  // namespace korimg
