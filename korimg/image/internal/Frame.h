// The road that all operations travel: the window, the choice of path, pipelines over planes, loops over
// lines and the progress display. Operations hold their own arithmetic and the differences between their two
// paths. Internal.
#pragma once

#include <cstring>

#include <HalideBuffer.h>
#include <Pipelines.h>

#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/platform/Assert.h"

namespace korimg {

/// A rectangle clipped to an image. An image without pixels has an empty one.
struct Window {
  int left = 0, top = 0, right = 0, bottom = 0;

  Window(const CVelImage& image, CRect* rect) {
    if (!image.IsEmpty()) image.NormalizeRect(rect, left, top, right, bottom);
    KORIMG_ASSERT(IsEmpty() || IsInside(image));
  }
  Window(int left, int top, int right, int bottom) : left(left), top(top), right(right), bottom(bottom) {}

  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
  bool IsEmpty() const { return right <= left || bottom <= top; }
  long long Pixels() const { return IsEmpty() ? 0 : 1LL * Width() * Height(); }
  /// Answers the lines that an operation over all planes steps through.
  int Lines(const CVelImage& image) const { return IsEmpty() ? 0 : image.GetPlanes() * Height(); }
  bool IsInside(const CVelImage& image) const {
    return left >= 0 && top >= 0 && right <= image.GetWidth() && bottom <= image.GetHeight();
  }
  bool Covers(const CVelImage& image) const {
    return left == 0 && top == 0 && Width() >= image.GetWidth() && Height() >= image.GetHeight();
  }
};

inline bool SameSize(const CVelImage& a, const CVelImage& b) {
  return a.GetWidth() == b.GetWidth() && a.GetHeight() == b.GetHeight();
}

/// True when `src` has a pixel for each of the target's.
inline bool Fits(const CVelImage& src, const CVelImage& target) {
  return !src.IsEmpty() && !target.IsEmpty() && SameSize(src, target) &&
         src.GetPlanes() >= target.GetPlanes();
}

/// True when `frame` serves every plane of `image`: a mono one by its only plane, a colour one by planes.
inline bool Serves(const CVelImage& frame, const CVelImage& image) {
  return SameSize(frame, image) && !frame.IsEmpty() &&
         (!frame.IsColor() || frame.GetPlanes() >= image.GetPlanes());
}

/// True for an image of red, green and blue, and so a brightness. Two planes are the axes a and b.
inline bool HasColours(const CImage& image) {
  return image.GetPlanes() >= 3;
}

inline bool IsContiguous(const CImage& image) {
  return image.GetAllocationPolicy() != CVmManager::Paged;
}

/// True when pipelines may run: the planes of all images are contiguous.
template <class... Images>
bool MayRunPipelines(const Images&... images) {
  return (IsContiguous(images) && ...);
}

/// Answers a store for contiguous planes beside images: of the first one whose planes are, else a new one.
template <class... Images>
std::shared_ptr<CVmManager> ContiguousStore(Images&... images) {
  std::shared_ptr<CVmManager> store;
  for (CVelImage* image : {static_cast<CVelImage*>(&images)...}) {
    if (!store && IsContiguous(*image)) store = image->VmManager();
  }
  return store ? store : CreateContiguousManager();
}

/// True when the processor offers the vector forms of the line loops, which run on the whole team.
bool HasVectors();

/// Gives a work image the record, shape and kind of store of another, with all pixels 0. Throws
/// velora::CVmMemoryAllocationError when there is no room.
void MakeWorkImage(CVelImage& work, const CVelImage& like);

/// Opens the progress display of an operation, and closes it on every way out.
class ProgressScope {
 public:
  /// The message is a text or its number.
  template <class Message>
  ProgressScope(CVelImage& image, int show, Message message, int total) : image_(image) {
    image_.ShowProgressInit(show, message, total);
  }
  ~ProgressScope() { image_.ShowProgressEnd(0); }
  ProgressScope(const ProgressScope&) = delete;
  ProgressScope& operator=(const ProgressScope&) = delete;

 private:
  CVelImage& image_;
};

/// Calls line(plane, y) for the window's lines of each plane in turn, and counts the lines on the display.
template <class F>
void ForPlaneLines(CVelImage& image, const Window& window, Team team, F&& line) {
  if (window.IsEmpty()) return;
  KORIMG_ASSERT(window.IsInside(image));
  for (int p = 0; p < image.GetPlanes(); ++p) {
    ForLines(team, window.top, window.bottom, [&](int y) {
      line(p, y);
      image.ShowProgress(1);
    });
  }
}

/// Writes formula(plane)(source pixel) over the window.
template <class F>
void MapPixels(CVelImage& target, CVelImage& src, const Window& window, Team team, F&& formula) {
  ForPlaneLines(target, window, team, [&](int p, int y) {
    const auto map = formula(p);
    const float* in = src.GetLine(window.left, y, p);
    float* out = target.GetWritableLine(window.left, y, p);
    for (int x = 0; x < window.Width(); ++x) {
      out[x] = map(in[x]);
    }
  });
}

/// Limits below at 0; NaN stays NaN.
inline float NotNegative(float v) {
  return v < 0.0f ? 0.0f : v;
}

/// A pipeline's view of a whole plane of a contiguous image, or of a temporary plane.
class PlaneBuffer {
 public:
  PlaneBuffer(CImage& image, int plane, bool readOnly = true)
      : PlaneBuffer(reinterpret_cast<float*>(image.GetBlockOnMemory(plane, readOnly)), image.GetWidth(),
                    image.GetHeight()) {
    KORIMG_ASSERT(IsContiguous(image));
  }
  PlaneBuffer(float* pixels, int width, int height) : buffer_(pixels, width, height) {}

  operator halide_buffer_t*() { return buffer_.raw_buffer(); }  // NOLINT: an argument of a pipeline
  void SetMin(int x, int y) { buffer_.set_min(x, y); }
  /// Leaves the first columns and lines.
  void Crop(int width, int height) {
    buffer_.crop(0, 0, width);
    buffer_.crop(1, 0, height);
  }

 private:
  Halide::Runtime::Buffer<float, 2> buffer_;
};

/// Holds a single number that a pipeline gives; 0 when it failed.
template <class T>
class ScalarResult {
 public:
  operator halide_buffer_t*() { return buffer_; }  // NOLINT: an argument of a pipeline
  T Value() const { return value_; }

 private:
  T value_{};
  Halide::Runtime::Buffer<T, 0> buffer_ = Halide::Runtime::Buffer<T, 0>::make_scalar(&value_);
};

/// A contiguous plane for the length of a call, in the room of a store with contiguous planes, where memory
/// freed before is used again and what exceeds the budget is mapped. What it holds at first is undefined.
class TemporaryPlane {
 public:
  TemporaryPlane(CVmManager& contiguous, int width, int height);

  void Clear() { store_.Clear(0); }
  float* Pixels() { return reinterpret_cast<float*>(store_.GetBlockOnMemory(0, false)); }
  PlaneBuffer Buffer() { return PlaneBuffer(Pixels(), width_, height_); }

 private:
  CVmImage store_;
  int width_;
  int height_;
};

/// Runs a pipeline into the window of a contiguous image's plane: run(output buffer) answers its status, and
/// so does this, 0 when it went well. A partial window goes through a zeroed temporary, so that the rest of
/// the plane keeps what it holds, and all of it does when the pipeline fails; so does a whole one that is not
/// `direct`, since the pipeline reads the plane beside the pixel that it writes.
template <class F>
int RunIntoWindow(CVelImage& target, int plane, const Window& window, F&& run, bool direct = true) {
  if (window.IsEmpty()) return 0;
  KORIMG_ASSERT(window.IsInside(target));
  PlaneBuffer whole(target, plane, false);
  if (direct && window.Covers(target)) return run(static_cast<halide_buffer_t*>(whole));
  TemporaryPlane temporary(*target.VmManager(), window.Width(), window.Height());
  temporary.Clear();
  PlaneBuffer part = temporary.Buffer();
  part.SetMin(window.left, window.top);
  if (const int status = run(static_cast<halide_buffer_t*>(part))) return status;
  part.SetMin(0, 0);
  return paste_float(part, window.left, window.right, window.top, window.bottom, 0, 0, whole);
}

/// A contiguous copy of a plane that may be paged: pipelines never see the address of a paged line.
class StagedPlane {
 public:
  StagedPlane(CVelImage& image, int plane, CVmManager& contiguous);
  operator halide_buffer_t*() { return buffer_; }  // NOLINT: an argument of a pipeline

 private:
  std::unique_ptr<TemporaryPlane> copy_;
  PlaneBuffer buffer_;
};

/// Runs a pipeline into the window of a plane: as RunIntoWindow does into a contiguous one, else through a
/// temporary of the given store. Answers the pipeline's status; a plane keeps what it holds unless it is 0.
template <class F>
int WriteThroughPlane(CVelImage& target, int plane, const Window& window, CVmManager& contiguous, F&& run) {
  if (window.IsEmpty() || IsContiguous(target)) return RunIntoWindow(target, plane, window, run);
  TemporaryPlane temporary(contiguous, window.Width(), window.Height());
  PlaneBuffer part = temporary.Buffer();
  part.SetMin(window.left, window.top);
  if (const int status = run(static_cast<halide_buffer_t*>(part))) return status;
  const float* pixels = temporary.Pixels();
  const size_t width = window.Width();
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    std::memcpy(target.GetWritableLine(window.left, y, plane), pixels + (y - window.top) * width,
                width * sizeof(float));
  });
  return 0;
}

}  // namespace korimg
