// Temporary files without a name, for what memory does not hold. Internal.
#pragma once

#include <filesystem>

namespace korimg {

/// A temporary file of a fixed size whose space is reserved when it is made, so that a full disk is an error
/// here and never one at a later write. It vanishes with the process, however that ends.
class SwapFile {
 public:
  /// Throws velora::CVmMemoryAllocationError with the directory, the bytes needed and the bytes there.
  SwapFile(const std::filesystem::path& directory, long long bytes);
  ~SwapFile();
  SwapFile(const SwapFile&) = delete;
  SwapFile& operator=(const SwapFile&) = delete;

  int Descriptor() const { return descriptor_; }

  /// Reads or writes a range. Throws velora::CVmManagerException.
  void Read(void* to, long long bytes, long long offset) const;
  void Write(const void* from, long long bytes, long long offset);

 private:
  std::filesystem::path directory_;
  int descriptor_ = -1;
};

/// The directory for swap files: the one given, else the system's temporary directory.
std::filesystem::path SwapDirectory(const std::filesystem::path& wanted);

/// The budget in bytes: the one given, else half of the machine's memory.
long long StoreBudget(long long wanted);

}  // namespace korimg
