#include "korimg/image/CVmHandle.h"

#include "korimg/platform/Assert.h"

CVmHandle::CVmHandle(long long blockSize, long long blockCount, const std::shared_ptr<CVmManager>& manager)
    : manager_(manager), blockSize_(blockSize), blockCount_(blockCount), blocks_(blockCount) {}

void CVmHandle::Set(long long i, CVmBlock::Type type, long long slot) {
  KORIMG_ASSERT(i >= 0 && i < blockCount_);
  blocks_[i].type = type;
  blocks_[i].slotIndex = slot;
}
