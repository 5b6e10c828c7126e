// Loads the library, runs a pipeline on its pool and unloads it, again and again: a host with plug-ins does
// that.
#include <cstdio>
#include <cstring>

#include <HalideBuffer.h>
#include <dlfcn.h>

#include "korimg/pipelines/runtime/Runtime.h"

int main(int, char** argv) {
  for (int round = 0; round < 5; ++round) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    using Table = const std::vector<korimg::PipelineEntry>& (*)();
    const auto table =
        library ? reinterpret_cast<Table>(dlsym(library, "_ZN6korimg13PipelineTableEv")) : nullptr;
    if (!table) {
      std::printf("%s\n", dlerror());
      return 1;
    }
    std::vector<float> in(500 * 500, 1.0f), out(500 * 500);
    Halide::Runtime::Buffer<float, 2> from(in.data(), 500, 500), to(out.data(), 500, 500);
    void* arguments[] = {from.raw_buffer(), to.raw_buffer()};
    for (const korimg::PipelineEntry& entry : table()) {
      if (std::strcmp(entry.metadata()->name, "copy_float") == 0) entry.call(arguments);
    }
    dlclose(library);
    if (out != in) return 1;
  }
  return 0;
}
