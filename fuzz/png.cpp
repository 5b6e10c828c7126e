// PNG files.
#include "fuzz/Support.h"

using namespace korimg;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!fuzz::Begins(data, size, {"\x89PNG\r\n\x1a\n"})) return 0;
  fuzz::ReadImage(fuzz::WriteInput("input.png", data, size));
  return 0;
}
