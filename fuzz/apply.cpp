// Recipes of `korimg apply`, run from files to a file on both kinds of stores.
#include <algorithm>
#include <sstream>

#include <CLI/CLI.hpp>

#include "korimg/platform/CException.h"

#include "app/verbs/Verbs.h"
#include "fuzz/Support.h"

using namespace korimg;
using namespace korimg::tool;

namespace {

/// A small image with wild pixels, in the folder of this process.
void MakeFile(const char* name, int planes, int kind) {
  constexpr int kWidth = 24, kHeight = 17;
  const auto store = fuzz::QuietJob().MakeStore();
  CVelImage image(store, CImage::Float, kWidth, kHeight, planes, 1.0, 0.0, 1, nullptr);
  for (int p = 0; p < planes; ++p) {
    image.SetLevel(p, 100 + 10 * p, 900 + 25 * p);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      float& v = image.GetWritableLine(0, i / kWidth, p)[i % kWidth];
      v = static_cast<float>((i * 7919 + p * 31 + kind) % 1009);
      if (i % 97 == 11) v = i % 2 ? NAN : i % 3 ? INFINITY : 1e30f;
    }
  }
  files::Header header;
  if (kind == 2) header.Set("BAYERPAT", "RGGB");
  SaveImage(fuzz::QuietJob(), image, header, fuzz::Folder() / name);
}

/// Runs the verb as the command line does. Answers how it ended.
std::string Outcome(std::vector<std::string> words) {
  CLI::App app;
  Tool tool;
  tool.options = {.threads = 1, .memory = 4 << 20, .quiet = true, .overwrite = true};
  AddApply(app, tool);
  std::string outcome = "done";
  try {
    std::reverse(words.begin(), words.end());
    app.parse(words);
  } catch (const CLI::ParseError&) {
    outcome = "usage";
  } catch (const UsageError& error) {
    outcome = std::string_view(error.what()).ends_with("add --store paged") ? "other store" : "usage";
  } catch (const files::FileError&) {
    outcome = "file";
  } catch (CMemoryException* error) {
    error->Delete();
    outcome = "memory";
  }
  return outcome;
}

}  // namespace

// The first line holds the words of the recipe, the second one letters for options and the rectangle, and the
// others the polygon.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool made = [] {
    fuzz::QuietJob();
    MakeFile("gray.fits", 1, 1);
    MakeFile("mosaic.fits", 1, 2);
    MakeFile("colour.fits", 3, 3);
    std::filesystem::current_path(fuzz::Folder());
    return true;
  }();
  fuzz::Expect(made, "files to work on");
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::string recipe, letters, polygon;
  std::getline(in, recipe);
  std::getline(in, letters);
  std::getline(in, polygon, '\0');
  const auto wants = [&](char letter) { return letters.find(letter) != letters.npos; };

  std::vector<std::string> words = {"apply"};
  std::istringstream split(recipe);
  for (std::string word; split >> word;) {
    // No other options than those below, and no other files.
    if (word[0] != '-' && word.find('/') == word.npos) words.push_back(word);
  }
  words.push_back(wants('c') ? "colour.fits" : wants('b') ? "mosaic.fits" : "gray.fits");
  words.insert(words.end(), {"-o",
                             wants('p')   ? "out.png"
                             : wants('t') ? "out.tif"
                                          : "out.fits",
                             "--overwrite", "--quiet", "--threads", "1", "--memory", "1M"});
  if (const std::size_t at = letters.find_first_of("0123456789-"); at != letters.npos) {
    words.push_back("--rect=" + letters.substr(at));
  }
  if (wants('m')) words.insert(words.end(), {"--mask", "gray.fits"});
  if (wants('m') && wants('M')) words.push_back("--mask-reverse");
  if (wants('s')) {
    fuzz::WriteInput("polygon", polygon.data(), polygon.size());
    words.insert(words.end(), {"--select", "polygon"});
  }
  if (wants('s') && wants('S')) words.push_back("--select-reverse");
  if (wants('i')) words.insert(words.end(), {"--bits", "16"});

  std::string outcomes[2];
  for (const int paged : {0, 1}) {
    std::vector<std::string> call = words;
    call.insert(call.end(), {"--store", paged ? "paged" : "contiguous"});
    outcomes[paged] = Outcome(call);
  }
  const bool noRoom =
      outcomes[0] == "memory" || outcomes[1] == "memory";  // planes share a file on one of them
  fuzz::Expect(outcomes[0] == outcomes[1] || outcomes[0] == "other store" || noRoom,
               "both stores end alike: " + outcomes[0] + ", " + outcomes[1]);
  return 0;
}
