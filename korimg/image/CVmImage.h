#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "korimg/image/CVmManager.h"
#include "korimg/image/Progress.h"
#include "korimg/platform/Export.h"

/// Stores an image's pixels. Lines are not padded; line y of plane p is line p * height + y of the
/// store, and lines lie in blocks of equal numbers of lines.
class KORIMG_API CVmImage {
 public:
  /// Names the block that a locked address has locked.
  struct AddressHandle {
    long long block = -1;
  };

  /// Makes a store; all sizes are positive. Throws velora::CVmMemoryAllocationError when one isn't,
  /// when their product is 2^62 or more, and when there is no room.
  CVmImage(const std::shared_ptr<CVmManager>& manager, long long width, long long height, long long planes,
           long long bytesPixel, const std::shared_ptr<velora::Progress>& progress);
  /// Makes a store of the same shape on the same manager, with the same pixels.
  CVmImage(CVmImage& other, const std::shared_ptr<velora::Progress>& progress);
  ~CVmImage();
  CVmImage(const CVmImage&) = delete;
  CVmImage& operator=(const CVmImage&) = delete;

  long long GetWidth() const { return width_; }
  long long GetHeight() const { return height_; }
  long long GetPlanes() const { return planes_; }
  long long GetBytesPixel() const { return bytesPixel_; }
  long long GetBytesPerLine() const { return bytesPerLine_; }
  long long GetLinesPerBlock() const { return linesPerBlock_; }
  long long GetTotalLines() const { return totalLines_; }
  long long GetBlockCount() const { return blockCount_; }
  const std::shared_ptr<CVmHandle>& GetVmHandle() const { return handle_; }
  bool GetParallel() const { return parallel_; }
  void SetParallel(bool parallel) { parallel_ = parallel; }

  /// Answers the lines of block i: the last block may have fewer than the others.
  long long GetBlockLineCount(long long i) const;
  /// Answers (lines of a full block, width).
  std::tuple<int, int> GetBlockShape() const;

  /// Answers the address of pixel (x, y) of a plane, good to the end of the line. Unlocked it is good for the
  /// next few accesses of the calling thread; locked with a handle until Unlock, locked without one until
  /// UnlockAll. A writable address marks its block as changed. Any number of threads may ask at once.
  unsigned char* GetImageAdr(long long x, long long y, long long plane, bool readOnly, bool locked,
                             AddressHandle* handle);
  bool Unlock(const AddressHandle& handle);
  void UnlockAll();

  /// Answers the address of a block. Throws velora::CVmManagerHandleDeletedError when the manager has gone.
  unsigned char* GetBlockOnMemory(long long block, bool readOnly);

  CVmManager::AllocationPolicy GetAllocationPolicy() const { return policy_; }
  bool IsOnMemory() const;
  std::shared_ptr<CVmManager> VmManager() const { return handle_->VmManager(); }

  /// Makes a whole plane zero, without touching what is zero still.
  void Clear(long long plane);

 private:
  CVmManager& Manager() const;

  long long width_;
  long long height_;
  long long planes_;
  long long bytesPixel_;
  long long bytesPerLine_;
  long long linesPerBlock_;
  long long totalLines_;
  long long blockCount_;
  CVmManager* manager_;  ///< while the handle says that it is alive
  std::shared_ptr<CVmHandle> handle_;
  bool parallel_ = false;
  CVmManager::AllocationPolicy policy_;
  std::mutex locksMutex_;
  std::map<long long, int> locks_;  ///< counted by block
};
