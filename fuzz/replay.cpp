// Runs a fuzz target over files and folders of files, in place of libFuzzer.
#include <algorithm>
#include <iterator>
#include <vector>

#include "fuzz/Support.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      std::copy(fs::directory_iterator(fs::absolute(argv[i])), {}, std::back_inserter(files));
    } else {
      files.push_back(fs::absolute(argv[i]));
    }
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    fmt::print("{}\n", file.filename().string());
    std::fflush(stdout);  // the last name tells the file that ended the run
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  if (files.empty()) fmt::print(stderr, "nothing to replay: name files, or a folder that holds some\n");
  return files.empty();
}
