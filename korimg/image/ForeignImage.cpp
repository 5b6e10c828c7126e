#include "korimg/image/ForeignImage.h"

#include <atomic>
#include <utility>

#include "korimg/platform/Assert.h"

namespace korimg {
namespace {

/// The store of one foreign image, and of all that is made from it.
class ForeignManager : public CVmManager {
 public:
  ForeignManager(std::vector<float*> planes, std::shared_ptr<const void> owner,
                 std::shared_ptr<CVmManager> rest, ResultMemory result)
      : planes_(std::move(planes)),
        owner_(std::move(owner)),
        rest_(std::move(rest)),
        result_(std::move(result.planes)),
        isZero_(result.isZero) {
    KORIMG_ASSERT(rest_->GetAllocationPolicy() == Contiguous);
  }

  /// Makes the foreign image. New images are cleared, which this one must not be.
  std::unique_ptr<CVelImage> Make(int width, int height) {
    auto image =
        std::make_unique<CVelImage>(shared_from_this(), CImage::Float, width, height,
                                    static_cast<int>(planes_.size()), 1.0, 0.0, 1, CImage::ProgressPtr());
    isMade_ = true;
    bytes_ = 4LL * width * height;
    return image;
  }

  AllocationPolicy GetAllocationPolicy() const override { return Contiguous; }

  unsigned char* GetBlock(const std::shared_ptr<CVmHandle>& handle, long long block, bool readOnly) override {
    const Handle& own = Own(handle);
    if (own.inner) return rest_->GetBlock(own.inner, block, readOnly);
    if (own.isResult && !readOnly) isZero_ = false;
    const auto& planes = own.isResult ? result_ : planes_;
    return reinterpret_cast<unsigned char*>(planes[static_cast<size_t>(block)]);
  }

  long long GetLinesPerBlock(long long, long long height) const override { return height; }

  std::shared_ptr<CVmHandle> Allocate(long long blockSize, long long blockCount) override {
    auto handle = std::make_shared<Handle>(blockSize, blockCount, shared_from_this());
    const auto planes = static_cast<long long>(result_.size());
    if (isMade_ && !isTaken_ && planes > 0 && blockSize == bytes_ && blockCount == planes) {
      handle->isResult = isTaken_ = true;
    } else if (isMade_) {
      handle->inner = rest_->Allocate(blockSize, blockCount);
    }
    return handle;
  }

  void Free(const std::shared_ptr<CVmHandle>& handle) noexcept override {
    if (const auto& inner = Own(handle).inner) rest_->Free(inner);
  }

  void Lock(const std::shared_ptr<CVmHandle>&, long long) override {}
  void Unlock(const std::shared_ptr<CVmHandle>&, long long) override {}

  bool IsOnMemory(const std::shared_ptr<CVmHandle>& handle) const override {
    const auto& inner = Own(handle).inner;
    return !inner || rest_->IsOnMemory(inner);
  }

  bool IsUntouched(const std::shared_ptr<CVmHandle>& handle, long long block) const override {
    const Handle& own = Own(handle);
    if (own.inner) return rest_->IsUntouched(own.inner, block);
    return own.isResult ? isZero_.load() : !isMade_;
  }

 private:
  struct Handle : CVmHandle {
    using CVmHandle::CVmHandle;
    std::shared_ptr<CVmHandle> inner;  ///< of `rest`; none for foreign memory
    bool isResult = false;             ///< which is the result's
  };

  static const Handle& Own(const std::shared_ptr<CVmHandle>& handle) {
    return static_cast<const Handle&>(*handle);
  }

  const std::vector<float*> planes_;
  const std::shared_ptr<const void> owner_;
  const std::shared_ptr<CVmManager> rest_;
  const std::vector<float*> result_;
  long long bytes_ = 0;               ///< of a plane
  std::atomic<bool> isZero_ = false;  ///< what the result's memory holds
  bool isMade_ = false, isTaken_ = false;
};

}  // namespace

StoredImage MakeImageOver(std::vector<float*> planes, int width, int height,
                          std::shared_ptr<const void> owner, std::shared_ptr<CVmManager> rest,
                          ResultMemory result) {
  const auto manager = std::make_shared<ForeignManager>(std::move(planes), std::move(owner), std::move(rest),
                                                        std::move(result));
  return {manager, manager->Make(width, height)};
}

}  // namespace korimg
