#pragma once

#include <cstddef>
#include <vector>

#include "korimg/platform/CException.h"
#include "korimg/platform/Export.h"

/// An argument, such as an index, is out of its range.
class KORIMG_API CInvalidArgException : public CException {};

/// Throws a CInvalidArgException*.
[[noreturn]] KORIMG_API void AfxThrowInvalidArgException();

/// An array that checks its indices: those outside throw CInvalidArgException*. `Argument` is how values are
/// handed in, and of no further meaning.
template <class T, class Argument = const T&>
class CArray {
 public:
  std::ptrdiff_t GetSize() const { return static_cast<std::ptrdiff_t>(items_.size()); }
  std::ptrdiff_t GetCount() const { return GetSize(); }
  bool IsEmpty() const { return items_.empty(); }
  /// Changes the size; new items are zero.
  void SetSize(std::ptrdiff_t size) {
    Check(size >= 0);
    items_.resize(static_cast<std::size_t>(size));
  }
  T& operator[](std::ptrdiff_t i) { return items_[Index(i)]; }
  const T& operator[](std::ptrdiff_t i) const { return items_[Index(i)]; }
  T& GetAt(std::ptrdiff_t i) { return items_[Index(i)]; }
  const T& GetAt(std::ptrdiff_t i) const { return items_[Index(i)]; }
  void SetAt(std::ptrdiff_t i, Argument value) { items_[Index(i)] = value; }
  T* GetData() { return items_.data(); }
  const T* GetData() const { return items_.data(); }
  /// Answers the index of the new item.
  std::ptrdiff_t Add(Argument value) {
    items_.push_back(value);
    return GetSize() - 1;
  }
  /// Inserts before item i, or at the end.
  void InsertAt(std::ptrdiff_t i, Argument value) {
    Check(i >= 0 && i <= GetSize());
    items_.insert(items_.begin() + i, value);
  }
  void RemoveAt(std::ptrdiff_t i, std::ptrdiff_t count = 1) {
    Check(i >= 0 && count >= 0 && count <= GetSize() && i <= GetSize() - count);
    items_.erase(items_.begin() + i, items_.begin() + i + count);
  }
  void RemoveAll() { items_.clear(); }

 private:
  static void Check(bool valid) {
    if (!valid) AfxThrowInvalidArgException();
  }
  std::size_t Index(std::ptrdiff_t i) const {
    Check(i >= 0 && i < GetSize());
    return static_cast<std::size_t>(i);
  }

  std::vector<T> items_;
};
