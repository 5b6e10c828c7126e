// A folder with an awkward name that lives as long as a test, and small helpers around files in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <type_traits>
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

/// The rows of planes, of which each is a part of its vector.
template <class PlanesOfOne>
auto RowsOf(PlanesOfOne& planes, int width, int top, int rows) {
  using Pixel = std::remove_reference_t<decltype(planes[0][0])>;
  Pixel* starts[3] = {};
  for (std::size_t p = 0; p < planes.size(); ++p)
    starts[p] = planes[p].data() + static_cast<std::size_t>(top) * width;
  return Band<Pixel>(starts, static_cast<int>(planes.size()), width, top, rows);
}

/// Memory for a band with gaps between its rows, which nobody may look at or change.
class GappedRows {
 public:
  GappedRows(int planes, int width, int top, int rows, int gap)
      : pitch_(width + gap), pixels_(static_cast<std::size_t>(planes) * rows * pitch_, kGap) {
    float* starts[3] = {};
    for (int p = 0; p < planes; ++p)
      starts[p] = pixels_.data() + static_cast<std::size_t>(p) * rows * pitch_;
    band = {starts, planes, width, top, rows, pitch_};
  }

  bool HasWholeGaps() const {
    for (std::size_t i = 0; i < pixels_.size(); ++i) {
      if (static_cast<int>(i % pitch_) >= band.Width() && pixels_[i] != kGap) return false;
    }
    return true;
  }

 private:
  static constexpr float kGap = -1e9F;

  int pitch_;
  std::vector<float> pixels_;

 public:
  Band<float> band;
};

/// Reads everything in bands of `band` rows, from the last band to the first if `backwards`. Every other band
/// has gaps between its rows.
inline Planes ReadAll(ImageReader& reader, int band, bool backwards = false) {
  const ImageInfo& info = reader.Info();
  Planes planes(info.planes, std::vector<float>(static_cast<std::size_t>(info.width) * info.height));
  const int bands = (info.height + band - 1) / band;
  for (int i = 0; i < bands; ++i) {
    const int y = (backwards ? bands - 1 - i : i) * band;
    GappedRows rows(info.planes, info.width, y, std::min(band, info.height - y), i % 2 == 0 ? 3 : 0);
    reader.ReadRows(rows.band);
    EXPECT_TRUE(rows.HasWholeGaps()) << info.path;
    CopyPixels(rows.band, RowsOf(planes, info.width, y, rows.band.Rows()));
  }
  return planes;
}

/// Writes everything in such bands.
inline void WriteAll(ImageWriter& writer, const Planes& planes, int width, int height, int band) {
  for (int y = 0; y < height; y += band) {
    const int count = std::min(band, height - y);
    GappedRows rows(static_cast<int>(planes.size()), width, y, count, y / band % 2 == 0 ? 2 : 0);
    CopyPixels(RowsOf(planes, width, y, count), rows.band);
    writer.WriteRows(rows.band);
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
