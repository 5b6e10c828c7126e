#include "korimg/platform/GlobalMemory.h"

#include <cstdlib>
#include <memory>

struct HGLOBAL__ {
  struct Free {
    void operator()(void* bytes) const { std::free(bytes); }
  };
  std::unique_ptr<unsigned char, Free> bytes;
  std::size_t size = 0;
};

HGLOBAL GlobalAlloc(unsigned, std::size_t bytes) {
  // The system's zeroed pages are not touched before they are written.
  auto* memory = static_cast<unsigned char*>(std::calloc(bytes ? bytes : 1, 1));
  return memory ? new HGLOBAL__{decltype(HGLOBAL__::bytes)(memory), bytes} : nullptr;
}

void* GlobalLock(HGLOBAL block) {
  return block ? block->bytes.get() : nullptr;
}

void GlobalUnlock(HGLOBAL) {}

std::size_t GlobalSize(HGLOBAL block) {
  return block ? block->size : 0;
}

void GlobalFree(HGLOBAL block) {
  delete block;
}
