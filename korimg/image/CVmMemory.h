#pragma once

#include <memory>
#include <utility>

#include "korimg/image/CVmHandle.h"

/// Stands for one piece of memory that blocks can live in.
class CVmMemoryInterface {
 public:
  virtual ~CVmMemoryInterface() = default;
  virtual unsigned char* GetAddress() = 0;
  virtual long long GetSize() const = 0;  ///< bytes
  virtual bool IsMapped() const = 0;      ///< lies in a temporary file
};

/// The record that a manager keeps of one memory resource and of the block that lives in it. It leaves alone
/// what it has no use for.
class CVmMemory {
 public:
  CVmMemory() = default;
  CVmMemory(CVmMemory&&) = default;
  CVmMemory& operator=(CVmMemory&&) = default;

  void Reset() {
    memory.reset();
    slot = -1;
    handle.reset();
    block = -1;
    file = -1;
    locks = 0;
    stamp = 0;
  }

  std::unique_ptr<CVmMemoryInterface> memory;
  long long count = 1;                ///< owners of the record
  long long slot = -1;                ///< its number in the manager's table
  std::shared_ptr<CVmHandle> handle;  ///< the store whose block lives here
  long long block = -1;               ///< that block
  long long file = -1;                ///< the block's place in a file, else -1
  long long locks = 0;                ///< how often it is locked
  long long stamp = 0;                ///< when it was used last
};
