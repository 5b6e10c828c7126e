// The store that keeps lines in the blocks of a bounded pool, and what the pool does not hold in temporary
// files.
//
// A block's place in the handle's table says where its content is: nowhere, since it is all zeros (Untouched
// without a slot); in a slot of the pool (Untouched or Memory); or in the store's file (File). It changes
// only while the block's mutex is held, which is also held while the block is read or written.
//
// A thread that wants a block first counts itself among the block's holds and then looks at the address. If
// there is one, that is all: hits take no mutex and meet no other thread. Else the thread takes the block's
// mutex and reads the block, unless somebody was first.
//
// A thread that needs room takes the mutex of a block without holds, takes the address away, and looks at the
// holds again. Whoever came in between is counted by now, and then the address is put back; or will find no
// address and wait for the mutex. So no block changes while it is written, and no address is given out that
// is about to go. A block whose writing failed, or that was wanted meanwhile, gets its address back: the pool
// grows by a block rather than lose one or wait.
//
// Freeing takes the mutex of each block in turn, so that it waits for what is under way, and then lets go of
// memory and file, whatever is held: nobody may use addresses of a freed image. Threads remember what they
// hold by weak references.
//
// The pool's mutex guards the slots and their bytes, for moments. It may be taken while a block's is held;
// while it or a block's is held, a block's is only tried. So nobody waits in a circle.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "korimg/image/CVmManager.h"
#include "korimg/image/CVmMemory.h"
#include "korimg/image/internal/Memory.h"
#include "korimg/image/internal/SwapFile.h"
#include "korimg/platform/Assert.h"
#include "korimg/platform/Debug.h"

namespace korimg {
namespace {

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

/// What threads tell each other about a block.
struct Block {
  std::mutex mutex;
  std::atomic<unsigned char*> address = nullptr;  ///< of a resident block, unless it is about to go
  std::atomic<int> holds = 0;                     ///< by threads and by locks of images
  std::atomic<bool> changed = false;              ///< since it was read or written
  std::atomic<bool> recent = false;               ///< used since the search for a victim last came by

  void LetGo() {
    recent.store(true, std::memory_order_relaxed);
    [[maybe_unused]] const int before = holds--;
    KORIMG_ASSERT(before > 0);
  }
};

/// What a manager keeps of one store beside its blocks' places. Made by make_shared, so that its address is
/// not used again while anybody refers to it weakly.
struct PagedHandle : CVmHandle {
  PagedHandle(long long blockSize, long long blockCount, const std::shared_ptr<CVmManager>& manager)
      : CVmHandle(blockSize, blockCount, manager), blocks(blockCount) {}

  long long Bytes() const { return GetBlockSize() * GetBlockCount(); }
  long long Offset(long long block) const { return block * GetBlockSize(); }

  std::vector<Block> blocks;
  std::unique_ptr<SwapFile> swap;  ///< made once the stores together exceed the budget
  std::atomic<bool> freed = false;
};

PagedHandle& StoreOf(const std::shared_ptr<CVmHandle>& handle) {
  return static_cast<PagedHandle&>(*handle);
}

/// The blocks that a thread asked for last, of all stores. They can't be evicted until it has asked for as
/// many others: two colour images, a dark and a flat may be walked without locks.
class LatestBlocks {
 public:
  ~LatestBlocks() {
    for (Entry& entry : entries_) {
      Forget(entry);
    }
  }

  void Add(const std::shared_ptr<CVmHandle>& handle, long long block) {
    if (latest_->store == handle.get() && latest_->block == block) return;
    Entry* oldest = entries_.data();
    for (Entry& entry : entries_) {
      if (entry.store == handle.get() && entry.block == block) {
        entry.time = ++time_;
        latest_ = &entry;
        return;
      }
      if (entry.time < oldest->time) oldest = &entry;
    }
    std::vector<Block>& blocks = StoreOf(handle).blocks;
    ++blocks[block].holds;
    oldest->time = ++time_;
    latest_ = oldest;
    if (oldest->store == handle.get()) {  // no count of references that other threads write too
      blocks[std::exchange(oldest->block, block)].LetGo();
      return;
    }
    Forget(*oldest);
    oldest->store = handle.get();
    oldest->reference = handle;
    oldest->block = block;
  }

 private:
  struct Entry {
    const CVmHandle* store = nullptr;
    std::weak_ptr<CVmHandle> reference;
    long long block = -1;
    long long time = 0;
  };

  static void Forget(Entry& entry) {
    if (const auto handle = entry.reference.lock()) StoreOf(handle).blocks[entry.block].LetGo();
  }

  std::array<Entry, 8> entries_;
  Entry* latest_ = entries_.data();
  long long time_ = 0;
};

thread_local LatestBlocks latest_blocks;

class PagedManager : public CVmManager {
 public:
  explicit PagedManager(const StoreOptions& options)
      : budget_(StoreBudget(options)), blockSize_(options.blockSize), swapDirectory_(options.swapDirectory) {}

  AllocationPolicy GetAllocationPolicy() const override { return Paged; }

  unsigned char* GetBlock(const std::shared_ptr<CVmHandle>& handle, long long number,
                          bool readOnly) override {
    Block& block = StoreOf(handle).blocks[number];
    latest_blocks.Add(handle, number);
    unsigned char* address = Resident(handle, number);
    if (!readOnly && !block.changed.load(std::memory_order_relaxed)) {
      const std::lock_guard lock(block.mutex);
      block.changed = true;
      handle->Set(number, CVmBlock::Memory, handle->GetSlotIndex(number));
    }
    return address;
  }

  long long GetLinesPerBlock(long long bytesPerLine, long long height) const override {
    return std::clamp(blockSize_ / bytesPerLine, 1LL, height);
  }

  std::shared_ptr<CVmHandle> Allocate(long long blockSize, long long blockCount) override {
    const std::lock_guard stores(storesMutex_);
    const long long bytes = blockSize * blockCount;
    std::unique_ptr<SwapFile> swap;
    if (bytes > budget_ - allocated_) {
      // From here on blocks may have to leave memory: each store gets its room on the disk now.
      swap = std::make_unique<SwapFile>(swapDirectory_, bytes, SwapFile::Written);
      for (const std::shared_ptr<PagedHandle>& other : handles_) {
        if (other->swap) continue;
        other->swap = std::make_unique<SwapFile>(swapDirectory_, other->Bytes(), SwapFile::Written);
      }
    }
    std::shared_ptr<PagedHandle> handle;
    try {
      handle = std::make_shared<PagedHandle>(blockSize, blockCount, shared_from_this());
      handles_.push_back(handle);
    } catch (const std::exception&) {  // of memory, or of the most that a table can have
      throw velora::CVmMemoryAllocationError("no memory for the table of an image's " +
                                             std::to_string(blockCount) + " blocks of " +
                                             std::to_string(blockSize) + " bytes; choose larger blocks");
    }
    handle->swap = std::move(swap);
    allocated_ += bytes;
    return handle;
  }

  void Free(const std::shared_ptr<CVmHandle>& handle) noexcept override {
    PagedHandle& store = StoreOf(handle);
    store.freed = true;
    for (long long i = 0; i < store.GetBlockCount(); ++i) {
      const std::lock_guard lock(store.blocks[i].mutex);
      if (!store.blocks[i].address) continue;
      store.blocks[i].address = nullptr;
      const std::lock_guard pool(mutex_);
      TakeMemory(store.GetSlotIndex(i));
      store.Set(i, CVmBlock::Untouched, -1);
    }
    const std::lock_guard stores(storesMutex_);
    store.swap.reset();
    allocated_ -= store.Bytes();
    std::erase(handles_, handle);
  }

  void Lock(const std::shared_ptr<CVmHandle>& handle, long long number) override {
    Block& block = StoreOf(handle).blocks[number];
    ++block.holds;
    try {
      Resident(handle, number);
    } catch (...) {
      block.LetGo();
      throw;
    }
  }

  void Unlock(const std::shared_ptr<CVmHandle>& handle, long long number) override {
    StoreOf(handle).blocks[number].LetGo();
  }

  bool IsOnMemory(const std::shared_ptr<CVmHandle>& handle) const override {
    for (long long i = 0; i < handle->GetBlockCount(); ++i) {
      if (TypeOf(handle, i) == CVmBlock::File) return false;
    }
    return true;
  }

  bool IsUntouched(const std::shared_ptr<CVmHandle>& handle, long long number) const override {
    return TypeOf(handle, number) == CVmBlock::Untouched;
  }

 private:
  static CVmBlock::Type TypeOf(const std::shared_ptr<CVmHandle>& handle, long long number) {
    const std::lock_guard lock(StoreOf(handle).blocks[number].mutex);
    return handle->GetType(number);
  }

  /// The address of a block that the caller holds; it is read first where it has to be.
  unsigned char* Resident(const std::shared_ptr<CVmHandle>& handle, long long number) {
    PagedHandle& store = StoreOf(handle);
    Block& block = store.blocks[number];
    if (unsigned char* address = block.address) return address;
    const std::lock_guard lock(block.mutex);
    if (unsigned char* address = block.address) return address;
    if (store.freed) throw velora::CVmManagerException("the image of this block has been freed");

    std::unique_ptr<CVmMemoryInterface> memory = MakeRoom(store.GetBlockSize());
    unsigned char* address = memory->GetAddress();
    CVmBlock::Type type = store.GetType(number);
    try {
      if (type == CVmBlock::File) {
        store.swap->Read(address, store.GetBlockSize(), store.Offset(number));
        type = CVmBlock::Memory;
      } else {
        std::memset(address, 0, store.GetBlockSize());
      }
      const std::lock_guard pool(mutex_);
      store.Set(number, type, PutMemory(std::move(memory), handle, number));
    } catch (...) {
      const std::lock_guard pool(mutex_);
      resident_ -= store.GetBlockSize();
      throw;
    }
    block.changed = false;
    block.address = address;
    return address;
  }

  /// Memory of this size, counted as resident: what others leave while the pool is full, else fresh.
  std::unique_ptr<CVmMemoryInterface> MakeRoom(long long bytes) {
    std::unique_ptr<CVmMemoryInterface> memory;
    std::unique_lock pool(mutex_);
    while (bytes > budget_ - resident_) {
      Victim victim = FindVictim();
      if (!victim.handle) break;
      pool.unlock();
      const bool ready = PrepareToLeave(victim);
      pool.lock();
      if (!ready) break;
      std::unique_ptr<CVmMemoryInterface> left = Evict(victim);
      if (left->GetSize() == bytes) memory = std::move(left);
    }
    resident_ += bytes;
    if (memory) return memory;
    pool.unlock();
    try {
      return std::make_unique<HeapMemory>(bytes);
    } catch (...) {
      pool.lock();
      resident_ -= bytes;
      throw;
    }
  }

  /// A resident block that nobody holds, with its mutex.
  struct Victim {
    std::shared_ptr<CVmHandle> handle;  ///< outlives the lock
    long long number = -1;
    std::unique_lock<std::mutex> lock;

    Block& Get() const { return StoreOf(handle).blocks[number]; }
  };

  /// Goes round the slots, from where the last search ended, to the first block that was not used since then;
  /// none is found when all are held.
  Victim FindVictim() {
    for (size_t step = 0; step < 2 * slots_.size(); ++step) {
      hand_ = (hand_ + 1) % slots_.size();
      const CVmMemory& slot = slots_[hand_];
      if (!slot.handle) continue;
      Block& block = StoreOf(slot.handle).blocks[slot.block];
      if (block.holds > 0 || block.recent.exchange(false, std::memory_order_relaxed)) continue;
      std::unique_lock lock(block.mutex, std::try_to_lock);
      if (lock) return {slot.handle, slot.block, std::move(lock)};
    }
    return {};
  }

  /// Takes a block's address away and brings its copy on disk up to date. False when it has to stay.
  bool PrepareToLeave(const Victim& victim) {
    Block& block = victim.Get();
    unsigned char* address = block.address.exchange(nullptr);
    const bool ready = block.holds == 0 && (!block.changed || WriteOut(victim, address)) && block.holds == 0;
    if (!ready) block.address = address;
    return ready;
  }

  bool WriteOut(const Victim& victim, const unsigned char* address) {
    const PagedHandle& store = StoreOf(victim.handle);
    KORIMG_ASSERT(store.swap);  // stores that fit together don't reach the budget
    try {
      store.swap->Write(address, store.GetBlockSize(), store.Offset(victim.number));
    } catch (const std::exception& error) {
      DebugLine(error.what());
      return false;
    }
    victim.Get().changed = false;
    return true;
  }

  /// Ends a block's stay in the pool: its memory.
  std::unique_ptr<CVmMemoryInterface> Evict(const Victim& victim) {
    PagedHandle& store = StoreOf(victim.handle);
    std::unique_ptr<CVmMemoryInterface> memory = TakeMemory(store.GetSlotIndex(victim.number));
    if (store.GetType(victim.number) == CVmBlock::Untouched) {
      store.Set(victim.number, CVmBlock::Untouched, -1);
    } else {
      store.Set(victim.number, CVmBlock::File, store.Offset(victim.number));
    }
    return memory;
  }

  /// Puts a block's memory into a slot and returns its number; TakeMemory takes it out again. For both the
  /// pool's mutex is held.
  long long PutMemory(std::unique_ptr<CVmMemoryInterface> memory, const std::shared_ptr<CVmHandle>& handle,
                      long long number) {
    if (vacant_.empty()) {
      vacant_.reserve(slots_.size() + 1);  // so that taking out never fails
      vacant_.push_back(static_cast<long long>(slots_.size()));
      slots_.emplace_back();
    }
    CVmMemory& slot = slots_[vacant_.back()];
    slot.slot = vacant_.back();
    slot.memory = std::move(memory);
    slot.handle = handle;
    slot.block = number;
    vacant_.pop_back();
    return slot.slot;
  }

  std::unique_ptr<CVmMemoryInterface> TakeMemory(long long number) {
    std::unique_ptr<CVmMemoryInterface> memory = std::move(slots_[number].memory);
    KORIMG_ASSERT(memory && resident_ >= memory->GetSize());
    resident_ -= memory->GetSize();
    slots_[number].Reset();
    vacant_.push_back(number);
    return memory;
  }

  const long long budget_;
  const long long blockSize_;
  const std::filesystem::path swapDirectory_;

  std::mutex storesMutex_;  ///< taken before all others, by allocation and freeing only
  std::vector<std::shared_ptr<PagedHandle>> handles_;
  long long allocated_ = 0;  ///< bytes of all stores

  std::mutex mutex_;
  std::deque<CVmMemory> slots_;  ///< addresses stay as it grows
  std::vector<long long> vacant_;
  size_t hand_ = 0;         ///< where the last search for a victim ended
  long long resident_ = 0;  ///< bytes of blocks in memory or about to be
};

}  // namespace

std::shared_ptr<CVmManager> CreatePagedManager(const StoreOptions& options) {
  return std::make_shared<PagedManager>(options);
}

}  // namespace korimg
