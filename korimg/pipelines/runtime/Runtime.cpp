// What the pipelines' runtime gets from the library: memory for scratch, an error handler, the choice of
// forms.
#include "korimg/pipelines/runtime/Runtime.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <HalideRuntime.h>

#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

namespace {

// Word 0 of the runtime's feature sets.
constexpr std::uint64_t kAvx = 1u << 5, kAvx2 = 1u << 6, kNoRuntime = 1u << 31, kSse41 = 1u << 4;

std::atomic<std::uint64_t> g_allowed{~0ULL};
std::atomic<long long> g_failures{0};

int CanUse(int count, const std::uint64_t* features) {
  const bool allowed = (features[0] & ~g_allowed.load(std::memory_order_relaxed)) == 0;
  return allowed && halide_default_can_use_target_features(count, features);
}

/// A pipeline that fails leaves its output as it is, and says so.
void NoteError(void*, const char* text) {
  ++g_failures;
  korimg::DebugLine(std::string("pipeline: ") + text);
}

/// Threads whose team is themselves run pipelines alone too: others are at work beside them.
int RunTasks(void* context, halide_task_t task, int first, int count, std::uint8_t* closure) {
  if (CParallel::GetMaxThreads() > 1) return halide_default_do_par_for(context, task, first, count, closure);
  int result = 0;
  for (int i = first; i < first + count && result == 0; ++i) {
    result = halide_do_task(context, task, i, closure);
  }
  return result;
}

const bool g_installed = [] {
  halide_set_custom_do_par_for(RunTasks);
  halide_set_error_handler(NoteError);
  halide_set_custom_can_use_target_features(CanUse);
  return true;
}();

}  // namespace

// Scratch is allocated per tile; the system's allocator would give its pages back and fault them in again
// each time. Each thread keeps a few blocks instead. Number and size are chosen: 128 MB at most.
namespace {

constexpr std::size_t kAlignment = 128;
constexpr int kKept = 8;
constexpr std::size_t kLargestKept = 16 << 20;

struct Scratch {
  struct Block {
    void* address = nullptr;
    std::size_t size = 0;
  };
  Block blocks[kKept];
  int next = 0;  ///< the block that goes when there are too many

  ~Scratch() {
    for (const Block& block : blocks) {
      std::free(block.address);
    }
  }
};

thread_local Scratch t_scratch;

/// The size stands in front of each block.
std::size_t& SizeOf(void* block) {
  return *reinterpret_cast<std::size_t*>(static_cast<char*>(block) - kAlignment);
}

}  // namespace

extern "C" {

void* halide_malloc(void*, std::size_t bytes) {
  for (Scratch::Block& kept : t_scratch.blocks) {
    if (kept.address && kept.size >= bytes && kept.size <= 2 * bytes) {
      void* start = kept.address;
      kept.address = nullptr;
      return static_cast<char*>(start) + kAlignment;
    }
  }
  const std::size_t size = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  // Vectors may read a little past the end.
  void* start = std::aligned_alloc(kAlignment, size + 2 * kAlignment);
  if (!start) return nullptr;
  void* block = static_cast<char*>(start) + kAlignment;
  SizeOf(block) = size;
  return block;
}

void halide_free(void*, void* block) {
  if (!block) return;
  void* start = static_cast<char*>(block) - kAlignment;
  const std::size_t size = SizeOf(block);
  if (size <= kLargestKept) {
    for (Scratch::Block& kept : t_scratch.blocks) {
      if (kept.address) continue;
      kept = {start, size};
      return;
    }
    // Sizes change from one pipeline to the next: old blocks make room.
    Scratch::Block& oldest = t_scratch.blocks[t_scratch.next];
    t_scratch.next = (t_scratch.next + 1) % kKept;
    std::free(oldest.address);
    oldest = {start, size};
    return;
  }
  std::free(start);
}
}

namespace korimg {

int SetPipelineThreads(int threads) {
  return halide_set_num_threads(threads);
}

std::string ChosenForm(const PipelineEntry& pipeline) {
  const auto can = [](std::uint64_t word) {
    const std::uint64_t features[2] = {kNoRuntime | kSse41 | word, 0};
    return CanUse(2, features) != 0;
  };
  if (pipeline.withBase && !can(0)) return "base";
  if (pipeline.withAvx2 && can(kAvx | kAvx2)) return "avx2";
  return can(kAvx) ? "avx" : "sse41";
}

void LimitForms(const std::string& highest) {
  const std::uint64_t denied = highest == "base"    ? kSse41 | kAvx | kAvx2
                               : highest == "sse41" ? kAvx | kAvx2
                               : highest == "avx"   ? kAvx2
                                                    : 0;
  g_allowed.store(~denied, std::memory_order_relaxed);
}

long long PipelineFailures() {
  return g_failures;
}

const char* Version() {
  return KORIMG_VERSION;
}

}  // namespace korimg
