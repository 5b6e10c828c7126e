#include <unordered_map>

#include <Pipelines.h>

#include "korimg/pipelines/runtime/Runtime.h"

const std::vector<korimg::PipelineEntry>& korimg::PipelineTable() {
  static const std::vector<PipelineEntry> table = {
#include <Pipelines.inc>
  };
  return table;
}

const korimg::PipelineEntry* korimg::FindPipeline(const std::string& name) {
  static const auto byName = [] {
    std::unordered_map<std::string, const PipelineEntry*> map;
    for (const PipelineEntry& entry : PipelineTable()) {
      map[entry.metadata()->name] = &entry;
    }
    return map;
  }();
  const auto found = byName.find(name);
  return found == byName.end() ? nullptr : found->second;
}
