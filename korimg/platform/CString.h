#pragma once

#include <string>

/// A string of wide characters.
class CString {
 public:
  CString() = default;
  CString(const wchar_t* text) : text_(text ? text : L"") {}  // NOLINT: converts by design
  CString(std::wstring text) : text_(std::move(text)) {}      // NOLINT: converts by design

  int GetLength() const { return static_cast<int>(text_.size()); }
  bool IsEmpty() const { return text_.empty(); }
  void Empty() { text_.clear(); }
  operator const wchar_t*() const { return text_.c_str(); }  // NOLINT: converts by design

  bool operator==(const CString& other) const { return text_ == other.text_; }
  bool operator==(const wchar_t* other) const { return text_ == other; }

 private:
  std::wstring text_;
};
