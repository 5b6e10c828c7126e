// Directions in space and their rotation. Axis 0 points at the viewer, 1 to the right, 2 up.
#pragma once

#include <array>

#include "korimg/platform/Export.h"

/// Direction cosines.
using Direction = std::array<double, 3>;
/// Rows of a matrix that turns directions.
using Rotation = std::array<std::array<double, 3>, 3>;

/// Answers the direction of a longitude (from axis 0 towards axis 1) and a latitude (towards axis 2), in
/// degrees.
KORIMG_API Direction AdToDc(double longitude, double latitude);
KORIMG_API Direction RotateDc(const Rotation& matrix, const Direction& direction);
/// Answers the turn about the line of sight, in degrees: positive angles take up to the left.
KORIMG_API Rotation RotateX(double angle);
/// Answers the turn about the axis to the right, in degrees: positive angles take up to the viewer.
KORIMG_API Rotation RotateY(double angle);
/// Answers the rotation by b and then by a.
KORIMG_API Rotation MulMatrix(const Rotation& a, const Rotation& b);
