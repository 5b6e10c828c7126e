// The store that keeps lines in the blocks of a bounded pool, and what the pool does not hold in temporary
// files.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "korimg/image/CVmManager.h"
#include "korimg/image/CVmMemory.h"
#include "korimg/image/Memory.h"
#include "korimg/image/SwapFile.h"
#include "korimg/platform/Assert.h"
#include "korimg/platform/Debug.h"

namespace korimg {
namespace {

/// How many of its latest blocks a thread may use without a lock: two colour images, a dark and a flat.
constexpr size_t kHeldBlocks = 8;

class HeapMemory : public CVmMemoryInterface {
 public:
  explicit HeapMemory(long long bytes) : size_(bytes) {
    address_ = static_cast<unsigned char*>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
    if (!address_) throw std::bad_alloc();
  }
  ~HeapMemory() override { std::free(address_); }

  unsigned char* GetAddress() override { return address_; }
  long long GetSize() const override { return size_; }
  bool IsMapped() const override { return false; }

 private:
  unsigned char* address_;
  long long size_;
};

/// What a manager keeps of one store beside its blocks.
struct PagedHandle : CVmHandle {
  using CVmHandle::CVmHandle;
  std::unique_ptr<SwapFile> swap;  ///< made once the stores together exceed the budget
  bool freed = false;
};

class PagedManager;

/// Lets go of what a thread holds when the thread ends.
struct ThreadEnd {
  std::vector<std::weak_ptr<PagedManager>> managers;
  ~ThreadEnd();
};

class PagedManager : public CVmManager {
 public:
  explicit PagedManager(const StoreOptions& options)
      : budget_(StoreBudget(options)), blockSize_(options.blockSize), swapDirectory_(options.swapDirectory) {}

  AllocationPolicy GetAllocationPolicy() const override { return Paged; }

  unsigned char* GetBlock(std::shared_ptr<CVmHandle> const& handle, long long block, bool readOnly) override {
    const std::lock_guard lock(mutex_);
    CVmMemory& slot = Resident(handle, block);
    if (!readOnly) {
      slot.file = -1;
      handle->Set(block, CVmBlock::Memory, slot.slot);
    }
    Hold(slot);
    return slot.memory->GetAddress();
  }

  long long GetLinesPerBlock(long long bytesPerLine, long long height) const override {
    return std::clamp(blockSize_ / bytesPerLine, 1LL, height);
  }

  std::shared_ptr<CVmHandle> Allocate(long long blockSize, long long blockCount) override {
    const std::lock_guard lock(mutex_);
    const long long bytes = blockSize * blockCount;
    std::unique_ptr<SwapFile> swap;
    if (bytes > budget_ - allocated_) {
      // From here on blocks may have to leave memory: each store gets its room on the disk now.
      swap = std::make_unique<SwapFile>(swapDirectory_, bytes, SwapFile::Written);
      for (const std::shared_ptr<PagedHandle>& other : handles_) {
        if (other->swap) continue;
        other->swap = std::make_unique<SwapFile>(
            swapDirectory_, other->GetBlockSize() * other->GetBlockCount(), SwapFile::Written);
      }
    }
    auto handle = std::make_shared<PagedHandle>(blockSize, blockCount, shared_from_this());
    handle->swap = std::move(swap);
    handles_.push_back(handle);
    allocated_ += bytes;
    return handle;
  }

  void Free(std::shared_ptr<CVmHandle> const& handle) noexcept override {
    const std::lock_guard lock(mutex_);
    auto& paged = static_cast<PagedHandle&>(*handle);
    paged.freed = true;
    for (long long i = 0; i < paged.GetBlockCount(); ++i) {
      // What a thread still holds goes when it lets go.
      if (CVmMemory* slot = Find(*handle, i); slot && slot->locks == 0) Discard(*slot);
    }
    allocated_ -= paged.GetBlockSize() * paged.GetBlockCount();
    std::erase_if(handles_, [&](const auto& other) { return other == handle; });
  }

  void Lock(std::shared_ptr<CVmHandle> const& handle, long long block) override {
    const std::lock_guard lock(mutex_);
    ++Resident(handle, block).locks;
  }

  void Unlock(std::shared_ptr<CVmHandle> const& handle, long long block) override {
    const std::lock_guard lock(mutex_);
    if (CVmMemory* slot = Find(*handle, block)) LetGo(*slot);
  }

  bool IsOnMemory(std::shared_ptr<CVmHandle> const& handle) const override {
    const std::lock_guard lock(mutex_);
    for (long long i = 0; i < handle->GetBlockCount(); ++i) {
      if (handle->GetType(i) == CVmBlock::File) return false;
    }
    return true;
  }

  bool IsUntouched(std::shared_ptr<CVmHandle> const& handle, long long block) const override {
    const std::lock_guard lock(mutex_);
    return handle->GetType(block) == CVmBlock::Untouched;
  }

  void EndThread(std::thread::id thread) {
    const std::lock_guard lock(mutex_);
    const auto found = held_.find(thread);
    if (found == held_.end()) return;
    for (CVmMemory* slot : found->second)
      LetGo(*slot);
    held_.erase(found);
  }

 private:
  /// The slot of a block, or null when it isn't in memory. The type says "untouched" of a zero block that was
  /// only read, so the slot's number decides.
  CVmMemory* Find(const CVmHandle& handle, long long block) {
    if (handle.GetType(block) == CVmBlock::File || handle.GetSlotIndex(block) < 0) return nullptr;
    return &slots_[handle.GetSlotIndex(block)];
  }

  CVmMemory& Resident(std::shared_ptr<CVmHandle> const& handle, long long block) {
    CVmMemory* slot = Find(*handle, block);
    if (!slot) {
      slot = &Acquire(handle->GetBlockSize());
      if (handle->GetType(block) == CVmBlock::File) {
        try {
          const long long offset = handle->GetSlotIndex(block);
          static_cast<PagedHandle&>(*handle).swap->Read(slot->memory->GetAddress(), handle->GetBlockSize(),
                                                        offset);
          slot->file = offset;
          handle->Set(block, CVmBlock::Memory, slot->slot);
        } catch (...) {
          Discard(*slot);
          throw;
        }
      } else {
        std::memset(slot->memory->GetAddress(), 0, handle->GetBlockSize());
        handle->Set(block, CVmBlock::Untouched, slot->slot);
      }
      slot->handle = handle;
      slot->block = block;
    }
    slot->stamp = ++clock_;
    return *slot;
  }

  /// A slot with memory of this size, by eviction while the pool is full; beyond its budget when all is held.
  CVmMemory& Acquire(long long bytes) {
    std::unique_ptr<CVmMemoryInterface> memory;
    while (resident_ + bytes > budget_) {
      CVmMemory* victim = nullptr;
      for (CVmMemory& slot : slots_) {
        if (slot.memory && slot.locks == 0 && (!victim || slot.stamp < victim->stamp)) victim = &slot;
      }
      if (!victim || !SwapOut(*victim)) break;
      if (victim->memory->GetSize() == bytes) memory = std::move(victim->memory);
      Discard(*victim);
    }
    if (!memory) memory = std::make_unique<HeapMemory>(bytes);
    resident_ += bytes;
    if (vacant_.empty()) {
      vacant_.push_back(static_cast<long long>(slots_.size()));
      slots_.emplace_back();
    }
    CVmMemory& slot = slots_[vacant_.back()];
    slot.slot = vacant_.back();
    slot.memory = std::move(memory);
    vacant_.pop_back();
    return slot;
  }

  /// Brings a block's copy on disk up to date and gives up its place in memory. False when that failed: then
  /// the block stays, and the pool grows rather than lose it.
  bool SwapOut(CVmMemory& slot) {
    CVmHandle& handle = *slot.handle;
    if (handle.GetType(slot.block) == CVmBlock::Untouched) {
      handle.Set(slot.block, CVmBlock::Untouched, -1);
      return true;
    }
    // Without a swap file all stores fit; only blocks of freed ones that threads still hold are in the way.
    SwapFile* swap = static_cast<PagedHandle&>(handle).swap.get();
    if (!swap) return false;
    const long long offset = slot.block * handle.GetBlockSize();
    if (slot.file < 0) {
      try {
        swap->Write(slot.memory->GetAddress(), handle.GetBlockSize(), offset);
      } catch (const std::exception& error) {
        DebugLine(error.what());
        return false;
      }
    }
    handle.Set(slot.block, CVmBlock::File, offset);
    return true;
  }

  void Discard(CVmMemory& slot) {
    const long long number = slot.slot;
    resident_ -= slot.handle ? slot.handle->GetBlockSize() : slot.memory->GetSize();
    slot.Reset();
    vacant_.push_back(number);
  }

  void LetGo(CVmMemory& slot) {
    KORIMG_ASSERT(slot.locks > 0);
    if (--slot.locks == 0 && static_cast<PagedHandle&>(*slot.handle).freed) Discard(slot);
  }

  /// Makes the slot one of the calling thread's latest blocks, which can't be evicted.
  void Hold(CVmMemory& slot) {
    std::list<CVmMemory*>& held = held_[std::this_thread::get_id()];
    if (held.empty()) WatchThread();
    const auto found = std::find(held.begin(), held.end(), &slot);
    if (found != held.end()) {
      held.splice(held.begin(), held, found);
      return;
    }
    held.push_front(&slot);
    ++slot.locks;
    if (held.size() > kHeldBlocks) {
      CVmMemory& oldest = *held.back();
      held.pop_back();
      LetGo(oldest);
    }
  }

  void WatchThread() {
    static thread_local ThreadEnd end;
    std::erase_if(end.managers, [](const auto& manager) { return manager.expired(); });
    end.managers.push_back(std::static_pointer_cast<PagedManager>(shared_from_this()));
  }

  const long long budget_;
  const long long blockSize_;
  const std::filesystem::path swapDirectory_;
  mutable std::mutex mutex_;
  std::deque<CVmMemory> slots_;  ///< addresses stay as it grows
  std::vector<long long> vacant_;
  std::vector<std::shared_ptr<PagedHandle>> handles_;
  std::unordered_map<std::thread::id, std::list<CVmMemory*>> held_;
  long long resident_ = 0;   ///< bytes of blocks in memory
  long long allocated_ = 0;  ///< bytes of all stores
  long long clock_ = 0;
};

ThreadEnd::~ThreadEnd() {
  for (const auto& weak : managers) {
    if (const auto manager = weak.lock()) manager->EndThread(std::this_thread::get_id());
  }
}

}  // namespace

std::shared_ptr<CVmManager> CreatePagedManager(const StoreOptions& options) {
  return std::make_shared<PagedManager>(options);
}

}  // namespace korimg
