// A folder with an awkward name that lives as long as a test, and small helpers around files in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "session/files/ImageFile.h"

namespace korimg::files {

class FolderTest : public ::testing::Test {
 protected:
  FolderTest() {
    std::string name = (std::filesystem::temp_directory_path() / "~ß [1] 星雲 (a)+b.gz;c XXXXXX").string();
    folder_ = mkdtemp(name.data());
  }
  ~FolderTest() override { std::filesystem::remove_all(folder_); }

  std::filesystem::path In(const std::string& name) const { return folder_ / name; }

  /// Names in the folder.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      names.push_back(entry.path().filename());
    return names;
  }

  std::filesystem::path folder_;
};

/// World coordinates that only rows from the lowest up bring into the order of the sky; nothing states it.
inline Header SkyFromBelow() {
  Header header;
  for (const auto& [key, text] : {std::pair("CTYPE1", "RA---TAN"), {"CTYPE2", "DEC--TAN"}}) {
    header.Set(key, text);
  }
  for (const auto& [key, number] : {std::pair("CRPIX1", 3.0),
                                    {"CRPIX2", 2.0},
                                    {"CD1_1", -0.5},
                                    {"CD1_2", 0.0},
                                    {"CD2_1", 0.0},
                                    {"CD2_2", 0.5}}) {
    header.Set(key, number);
  }
  return header;
}

inline std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Planes of one image, each width * height floats.
using Planes = std::vector<std::vector<float>>;

/// Reads everything in bands of `band` rows, from the last band to the first if `backwards`.
inline Planes ReadAll(ImageReader& reader, int band, bool backwards = false) {
  const ImageInfo& info = reader.Info();
  Planes planes(info.planes, std::vector<float>(static_cast<std::size_t>(info.width) * info.height));
  const int bands = (info.height + band - 1) / band;
  for (int i = 0; i < bands; ++i) {
    const int y = (backwards ? bands - 1 - i : i) * band;
    float* to[3] = {};
    for (int p = 0; p < info.planes; ++p)
      to[p] = planes[p].data() + static_cast<std::size_t>(y) * info.width;
    reader.ReadRows(y, std::min(band, info.height - y), to);
  }
  return planes;
}

inline void WriteAll(ImageWriter& writer, const Planes& planes, int width, int height, int band) {
  for (int y = 0; y < height; y += band) {
    const float* from[3] = {};
    for (std::size_t p = 0; p < planes.size(); ++p)
      from[p] = planes[p].data() + static_cast<std::size_t>(y) * width;
    writer.WriteRows(y, std::min(band, height - y), from);
  }
  writer.Commit();
}

/// The folder of real frames, or an empty path where there is none.
inline std::filesystem::path RealFrames() {
  const char* name = std::getenv("KORIMG_TEST_DATA");
  return name != nullptr && std::filesystem::is_directory(name) ? name : "";
}

/// The text of the FileError that `action` throws; empty if it throws none.
template <typename Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const FileError& error) {
    return error.what();
  }
  return {};
}

}  // namespace korimg::files
