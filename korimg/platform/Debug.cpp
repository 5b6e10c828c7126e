#include "korimg/platform/Debug.h"

#include <mutex>

namespace {

std::mutex& SinkMutex() {
  static std::mutex mutex;
  return mutex;
}

std::function<void(const std::wstring&)>& Sink() {
  static std::function<void(const std::wstring&)> sink;
  return sink;
}

constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

void OutputDebugStringW(const wchar_t* text) noexcept {
  try {
    const std::lock_guard lock(SinkMutex());
    if (Sink()) Sink()(text ? text : L"");
  } catch (...) {
    // A line that can't be written is lost; the operation that wrote it goes on.
  }
}

namespace korimg {

void SetDebugSink(std::function<void(const std::wstring&)> sink) {
  const std::lock_guard lock(SinkMutex());
  Sink() = std::move(sink);
}

void DebugLine(const std::string& text) noexcept {
  try {
    OutputDebugStringW(Widen(text).c_str());
  } catch (...) {
    // As above: no memory for the line.
  }
}

std::wstring Widen(const std::string& utf8) {
  std::wstring text;
  for (size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<unsigned char>(utf8[i++]);
    const int more = lead < 0x80         ? 0
                     : (lead >> 5) == 6  ? 1
                     : (lead >> 4) == 14 ? 2
                     : (lead >> 3) == 30 ? 3
                                         : -1;
    char32_t code = more == 0 ? lead : more > 0 ? lead & (0x3F >> more) : kReplacement;
    for (int k = 0; k < more; ++k) {
      if (i >= utf8.size() || (static_cast<unsigned char>(utf8[i]) >> 6) != 2) {
        code = kReplacement;
        break;
      }
      code = (code << 6) | (static_cast<unsigned char>(utf8[i++]) & 0x3F);
    }
    text += static_cast<wchar_t>(code > 0x10FFFF ? kReplacement : code);
  }
  return text;
}

std::string Narrow(const std::wstring& text) {
  std::string utf8;
  for (const wchar_t wide : text) {
    auto code = static_cast<char32_t>(wide);
    if (code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) code = kReplacement;
    const int more = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    static constexpr unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
    utf8 += static_cast<char>(kLead[more] | (code >> (6 * more)));
    for (int k = more - 1; k >= 0; --k)
      utf8 += static_cast<char>(0x80 | ((code >> (6 * k)) & 0x3F));
  }
  return utf8;
}

}  // namespace korimg
