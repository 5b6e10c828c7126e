#pragma once

#include <nlohmann/json.hpp>

namespace korimg::session {

/// Writes one line. Bytes of file names that are no UTF-8 are replaced.
inline std::string Dump(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace korimg::session
