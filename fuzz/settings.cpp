// An INI file of settings, and the measure that takes one.
#include "korimg/image/CVelImage.h"
#include "korimg/measurement/PSF.h"
#include "korimg/platform/CRegistry.h"

#include "fuzz/Support.h"

using namespace korimg;

namespace {

/// A star in the middle of a small image.
CVelImage& Star() {
  static CVelImage* const image = [] {
    constexpr int kSide = 31;
    static const auto store = fuzz::QuietJob().MakeStore();
    auto* made = new CVelImage(store, CImage::Float, kSide, kSide, 1, 1.0, 0.0, 1, nullptr);
    for (int i = 0; i < kSide * kSide; ++i) {
      const int x = i % kSide - kSide / 2, y = i / kSide - kSide / 2;
      made->GetWritableLine(0, i / kSide, 0)[i % kSide] = 1000.0f / static_cast<float>(1 + x * x + y * y);
    }
    return made;
  }();
  return *image;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool once = [] {
    setenv("XDG_CONFIG_HOME", fuzz::Folder().c_str(), 1);
    return std::filesystem::create_directory(fuzz::Folder() / "korimg");
  }();
  fuzz::Expect(once, "a new folder");
  fuzz::WriteInput("korimg/korimg.ini", data, size);
  CRegistry::SetProvider(nullptr);
  double number = 0;
  int whole = 0;
  if (!CRegistry::Read(L"Psf", L"Max", 64.0, &number)) fuzz::Expect(number == 64, "the default");
  if (!CRegistry::Read(L"Dialog\\AutoStretch", L"Count", 7, &whole)) fuzz::Expect(whole == 7, "the default");
  PSF psf(&Star());
  double width = 0;
  psf.Add({13, 17});
  psf.GetMedianFWHM(&width);
  return 0;
}
