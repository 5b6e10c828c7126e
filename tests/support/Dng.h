// Camera raw files for tests and benchmarks: small DNGs, with plain or losslessly compressed pixels.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace korimg::test {

struct Dng {
  int width = 0, height = 0;     // even when compressed
  std::string pattern = "RGGB";  // letters R, G, B
  std::array<int, 4> black{};    // by position in the cell
  int white = 16383;
  std::array<double, 3> neutral{};  // as shot; zeros: the file does not say
  std::string maker = "Canon", model = "Canon EOS 6D";
  std::vector<std::uint16_t> pixels;  // width x height
  bool compressed = false;  // lossless JPEG (ITU-T T.81 annex H), two columns interleaved as cameras do
};

void WriteDng(const std::filesystem::path& path, const Dng& dng);

}  // namespace korimg::test
