// Text as it is compared: cases of letters do not matter.
#pragma once

#include <string>
#include <string_view>

namespace korimg::files {

/// Letters of ASCII become small ones, whatever the locale; other bytes stay.
inline std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace korimg::files
