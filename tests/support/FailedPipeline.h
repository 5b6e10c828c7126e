// Fails a pipeline, as want of memory does.
#pragma once

#include <cstdint>
#include <string>

#include <HalideRuntime.h>

#include "korimg/pipelines/runtime/Runtime.h"

namespace korimg::test {

/// Copies 2 x 2 pixels into 4 x 2, which asks for more than there is. Answers the status; 0 where it did not
/// fail.
inline int FailAPipeline(float out[8]) {
  for (const PipelineEntry& entry : PipelineTable()) {
    if (std::string(entry.metadata()->name) != "copy_float") continue;
    float in[4] = {1, 2, 3, 4};
    halide_dimension_t small[2] = {{0, 2, 1, 0}, {0, 2, 2, 0}}, large[2] = {{0, 4, 1, 0}, {0, 2, 4, 0}};
    halide_buffer_t input{}, output{};
    input.host = reinterpret_cast<std::uint8_t*>(in), output.host = reinterpret_cast<std::uint8_t*>(out);
    input.type = output.type = halide_type_t(halide_type_float, 32);
    input.dimensions = output.dimensions = 2;
    input.dim = small, output.dim = large;
    void* arguments[] = {&input, &output};
    return entry.call(arguments);
  }
  return 0;
}

inline int FailAPipeline() {
  float out[8] = {};
  return FailAPipeline(out);
}

}  // namespace korimg::test
