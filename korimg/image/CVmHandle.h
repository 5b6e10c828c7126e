#pragma once

#include <memory>
#include <vector>

#include "korimg/platform/Export.h"

class CVmManager;

/// Tells where one block of a store is.
class CVmBlock {
 public:
  enum Type : int {
    Untouched = 0,  ///< never written: all zeros, wherever it lies
    Memory = 1,     ///< resident
    File = 2        ///< swapped out
  };
  Type type = Untouched;
  long long slotIndex = -1;  ///< the manager's own number of the place
};

/// Holds the blocks of one store, shared jointly by the store and its manager.
class KORIMG_API CVmHandle {
 public:
  CVmHandle(long long blockSize, long long blockCount, const std::shared_ptr<CVmManager>& manager);
  CVmHandle(const CVmHandle&) = default;
  CVmHandle& operator=(const CVmHandle&) = default;
  virtual ~CVmHandle() = default;

  long long GetBlockSize() const { return blockSize_; }  ///< bytes
  long long GetBlockCount() const { return blockCount_; }
  CVmBlock::Type GetType(long long i) const { return blocks_[i].type; }
  long long GetSlotIndex(long long i) const { return blocks_[i].slotIndex; }
  void Set(long long i, CVmBlock::Type type, long long slot);

  /// Answers the manager, or an empty pointer when it has gone.
  std::shared_ptr<CVmManager> VmManager() const { return manager_.lock(); }
  /// True while the manager is alive.
  bool Deleted() const { return VmManager() != nullptr; }
  /// True when the manager has gone: a look only, without a share in it.
  bool Expired() const { return manager_.expired(); }

 protected:
  void Delete() { manager_.reset(); }

 private:
  std::weak_ptr<CVmManager> manager_;
  long long blockSize_;
  long long blockCount_;
  std::vector<CVmBlock> blocks_;
};
