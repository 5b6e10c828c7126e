// Preloaded into the tool, it lets the scratch memory of pipelines run out: aligned allocations of more bytes
// than KORIMG_ROOM fail.
#include <cstdlib>

extern "C" void* aligned_alloc(size_t alignment, size_t bytes) {
  static const size_t room = std::strtoull(std::getenv("KORIMG_ROOM"), nullptr, 10);
  void* memory = nullptr;
  return bytes > room || posix_memalign(&memory, alignment, bytes) != 0 ? nullptr : memory;
}
