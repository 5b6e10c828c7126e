// A page that tells what was done to each frame.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace korimg::tool {

struct ReportRow {
  std::string file, served;       ///< the light, and the masters that served it
  std::filesystem::path preview;  ///< empty for a light that could not be done
  double mean = 0, clipped = 0;   ///< of the result: mean, and share of pixels limited at 0
};

struct Report {
  std::string command;               ///< as the tool was called
  std::vector<std::string> masters;  ///< a line for each
  std::vector<ReportRow> rows;
};

/// Writes the page; pictures are named relative to it. Throws FileError.
void WriteReport(const Report& report, const std::filesystem::path& path);

}  // namespace korimg::tool
