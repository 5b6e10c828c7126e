// Limiting an operation's result to a selection, or blending it with what was before by a mask.
#include <algorithm>
#include <cstring>

#include "korimg/image/CImageMask.h"
#include "korimg/image/CImageSelection.h"
#include "korimg/image/CVelImage.h"
#include "korimg/image/Exceptions.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// How much of the result a mask's pixel takes.
class Share {
 public:
  explicit Share(const CVelImage& mask)
      : low_(static_cast<float>(mask.GetLevelMin(0))), high_(static_cast<float>(mask.GetLevelMax(0))) {}

  bool IsUsable() const { return low_ != high_; }
  float Low() const { return low_; }
  float Range() const { return high_ - low_; }
  float operator()(float v) const {
    const float m = (v - low_) * scale_;
    return m > 0 ? (m < 1 ? m : 1) : 0;  // NaN takes nothing
  }

 private:
  float low_, high_;
  float scale_ = 1 / (high_ - low_);
};

/// The plane of another image that goes with plane p.
int PlaneFor(const CVelImage& other, int p) {
  return std::min(p, other.GetPlanes() - 1);
}

/// Blends the pixels from `first` to `last` of a line, with nothing of `t` at a share of 0; or the other way
/// round.
void Blend(float* t, const float* o, const float* mask, int first, int last, const Share& share,
           bool reverse) {
  if (reverse) {
    for (int x = first; x < last; ++x) {
      t[x] = (o[x] - t[x]) * share(mask[x]) + t[x];
    }
  } else {
    for (int x = first; x < last; ++x) {
      t[x] = (t[x] - o[x]) * share(mask[x]) + o[x];
    }
  }
}

/// Calls line(plane, y) for the planes of each line of the window, and counts lines of all planes together.
template <class F>
void ForMaskedLines(CVelImage& image, const Window& window, Team team, F&& line) {
  ForLines(team, window.top, window.bottom, [&](int y) {
    for (int p = 0; p < image.GetPlanes(); ++p) {
      line(p, y);
    }
    image.ShowProgress(1);
  });
}

void BlendLines(CVelImage& image, CVelImage& other, CVelImage& mask, const Window& window, bool reverse,
                Team team) {
  const Share share(mask);
  ForMaskedLines(image, window, team, [&](int p, int y) {
    Blend(image.GetWritableLine(0, y, p), other.GetLine(0, y, PlaneFor(other, p)), mask.GetLine(0, y, 0),
          window.left, window.right, share, reverse);
  });
}

/// Brings the other's pixels back to where nothing is selected, and blends the rest if there is a mask.
void Select(CVelImage& image, CVelImage& other, const CImageSelection& selection, CVelImage* mask,
            bool reverse, const Window& window, Team team) {
  const Share share(mask ? *mask : image);
  ForMaskedLines(image, window, team, [&](int p, int y) {
    float* t = image.GetWritableLine(0, y, p);
    const float* o = other.GetLine(0, y, PlaneFor(other, p));
    auto [first, last] = selection.GetRange(y, image.GetWidth());
    first = std::clamp(first, window.left, window.right);
    last = std::clamp(last, window.left, window.right);
    const auto restore = [&](int from, int to) {
      if (to > from) std::memcpy(t + from, o + from, sizeof(float) * (to - from));
    };
    const auto blend = [&](int from, int to) {
      if (mask) Blend(t, o, mask->GetLine(0, y, 0), from, to, share, reverse);
    };
    if (selection.GetReverse()) {
      restore(first, last);
      blend(window.left, first);
      blend(last, window.right);
    } else {
      blend(first, last);
      restore(window.left, first);
      restore(last, window.right);
    }
  });
}

/// Blends through an image of its own, whose pixels are 0 where nothing is blended.
void BlendByPipeline(CVelImage& image, CVelImage& other, CVelImage& mask, Window window, bool reverse) {
  const Share share(mask);
  CVelImage result;
  MakeWorkImage(result, image);
  const bool straight = window.left == 0 && window.top == 0 && window.Width() >= image.GetWidth() &&
                        window.Width() >= image.GetHeight();
  if (straight) window.bottom = image.GetHeight();
  for (int p = 0; p < image.GetPlanes(); ++p) {
    PlaneBuffer t(image, p), o(other, PlaneFor(other, p));
    const int status = RunIntoWindow(result, p, window, [&](halide_buffer_t* out) {
      return mask_add_float(reverse ? o : t, reverse ? t : o, PlaneBuffer(mask, 0), share.Low(),
                            share.Range(), out);
    });
    if (status) return;
  }
  image.Swap(&result);
}

}  // namespace

int CVelImage::ApplyMask(CRect* rect, CImageSelection* selection, CVelImage* other, CImageMask* mask,
                         int show) {
  CVelImage* shares = mask ? mask->GetVelImage() : nullptr;
  const bool selects = selection && !selection->IsAllSelection();
  if (!other || (!shares && !selects)) return 0;
  if (other->IsEmpty() || !SameSize(*other, *this) ||
      (shares && (shares->IsEmpty() || !SameSize(*shares, *this)))) {
    return 0;
  }
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6187, window.Height());
  if (window.IsEmpty()) return 0;
  if (!shares) {
    Select(*this, *other, *selection, nullptr, false, window, Team::All);
    return 1;
  }
  if (!Share(*shares).IsUsable()) return 0;
  const bool reverse = mask->GetReverse() != 0;
  if (selects && !mask->HaveSelectionMask()) {
    Select(*this, *other, *selection, shares, reverse, window, Team::One);
  } else if (MayRunPipelines(*this, *other, *shares)) {
    BlendByPipeline(*this, *other, *shares, window, reverse);
  } else {
    (this->*(HasVectors() ? &CVelImage::ApplyMask_Do0_x : &CVelImage::ApplyMask_Do0))(
        other, shares, window.left, window.right, window.top, window.bottom, reverse);
  }
  return 1;
}

void CVelImage::ApplyMask_Do0(CVelImage* other, CVelImage* maskImage, int left, int right, int top,
                              int bottom, int reverse) {
  BlendLines(*this, *other, *maskImage, {left, top, right, bottom}, reverse, Team::One);
}

void CVelImage::ApplyMask_Do0_x(CVelImage* other, CVelImage* maskImage, int left, int right, int top,
                                int bottom, int reverse) {
  BlendLines(*this, *other, *maskImage, {left, top, right, bottom}, reverse, Team::All);
}
