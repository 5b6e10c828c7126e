// TIFF files.
#include "fuzz/Support.h"

using namespace korimg;
using namespace std::string_view_literals;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!fuzz::Begins(data, size, {"II\x2a\0"sv, "MM\0\x2a"sv, "II\x2b\0"sv, "MM\0\x2b"sv})) return 0;
  fuzz::ReadImage(fuzz::WriteInput("input.tif", data, size));
  return 0;
}
