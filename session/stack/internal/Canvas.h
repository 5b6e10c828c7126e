// Frames side by side, as the panels of a mosaic: a grid that holds them all, and one sky under them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korimg/image/internal/SmoothSurface.h"

#include "session/stack/Stack.h"

namespace korimg::session {

/// A grid that holds all frames: that of the reference, moved and made larger.
struct Canvas {
  int left = 0, top = 0;  ///< where its first pixel lies on the reference
  Shape shape;
};

/// Lays frames on the reference's grid as it would be without the distortion of its lens, where maps know of
/// one: beyond the reference's frame nobody knows what it would do. True when they do.
bool Straighten(std::vector<StackInput>& inputs);

/// Finds the smallest one. Throws FileError for a frame whose place is no number, or so far off that the
/// canvas would be a hundred times the frames.
Canvas CanvasOf(const std::vector<StackInput>& inputs, const Shape& reference);

/// Moves frames from the reference's grid to that of the canvas.
void LayOn(const Canvas& canvas, std::vector<StackInput>& inputs);

/// Holds what is taken off the planes of a frame, once its light is multiplied.
struct FrameSky {
  double scale = 1;
  std::vector<SmoothSurface> surfaces;  ///< by planes, in pixels of the frame
};

/// Measures how the skies of overlapping frames differ, by the medians of small squares, and finds for each
/// frame the surface (polynomial of the second degree; of a frame that overlaps little, less) that brings
/// them together, and changes them no more than that. `scales` bring frames to one light; the level stays
/// that of the reference. Reads each frame once.
std::vector<FrameSky> MatchSkies(Job& job, const std::vector<StackInput>& inputs, const Canvas& canvas,
                                 size_t reference, const std::vector<double>& scales);

/// Multiplies a frame's light, and takes its surfaces off.
void TakeOff(const FrameSky& sky, StackInput& input);

}  // namespace korimg::session
