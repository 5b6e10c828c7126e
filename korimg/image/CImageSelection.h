#pragma once

#include <utility>
#include <vector>

#include "korimg/platform/Export.h"

/// Holds a free-form selection: one span of columns for each line. While nothing was set it selects
/// everything, and as little as that: IsAllSelection and IsNoSelection both answer 1.
class KORIMG_API CImageSelection {
 public:
  /// Gives the selection so many lines, all of them whole; it is not active until a line is set. Answers 1.
  int SetHeight(int height);
  /// Selects columns `in` to `out` of line y, both included. 0 when there is no line y.
  int SetInOut(int y, int in, int out);
  /// Selects the whole line y, or nothing of it. 0 when there is no line y.
  int SetAllLine(int y, int selected);
  void SetAllSelection();
  void SetNoSelection();
  int IsAllSelection() const { return !active_; }
  int IsNoSelection() const { return !active_; }
  /// Answers 1 when the pixel is selected.
  int GetBool(int y, int x) const;
  float GetAlpha(int y, int x) const { return GetBool(y, x) ? 1.0f : 0.0f; }
  /// Marks a selection as meant the other way round; who uses it looks at this.
  void SetReverse(int reverse) { reverse_ = reverse; }
  int GetReverse() const { return reverse_; }

  /// Answers the columns selected of a line of `width` pixels, from the first to one behind the last.
  std::pair<int, int> GetRange(int y, int width) const;

 private:
  static constexpr int kWhole = -1, kNothing = -2;
  struct Span {
    int in = kNothing, out = 0;
  };

  std::vector<Span> spans_;  ///< one more than there are lines
  int height_ = 0;
  int active_ = 0;
  int reverse_ = 0;
};
