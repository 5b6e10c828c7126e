#include "korimg/image/CImageSelection.h"

#include <algorithm>

int CImageSelection::SetHeight(int height) {
  height_ = std::max(height, 0);
  spans_.assign(height_, {kWhole, 0});
  spans_.emplace_back();
  active_ = 0;
  return 1;
}

int CImageSelection::SetInOut(int y, int in, int out) {
  if (spans_.empty() || y < 0 || y > height_) return 0;
  spans_[y] = {in, out};
  active_ = 1;
  return 1;
}

int CImageSelection::SetAllLine(int y, int selected) {
  return SetInOut(y, selected ? kWhole : kNothing, 0);
}

void CImageSelection::SetAllSelection() {
  spans_.clear();
  active_ = 0;
}

void CImageSelection::SetNoSelection() {
  SetAllSelection();
}

int CImageSelection::GetBool(int y, int x) const {
  if (spans_.empty() || y < 0 || y > height_) return 0;
  const Span& span = spans_[y];
  if (span.in == kNothing) return 0;
  return span.in == kWhole || (x >= span.in && x <= span.out);
}

std::pair<int, int> CImageSelection::GetRange(int y, int width) const {
  if (spans_.empty() || y < 0 || y > height_) return {0, 0};
  const Span& span = spans_[y];
  if (span.in == kWhole) return {0, width};
  const int first = std::clamp(span.in, 0, width);
  return {first, std::clamp(span.in == kNothing ? first : std::min(span.out, width - 1) + 1, first, width)};
}
