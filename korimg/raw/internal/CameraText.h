// Names of cameras as headers give them. Internal.
#pragma once

#include <string>
#include <string_view>

#include "korimg/platform/CString.h"

namespace korimg {

/// Lowers ASCII only: names of cameras are, and the user's language must not matter.
inline std::wstring LowerCase(const CString& text) {
  std::wstring lower = static_cast<const wchar_t*>(text);
  for (wchar_t& c : lower) {
    if (c >= L'A' && c <= L'Z') c += L'a' - L'A';
  }
  return lower;
}

inline bool Contains(const std::wstring& text, std::wstring_view part) {
  return text.find(part) != std::wstring::npos;
}

}  // namespace korimg
