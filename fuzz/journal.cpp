// The journal of a stack that was killed: bands that were written, and a file that was damaged since or never
// was one.
#include "session/stack/internal/Journal.h"

#include <algorithm>
#include <cstring>

#include "fuzz/Support.h"

using namespace korimg;
using namespace korimg::session;

namespace {

constexpr int kWidth = 5, kHeight = 7;
constexpr std::size_t kFrames = 2;

Journal Open(const std::filesystem::path& path, bool maps, Journal::Use use) {
  Journal::Images images = {&StackBand::result};
  if (maps) images.insert(images.end(), {&StackBand::low, &StackBand::high});
  return Journal(path, "digest", {kWidth, kHeight, 1}, images, kFrames, use);
}

/// The pixel that a band holds at a place of one of its images.
float Value(int image, int x, int y) {
  return static_cast<float>(1000 * image + 100 * y + x);
}

/// A journal of whole bands, of 1 to 3 rows each by the bits of `cuts`.
void WriteBands(Journal& journal, unsigned cuts, bool maps) {
  for (int y0 = 0, k = 0; y0 < kHeight && k < 4; ++k, cuts >>= 2) {
    const int rows = std::min(1 + static_cast<int>(cuts % 4) % 3, kHeight - y0);
    std::vector<float> pixels[3];
    StackBand band;
    Band<const float>* const images[] = {&band.result, &band.low, &band.high};
    for (int image = 0; image < (maps ? 3 : 1); ++image) {
      for (int i = 0; i < rows * kWidth; ++i) {
        pixels[image].push_back(Value(image, i % kWidth, y0 + i / kWidth));
      }
      *images[image] = {pixels[image].data(), 1, kWidth, y0, rows};
    }
    band.counts.resize(kFrames);
    journal.Add(band);
    y0 += rows;
  }
}

}  // namespace

// The first byte says how: bit 0, with maps; bit 1, the rest is the file itself; else bands are written, and
// the rest is pairs of a place and a byte that damage them. The second byte says the bands, the third how
// much is cut off.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const bool maps = data[0] & 1;
  const std::filesystem::path path = fuzz::Folder() / "output.fits.resume";
  bool damaged = true;
  if (data[0] & 2) {
    fuzz::WriteInput("output.fits.resume", data + 3, size - 3);
  } else {
    std::filesystem::remove(path);
    {
      Journal journal = Open(path, maps, Journal::Kept);
      WriteBands(journal, data[1], maps);
    }
    std::ifstream in(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), {}};
    damaged = size >= 6 || data[2] != 0;
    bytes.resize(bytes.size() - std::min<std::size_t>(data[2], bytes.size()));
    for (std::size_t i = 3; i + 2 < size && !bytes.empty(); i += 3) {
      bytes[(data[i] * 256u + data[i + 1]) % bytes.size()] = static_cast<char>(data[i + 2]);
    }
    fuzz::WriteInput("output.fits.resume", bytes.data(), bytes.size());
  }
  const Journal journal = Open(path, maps, Journal::Kept);
  int rows = 0;
  journal.ForBands([&](const StackBand& band) {
    fuzz::Expect(band.result.Top() == rows && band.result.Rows() > 0 && band.counts.size() == kFrames,
                 "bands in order");
    rows += band.result.Rows();
    if (data[0] & 2) return;  // a file that is made up may have a sum that is right
    const Band<const float>* const images[] = {&band.result, &band.low, &band.high};
    for (int image = 0; image < (maps ? 3 : 1); ++image) {
      for (int y = band.result.Top(); y < rows; ++y) {
        for (int x = 0; x < kWidth; ++x) {
          fuzz::Expect(images[image]->Row(0, y)[x] == Value(image, x, y), "pixels as they were written");
        }
      }
    }
  });
  fuzz::Expect(rows == journal.NextRow() && rows <= kHeight, "all rows are visited");
  if (!damaged) fuzz::Expect(rows >= 4, "what was written is found");
  return 0;
}
