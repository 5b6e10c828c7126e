// Camera raw files.
#include "fuzz/Support.h"

using namespace korimg;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ReadImage(fuzz::WriteInput("input.dng", data, size), {.lessBlack = true});
  return 0;
}
