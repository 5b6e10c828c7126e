#include "korimg/image/CVmImage.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "korimg/platform/Assert.h"

namespace {

void CheckSizes(long long width, long long height, long long planes, long long bytesPixel) {
  constexpr long long kMostPlanes = 1 << 16;
  long long bytes = bytesPixel;
  bool bad = planes > kMostPlanes || width <= 0 || height <= 0 || planes <= 0 || bytesPixel <= 0;
  for (const long long factor : {width, height, planes}) {
    bad = bad || __builtin_mul_overflow(bytes, factor, &bytes);
  }
  bad = bad || bytes > LLONG_MAX / 2;  // room for managers to round up
  if (bad) {
    throw velora::CVmMemoryAllocationError("no image can have the size " + std::to_string(width) + " x " +
                                           std::to_string(height) + " x " + std::to_string(planes) +
                                           " with " + std::to_string(bytesPixel) + " bytes a pixel");
  }
}

}  // namespace

CVmImage::CVmImage(const std::shared_ptr<CVmManager>& manager, long long width, long long height,
                   long long planes, long long bytesPixel, const std::shared_ptr<velora::Progress>&)
    : width_(width), height_(height), planes_(planes), bytesPixel_(bytesPixel), manager_(manager.get()) {
  CheckSizes(width, height, planes, bytesPixel);
  if (!manager) throw velora::CVmMemoryAllocationError("no store manager was given for the image");
  policy_ = manager->GetAllocationPolicy();
  bytesPerLine_ = width * bytesPixel;
  linesPerBlock_ = manager->GetLinesPerBlock(bytesPerLine_, height);
  totalLines_ = height * planes;
  blockCount_ = (totalLines_ - 1) / linesPerBlock_ + 1;
  handle_ = manager->Allocate(linesPerBlock_ * bytesPerLine_, blockCount_);
}

CVmImage::CVmImage(CVmImage& other, const std::shared_ptr<velora::Progress>& progress)
    : CVmImage(other.Manager().shared_from_this(), other.width_, other.height_, other.planes_,
               other.bytesPixel_, progress) {
  velora::ScopedProgress steps(progress, static_cast<int>(blockCount_));
  CVmManager& manager = Manager();
  for (long long i = 0; i < blockCount_; ++i) {
    if (!manager.IsUntouched(other.handle_, i)) {
      const unsigned char* from = other.GetBlockOnMemory(i, true);
      std::memcpy(GetBlockOnMemory(i, false), from, GetBlockLineCount(i) * bytesPerLine_);
    } else if (!manager.IsUntouched(handle_, i)) {
      std::memset(GetBlockOnMemory(i, false), 0, GetBlockLineCount(i) * bytesPerLine_);
    }
    steps.Step(static_cast<int>(i));
  }
}

CVmImage::~CVmImage() {
  UnlockAll();
  if (const auto manager = handle_->VmManager()) manager->Free(handle_);
}

long long CVmImage::GetBlockLineCount(long long i) const {
  return std::min(totalLines_, (i + 1) * linesPerBlock_) - i * linesPerBlock_;
}

std::tuple<int, int> CVmImage::GetBlockShape() const {
  return {static_cast<int>(std::min(totalLines_, linesPerBlock_)), static_cast<int>(width_)};
}

unsigned char* CVmImage::GetImageAdr(long long x, long long y, long long plane, bool readOnly, bool locked,
                                     AddressHandle* handle) {
  KORIMG_ASSERT(x >= 0 && x <= width_ && y >= 0 && y < height_ && plane >= 0 && plane < planes_);
  const long long line = plane * height_ + y;
  const long long block = line / linesPerBlock_;
  CVmManager& manager = Manager();
  if (locked) {
    // The lock comes first: no other thread can push the block out before its address is known.
    manager.Lock(handle_, block);
    const std::lock_guard guard(locksMutex_);
    ++locks_[block];
    if (handle) handle->block = block;
  }
  unsigned char* start = manager.GetBlock(handle_, block, readOnly);
  return start + (line - block * linesPerBlock_) * bytesPerLine_ + x * bytesPixel_;
}

bool CVmImage::Unlock(const AddressHandle& handle) {
  const std::lock_guard guard(locksMutex_);
  const auto found = locks_.find(handle.block);
  if (found == locks_.end()) return false;
  if (--found->second == 0) locks_.erase(found);
  if (const auto manager = handle_->VmManager()) manager->Unlock(handle_, handle.block);
  return true;
}

void CVmImage::UnlockAll() {
  const std::lock_guard guard(locksMutex_);
  if (const auto manager = handle_->VmManager()) {
    for (const auto& [block, count] : locks_) {
      for (int i = 0; i < count; ++i) {
        manager->Unlock(handle_, block);
      }
    }
  }
  locks_.clear();
}

unsigned char* CVmImage::GetBlockOnMemory(long long block, bool readOnly) {
  KORIMG_ASSERT(block >= 0 && block < blockCount_);
  return Manager().GetBlock(handle_, block, readOnly);
}

bool CVmImage::IsOnMemory() const {
  return Manager().IsOnMemory(handle_);
}

void CVmImage::Clear(long long plane) {
  CVmManager& manager = Manager();
  for (long long line = plane * height_, end = line + height_; line < end;) {
    const long long block = line / linesPerBlock_;
    const long long next = std::min(end, (block + 1) * linesPerBlock_);
    if (!manager.IsUntouched(handle_, block)) {
      unsigned char* start = manager.GetBlock(handle_, block, false);
      std::memset(start + (line - block * linesPerBlock_) * bytesPerLine_, 0, (next - line) * bytesPerLine_);
    }
    line = next;
  }
}

// No share is taken: a count that all threads write would make each wait for the others.
CVmManager& CVmImage::Manager() const {
  if (!handle_->Expired()) return *manager_;
  throw velora::CVmManagerHandleDeletedError("the store manager of this image has ended before the image");
}
