// Runs the built tool as a person or a script calls it.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Folder.h"
#include "tests/support/Images.h"
#include "tests/support/Process.h"

namespace korimg::files {

using test::kSanitized;

struct Result {
  int code;
  std::string out, err;
};

/// What a verb tells programs: an object of JSON in each line.
inline std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(nlohmann::json::parse(line));
  }
  return lines;
}

/// Starts the job, kills it as soon as `when` holds, and answers whether it was killed rather than done.
inline bool RunAndKill(const std::filesystem::path& folder, const std::vector<std::string>& words, int signal,
                       const std::function<bool()>& when) {
  const pid_t child = fork();
  if (child == 0) {
    if (chdir(folder.c_str()) != 0) _exit(98);
    const int sink = open("/dev/null", O_WRONLY);
    dup2(sink, 1);
    dup2(sink, 2);
    std::vector<char*> arguments;
    for (const std::string& word : words) {
      arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execv(KORIMG_TOOL, arguments.data());
    _exit(99);
  }
  int status = 0;
  while (!when()) {
    if (waitpid(child, &status, WNOHANG) == child) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  kill(child, signal);
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) || WEXITSTATUS(status) == 130;
}

class ToolTest : public FolderTest {
 protected:
  /// Runs a shell command in which "korimg" is the tool that was built, in this test's folder.
  Result Shell(const std::string& command) {
    // The font library keeps what it has read.
    const std::string leaks = "export LSAN_OPTIONS=print_suppressions=0:suppressions='" KORIMG_LEAKS "' && ";
    const std::string script = (kSanitized ? leaks : "") + "cd '" + folder_.string() +
                               "' && korimg() { '" KORIMG_TOOL "' \"$@\"; } && { " + command +
                               "; } > out.txt 2> err.txt < /dev/null";
    const int status = std::system(("bash -c " + Quoted(script)).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadBytes(In("out.txt")), ReadBytes(In("err.txt"))};
  }

  static std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
      quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
  }

  void Frame(const std::string& name, int width, int height, const test::PixelRule& rule,
             const std::string& type = "float32", Header header = {}) {
    const auto writer = ImageWriter::Create(
        In(name),
        {.width = width, .height = height, .type = type, .header = std::move(header), .overwrite = true});
    std::vector<float> row(width);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        row[x] = static_cast<float>(rule(0, x, y));
      }
      writer->WriteRows({row.data(), 1, width, y, 1});
    }
    writer->Commit();
  }

  /// A FITS file of floats with levels 100 to 900.
  void Save(const std::string& name, int width, int height, int planes, const test::PixelRule& rule,
            Header header = {}) {
    for (int p = 0; p < planes; ++p) {
      header.Set("KORLMIN" + std::to_string(p + 1), 100.0);
      header.Set("KORLMAX" + std::to_string(p + 1), 900.0);
    }
    Planes pixels(planes, std::vector<float>(static_cast<size_t>(width) * height));
    for (int p = 0; p < planes; ++p) {
      for (int i = 0; i < width * height; ++i) {
        pixels[p][i] = static_cast<float>(rule(p, i % width, i / width));
      }
    }
    const auto writer = ImageWriter::Create(
        In(name), {.width = width, .height = height, .planes = planes, .header = header, .overwrite = true});
    WriteAll(*writer, pixels, width, height, 16);
  }

  Planes Read(const std::string& name) { return ReadAll(*ImageReader::Open(In(name)), 64); }
};

}  // namespace korimg::files
