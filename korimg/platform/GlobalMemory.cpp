#include "korimg/platform/GlobalMemory.h"

#include <new>
#include <vector>

struct HGLOBAL__ {
  std::vector<unsigned char> bytes;
};

HGLOBAL GlobalAlloc(unsigned, std::size_t bytes) {
  try {
    return new HGLOBAL__{std::vector<unsigned char>(bytes)};
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* GlobalLock(HGLOBAL block) {
  return block ? block->bytes.data() : nullptr;
}

void GlobalUnlock(HGLOBAL) {}

std::size_t GlobalSize(HGLOBAL block) {
  return block ? block->bytes.size() : 0;
}

void GlobalFree(HGLOBAL block) {
  delete block;
}
