#pragma once

#include <filesystem>
#include <memory>

#include "korimg/image/CVmHandle.h"
#include "korimg/image/Exceptions.h"
#include "korimg/platform/Export.h"

/// Decides where the blocks of stores live. All operations are safe from any number of threads, but a store
/// is allocated and freed by one thread at a time. A manager may end before its images, which then throw, but
/// not while a thread asks it.
class KORIMG_API CVmManager : public std::enable_shared_from_this<CVmManager> {
 public:
  enum AllocationPolicy : int {
    Paged = 0,      ///< lines may live anywhere; addresses are good for a few accesses unless locked
    Contiguous = 1  ///< each plane is one block, and its address is good for the life of the image
  };

  virtual ~CVmManager() = default;
  virtual AllocationPolicy GetAllocationPolicy() const = 0;

  /// Brings a block into memory and returns its address; a block asked for as writable counts as changed.
  virtual unsigned char* GetBlock(const std::shared_ptr<CVmHandle>& handle, long long block,
                                  bool readOnly) = 0;

  /// Answers how many lines of an image of this height share a block.
  virtual long long GetLinesPerBlock(long long bytesPerLine, long long height) const = 0;

  /// Makes the blocks of a store; what is not zero counts as touched. Throws
  /// velora::CVmMemoryAllocationError, with nothing changed.
  virtual std::shared_ptr<CVmHandle> Allocate(long long blockSize, long long blockCount) = 0;
  virtual void Free(const std::shared_ptr<CVmHandle>& handle) noexcept = 0;

  /// Keeps a block resident until Unlock; locks are counted.
  virtual void Lock(const std::shared_ptr<CVmHandle>& handle, long long block) = 0;
  virtual void Unlock(const std::shared_ptr<CVmHandle>& handle, long long block) = 0;

  /// True when every block of the store is in memory.
  virtual bool IsOnMemory(const std::shared_ptr<CVmHandle>& handle) const = 0;
  /// True while a block has never been asked for as writable, and so holds zeros.
  virtual bool IsUntouched(const std::shared_ptr<CVmHandle>& handle, long long block) const = 0;
};

namespace korimg {

struct StoreOptions {
  long long budget = 0;           ///< bytes of memory for pixels; 0 takes DefaultBudget()
  long long blockSize = 1 << 20;  ///< bytes of a block of the paged store; a line larger than it is one block
  std::filesystem::path swapDirectory;  ///< for temporary files; empty takes the system's temporary directory
};

/// Answers half of the memory of the machine, or of the container when its limit is lower. A quarter when the
/// directory for temporary files is itself in memory, in which they may then take a half.
KORIMG_API long long DefaultBudget(const StoreOptions& options = {});

/// Makes a store of one block for each plane: in memory up to the budget, above it in a mapped temporary file
/// that has no name and whose space is reserved beforehand. Freed blocks are kept for the next image.
KORIMG_API std::shared_ptr<CVmManager> CreateContiguousManager(const StoreOptions& options = {});

/// Makes a store of lines in blocks of a bounded pool, the least recently used ones in temporary files.
KORIMG_API std::shared_ptr<CVmManager> CreatePagedManager(const StoreOptions& options = {});

}  // namespace korimg
