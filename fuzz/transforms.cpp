// Registration files, as `--transforms` takes them.
#include "session/stack/internal/Transforms.h"

#include <cmath>

#include "fuzz/Support.h"

using namespace korimg;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto path = fuzz::WriteInput("transforms", data, size);
  try {
    const session::Transforms transforms(path);
    const session::Transform& one = transforms.Of("a.fits");
    constexpr double kFar = 1e6;
    fuzz::Expect(std::abs(one.dx) <= kFar && std::abs(one.dy) <= kFar && std::abs(one.degrees) <= kFar,
                 "shifts and angles within limits");
    fuzz::Expect(!one.fwhm || *one.fwhm > 0, "widths above 0");
  } catch (const files::FileError& error) {
    fuzz::Expect(std::string_view(error.what()).find('\n') == std::string_view::npos, "one line");
  }
  return 0;
}
