// FITS files: plain, packed by gzip, tile-compressed.
#include "fuzz/Support.h"

using namespace korimg;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!fuzz::Begins(data, size, {"SIMPLE", "\x1f\x8b"})) return 0;
  fuzz::ReadImage(fuzz::WriteInput("input.fits", data, size));
  return 0;
}
