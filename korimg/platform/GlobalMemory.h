// Memory blocks that are passed by handle, and the packed bitmaps that travel in them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "korimg/platform/Export.h"

using HGLOBAL = struct HGLOBAL__*;
/// A global memory block that holds a BITMAPINFOHEADER, a palette (4 bytes an entry: blue, green, red, 0) and
/// lines of pixels padded to 4 bytes, bottom line first unless the height is negative.
using HDIB = HGLOBAL;

/// Header of a bitmap, as in files, on clipboards and of drawing surfaces.
struct BITMAPINFOHEADER {
  std::uint32_t biSize = sizeof(BITMAPINFOHEADER);
  std::int32_t biWidth = 0;
  std::int32_t biHeight = 0;
  std::uint16_t biPlanes = 1;
  std::uint16_t biBitCount = 0;
  std::uint32_t biCompression = 0;
  std::uint32_t biSizeImage = 0;
  std::int32_t biXPelsPerMeter = 0;
  std::int32_t biYPelsPerMeter = 0;
  std::uint32_t biClrUsed = 0;
  std::uint32_t biClrImportant = 0;
};

/// Flags of a block that may move while it is not locked, and is zeroed.
constexpr unsigned GHND = 66;

/// Makes a block, zeroed whatever the flags are; null when there is no memory.
KORIMG_API HGLOBAL GlobalAlloc(unsigned flags, std::size_t bytes);
/// Answers the address of the block, valid until GlobalFree; null for a null handle.
KORIMG_API void* GlobalLock(HGLOBAL block);
KORIMG_API void GlobalUnlock(HGLOBAL block);
KORIMG_API std::size_t GlobalSize(HGLOBAL block);
KORIMG_API void GlobalFree(HGLOBAL block);
