#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace korimg::session {

/// Reads a text of `least` to `most` numbers a line, none of them beyond `limit` either way; `#` begins a
/// comment, and empty lines are passed over. `wanted` says what a line is and how it is written, after "is no
/// ". Throws FileError with the line.
std::vector<std::vector<double>> ReadNumberLines(const std::filesystem::path& path, size_t least, size_t most,
                                                 double limit, const std::string& wanted);

}  // namespace korimg::session
