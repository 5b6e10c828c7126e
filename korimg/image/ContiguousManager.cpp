// The store that keeps each plane in one block of memory or of a mapped temporary file.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/mman.h>

#include "korimg/image/CVmManager.h"
#include "korimg/image/CVmMemory.h"
#include "korimg/image/internal/Memory.h"
#include "korimg/image/internal/SwapFile.h"
#include "korimg/platform/Assert.h"

namespace korimg {
namespace {

constexpr long long kHugePage = 2 << 20;

long long RoundUp(long long bytes) {
  return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}

/// Private memory straight from the system: zeroed at its first touch, and by huge pages where there are any.
class PrivateMemory : public CVmMemoryInterface {
 public:
  explicit PrivateMemory(long long bytes) : size_(RoundUp(bytes)) {
    // One huge page more, so that an aligned range lies inside.
    base_ = mmap(nullptr, size_ + kHugePage, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base_ == MAP_FAILED) {
      throw velora::CVmMemoryAllocationError(
          "no memory for a plane: needed " + std::to_string(size_ >> 20) + " MiB (" + std::strerror(errno) +
          "); lower the memory budget, so that large planes go to temporary files");
    }
    address_ = reinterpret_cast<unsigned char*>(RoundUp(reinterpret_cast<long long>(base_)));
    madvise(address_, size_, MADV_HUGEPAGE);
  }
  ~PrivateMemory() override { munmap(base_, size_ + kHugePage); }

  unsigned char* GetAddress() override { return address_; }
  long long GetSize() const override { return size_; }
  bool IsMapped() const override { return false; }

 private:
  void* base_;
  unsigned char* address_;
  long long size_;
};

/// Pages of a reserved temporary file: the system writes them out and drops them as it needs memory.
class MappedMemory : public CVmMemoryInterface {
 public:
  MappedMemory(const std::filesystem::path& directory, long long bytes)
      : file_(directory, bytes, SwapFile::Mapped), size_(bytes) {
    void* base = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file_.Descriptor(), 0);
    if (base == MAP_FAILED) {
      throw velora::CVmMemoryAllocationError("can't map a temporary file of " + std::to_string(size_ >> 20) +
                                             " MiB in " + SwapDirectory(directory).string() + " (" +
                                             std::strerror(errno) +
                                             "); free some memory, or lift the limit of address space");
    }
    address_ = static_cast<unsigned char*>(base);
  }
  ~MappedMemory() override { munmap(address_, size_); }

  unsigned char* GetAddress() override { return address_; }
  long long GetSize() const override { return size_; }
  bool IsMapped() const override { return true; }

 private:
  SwapFile file_;
  unsigned char* address_;
  long long size_;
};

class ContiguousManager : public CVmManager {
 public:
  explicit ContiguousManager(const StoreOptions& options)
      : budget_(StoreBudget(options)), swapDirectory_(options.swapDirectory) {}

  AllocationPolicy GetAllocationPolicy() const override { return Contiguous; }

  unsigned char* GetBlock(const std::shared_ptr<CVmHandle>& handle, long long block, bool readOnly) override {
    // A block's slot is its address, which never changes: no lock is needed here.
    if (!readOnly) static_cast<Handle&>(*handle).touched[block].store(true, std::memory_order_relaxed);
    return reinterpret_cast<unsigned char*>(handle->GetSlotIndex(block));
  }

  long long GetLinesPerBlock(long long, long long height) const override { return height; }

  std::shared_ptr<CVmHandle> Allocate(long long blockSize, long long blockCount) override {
    auto handle = std::make_shared<Handle>(blockSize, blockCount, shared_from_this());
    const std::lock_guard lock(mutex_);
    try {
      for (long long i = 0; i < blockCount; ++i) {
        CVmMemory record = Take(blockSize);
        handle->touched[i] = record.block >= 0;  // used before: what it holds is not zero
        handle->Set(i, handle->touched[i] ? CVmBlock::Memory : CVmBlock::Untouched,
                    reinterpret_cast<long long>(record.memory->GetAddress()));
        record.handle = handle;
        record.block = i;
        used_.emplace(handle->GetSlotIndex(i), std::move(record));
      }
    } catch (...) {
      Release(*handle);
      throw;
    }
    return handle;
  }

  void Free(const std::shared_ptr<CVmHandle>& handle) noexcept override {
    const std::lock_guard lock(mutex_);
    Release(static_cast<Handle&>(*handle));
  }

  void Lock(const std::shared_ptr<CVmHandle>&, long long) override {}
  void Unlock(const std::shared_ptr<CVmHandle>&, long long) override {}

  bool IsOnMemory(const std::shared_ptr<CVmHandle>& handle) const override {
    const std::lock_guard lock(mutex_);
    for (long long i = 0; i < handle->GetBlockCount(); ++i) {
      if (used_.at(handle->GetSlotIndex(i)).memory->IsMapped()) return false;
    }
    return true;
  }

  bool IsUntouched(const std::shared_ptr<CVmHandle>& handle, long long block) const override {
    return !static_cast<const Handle&>(*handle).touched[block].load(std::memory_order_relaxed);
  }

 private:
  struct Handle : CVmHandle {
    Handle(long long blockSize, long long blockCount, const std::shared_ptr<CVmManager>& manager)
        : CVmHandle(blockSize, blockCount, manager), touched(blockCount) {}
    std::vector<std::atomic<bool>> touched;
  };

  /// A kept block of about this size, else fresh memory within the budget, else a mapped file.
  CVmMemory Take(long long bytes) {
    for (size_t i = 0; i < kept_.size(); ++i) {
      const long long size = kept_[i].memory->GetSize();
      if (size < bytes || size > RoundUp(bytes + bytes / 8)) continue;
      CVmMemory record = std::move(kept_[i]);
      kept_.erase(kept_.begin() + static_cast<std::ptrdiff_t>(i));
      return record;
    }
    const long long size = RoundUp(bytes);
    while (!kept_.empty() && size > budget_ - private_) {
      private_ -= kept_.front().memory->GetSize();
      kept_.erase(kept_.begin());
    }
    CVmMemory record;
    if (size <= budget_ - private_) {
      record.memory = std::make_unique<PrivateMemory>(bytes);
      private_ += size;
    } else {
      record.memory = std::make_unique<MappedMemory>(swapDirectory_, bytes);
    }
    return record;
  }

  void Release(Handle& handle) {
    for (long long i = 0; i < handle.GetBlockCount(); ++i) {
      const auto found = used_.find(handle.GetSlotIndex(i));
      if (found == used_.end()) continue;
      CVmMemory record = std::move(found->second);
      used_.erase(found);
      KORIMG_ASSERT(record.handle.get() == &handle && record.block == i);
      if (record.memory->IsMapped()) continue;
      record.handle.reset();
      kept_.push_back(std::move(record));
    }
  }

  const long long budget_;
  const std::filesystem::path swapDirectory_;
  mutable std::mutex mutex_;
  std::unordered_map<long long, CVmMemory> used_;  ///< by address
  std::vector<CVmMemory> kept_;                    ///< freed private memory, oldest first
  long long private_ = 0;                          ///< bytes of private memory, used and kept
};

}  // namespace

std::shared_ptr<CVmManager> CreateContiguousManager(const StoreOptions& options) {
  return std::make_shared<ContiguousManager>(options);
}

}  // namespace korimg
