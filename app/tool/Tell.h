// What a verb has done or, with --dry-run, would do: for programs or for people.
#pragma once

#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/tool/Tool.h"

namespace korimg::tool {

/// One line. Bytes of file names that are no UTF-8 are replaced.
inline std::string Dump(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

/// Prints the object with --json, else the line.
inline void Tell(Tool& tool, const nlohmann::ordered_json& json, const std::string& line) {
  if (!tool.options.json) return tool.console.Say(line);
  fmt::print("{}\n", Dump(json));
  std::fflush(stdout);
}

}  // namespace korimg::tool
