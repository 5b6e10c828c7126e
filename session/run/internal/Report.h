// A page that tells what became of a session.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korimg::session {

/// A light and what happened to it. What is not known is not shown.
struct ReportFrame {
  std::string file;
  std::string served;           ///< the masters that calibrated it
  std::string reason;           ///< why it was left out; empty: it is in the stack
  std::string note;             ///< what few stars leave open of where it lies
  std::string thumbnail;        ///< a JPEG
  std::string method;           ///< how it was registered
  double clipped = 0;           ///< share of the pixels limited at 0
  std::optional<double> start;  ///< of its exposure, seconds since 1970
  std::optional<double> stars, fwhm, elongation, guideError, sky, noise;
  std::optional<double> dx, dy, degrees, residual;
  std::optional<double> light;             ///< of its stars, in that of the same ones on the reference
  std::optional<double> weight, rejected;  ///< in the stack; share of its pixels
};

struct ReportStack {
  std::string name;                                        ///< of its files
  std::string picture;                                     ///< a JPEG
  std::vector<std::pair<std::string, std::string>> facts;  ///< their names, and what they are
  std::string gradient;  ///< a JPEG of what was taken off; empty: nothing was
};

struct Report {
  std::string command;            ///< as the tool was called
  std::vector<std::string> plan;  ///< what was found, how it was matched, and what is left out, by lines
  std::vector<ReportStack> stacks;
  std::vector<ReportFrame> frames;  ///< in order of time; in the end those that could not be read
};

/// Writes the page, which needs no other file. Throws FileError.
void WriteReport(const Report& report, const std::filesystem::path& path);

}  // namespace korimg::session
