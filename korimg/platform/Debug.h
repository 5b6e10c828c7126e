#pragma once

#include <functional>
#include <string>

#include "korimg/platform/Export.h"

/// Sends one debug line to the sink. Never throws.
KORIMG_API void OutputDebugStringW(const wchar_t* text) noexcept;

namespace korimg {

/// Sets where debug lines go; an empty function drops them, which is the default. Called from any thread, one
/// at a time.
KORIMG_API void SetDebugSink(std::function<void(const std::wstring&)> sink);

/// Sends a debug line given in UTF-8.
KORIMG_API void DebugLine(const std::string& text) noexcept;

/// Turn UTF-8 to wide characters and back; what is not valid becomes U+FFFD.
KORIMG_API std::wstring Widen(const std::string& utf8);
KORIMG_API std::string Narrow(const std::wstring& text);

}  // namespace korimg
