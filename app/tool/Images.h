// Between files and the library's images, by bands of rows: a whole image is never held beside its store.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "korimg/image/CVelImage.h"

#include "app/files/ImageFile.h"
#include "app/tool/Tool.h"

namespace korimg::tool {

/// Rows of a band of about 4 MiB.
int BandRows(int width, int planes, int height);

/// An image with what its file said.
struct LoadedImage {
  std::unique_ptr<CVelImage> image;
  files::ImageInfo info;
};

/// Reads a file into a store. Levels come from the keywords KORLMIN1..3 and KORLMAX1..3, else from what a
/// camera raw file says, else from the type of integers, else from the extremes of the pixels.
LoadedImage LoadImage(Tool& tool, const std::shared_ptr<CVmManager>& store, const std::filesystem::path& path,
                      const files::ReadOptions& options = {});

enum class Calculation : int { Add = 0, Subtract = 1, Multiply = 2, Divide = 3 };

/// Calculates with all pixels of an image, in place.
void Calculate(CVelImage& image, Calculation operation, double value);

struct SaveOptions {
  bool integers = false;  ///< 16-bit values in place of floats, for FITS and TIFF
};

/// Writes an image with a header, its levels as keywords. PNG holds 16-bit values from black to white by the
/// levels; FITS and TIFF hold raw values.
void SaveImage(Tool& tool, CVelImage& image, const files::Header& header, const std::filesystem::path& path,
               const SaveOptions& options = {});

/// Writes an 8-bit picture by the image's levels, made smaller by a whole number of pixels.
void SavePicture(Tool& tool, CVelImage& image, const std::filesystem::path& path, int shrink);

/// The whole number that brings an image to at most `side` pixels.
int ShrinkTo(const CVelImage& image, int side);

}  // namespace korimg::tool
