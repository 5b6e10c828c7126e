#include "session/operations/internal/NumberLines.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "session/files/ImageFile.h"
#include "session/job/Job.h"

namespace korimg::session {

std::vector<std::vector<double>> ReadNumberLines(const std::filesystem::path& path, size_t least, size_t most,
                                                 double limit, const std::string& wanted) {
  std::ifstream in(path);
  if (!in) throw files::FileError(path, "cannot be read; name a text file");
  std::vector<std::vector<double>> lines;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    std::istringstream words(line.substr(0, line.find('#')));
    std::vector<double> values;
    bool good = true;
    for (std::string word; words >> word;) {
      const auto value = ToNumber(word);
      // The comparison refuses NaN too.
      good = good && value && std::abs(*value) <= limit;
      values.push_back(value.value_or(0));
    }
    if (values.empty()) continue;
    if (!good || values.size() < least || values.size() > most) {
      throw files::FileError(path, fmt::format("line {}: '{}' is no {}", number, line.substr(0, 60), wanted));
    }
    lines.push_back(std::move(values));
  }
  return lines;
}

}  // namespace korimg::session
