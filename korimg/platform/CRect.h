#pragma once

/// A rectangle in image coordinates, right and bottom exclusive.
class CRect {
 public:
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;

  CRect() = default;
  CRect(int left, int top, int right, int bottom) : left(left), top(top), right(right), bottom(bottom) {}

  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
  bool IsRectEmpty() const { return right <= left || bottom <= top; }
  void SetRectEmpty() { *this = CRect(); }
  bool operator==(const CRect&) const = default;
};
