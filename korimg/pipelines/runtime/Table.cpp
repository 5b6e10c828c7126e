#include <Pipelines.h>

#include "korimg/pipelines/runtime/Runtime.h"

const std::vector<korimg::PipelineEntry>& korimg::PipelineTable() {
  static const std::vector<PipelineEntry> table = {
#include <Pipelines.inc>
  };
  return table;
}
