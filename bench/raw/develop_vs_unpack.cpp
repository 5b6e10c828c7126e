// Developing a camera raw file of 24 megapixels from file to files, beside LibRaw's own unpacking alone.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <libraw/libraw.h>

#include "tests/support/Dng.h"
#include "tests/support/Images.h"

namespace fs = std::filesystem;

namespace {

/// A noisy sky with stars, as losslessly compressed as cameras do it.
korimg::test::Dng Frame() {
  korimg::test::Dng dng;
  dng.width = 6000;
  dng.height = 4000;
  dng.black = {512, 512, 512, 512};
  dng.neutral = {0.5, 1, 0.7};
  dng.compressed = true;
  dng.pixels.resize(static_cast<size_t>(dng.width) * dng.height);
  for (size_t i = 0; i < dng.pixels.size(); ++i) {
    const double noise = korimg::test::Noise(2 * i) + korimg::test::Noise(2 * i + 1) - 1;
    dng.pixels[i] = static_cast<std::uint16_t>(i % 9973 < 4 ? 9000 : 900 + 60 * noise);
  }
  return dng;
}

double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> times) {
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
  return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s TOOL FOLDER [RUNS]: writes a raw file and its results into the folder\n",
                 argv[0]);
    return 2;
  }
  const std::string tool = argv[1];
  const fs::path folder = argv[2], raw = folder / "frame.dng";
  const int runs = argc > 3 ? std::atoi(argv[3]) : 7;
  fs::create_directories(folder);
  korimg::test::WriteDng(raw, Frame());
  std::printf("%s: %.1f MB\n", raw.filename().c_str(), static_cast<double>(fs::file_size(raw)) / 1e6);
  std::vector<double> unpack, floats, sixteen;
  for (int i = 0; i < runs; ++i) {
    unpack.push_back(Seconds([&] {
      LibRaw reader;
      if (reader.open_file(raw.c_str()) != LIBRAW_SUCCESS || reader.unpack() != LIBRAW_SUCCESS) std::abort();
    }));
    const auto develop = [&](const std::string& options) {
      const std::string command = "'" + tool + "' develop -q --overwrite '" + raw.string() + "' --out '" +
                                  (folder / "done").string() + "' " + options;
      if (std::system(command.c_str()) != 0) std::abort();
    };
    floats.push_back(Seconds([&] { develop(""); }));
    sixteen.push_back(Seconds([&] { develop("--bits 16"); }));
  }
  const double base = Median(unpack);
  std::printf("unpack alone        %.3f s\n", base);
  std::printf("develop, floats     %.3f s, ratio %.2f\n", Median(floats), Median(floats) / base);
  std::printf("develop, 16 bits    %.3f s, ratio %.2f\n", Median(sixteen), Median(sixteen) / base);
}
