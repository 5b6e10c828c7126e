#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include <HalideRuntime.h>
#include <gtest/gtest.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/Debug.h"

#include "tests/support/FailedPipeline.h"
#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

std::string TypeName(halide_type_t type) {
  const char* code = type.code == halide_type_float ? "f" : type.code == halide_type_uint ? "u" : "i";
  return code + std::to_string(type.bits);
}

/// "name:2d:f32" of a buffer, "name:f32" of a number.
std::string Describe(const halide_filter_argument_t& argument) {
  const std::string name = std::regex_replace(argument.name, std::regex(R"(\$\d+)"), "");
  const bool buffer = argument.kind != halide_argument_kind_input_scalar;
  return name + ":" + (buffer ? std::to_string(argument.dimensions) + "d:" : "") + TypeName(argument.type);
}

std::string Signature(const halide_filter_metadata_t& metadata) {
  std::string inputs, outputs;
  for (int i = 0; i < metadata.num_arguments; ++i) {
    const halide_filter_argument_t& argument = metadata.arguments[i];
    (argument.kind == halide_argument_kind_output_buffer ? outputs : inputs) += Describe(argument) + " ";
  }
  return inputs + "-> " + outputs.substr(0, outputs.size() - 1);
}

/// The composite family: every form, scale, kernel and op.
std::map<std::string, std::string> Composites() {
  std::map<std::string, std::string> signatures;
  for (const std::string form : {"intshift", "floatshift", "rotate"}) {
    for (const bool level : {false, true}) {
      for (const std::string kernel : {"bicubic", "bilinear", "lanczos2", "lanczos3", "nearest"}) {
        for (const std::string op : {"average", "add", "sub", "sub_cutminus", "mult", "div", "diff",
                                     "brighter", "darker", "default", "weight"}) {
          std::string name = "composit_" + form + (level ? "_level_" : "_");
          if (form != "intshift") name += kernel + "_";
          std::string signature = form == "intshift" ? "a:2d:f32 b:2d:f32 shift_x:i32 shift_y:i32 "
                                                     : "a:2d:f32 b:2d:f32 shift_x:f32 shift_y:f32 ";
          if (form == "rotate") signature += "center_x:f32 center_y:f32 cosR:f32 sinR:f32 ";
          signature += "outside:f32 ";
          if (level) signature += "level_min_a:f32 level_range_a:f32 level_min_b:f32 level_range_b:f32 ";
          if (op == "weight") signature += "weight:f32 ";
          signatures[name + op + "_float"] = signature + "-> composit:2d:f32";
        }
      }
    }
  }
  return signatures;
}

TEST(Pipelines, AreThoseOfTheList) {
  std::map<std::string, std::map<std::string, std::string>> listed, built;  // family, name, signature
  for (const auto& file : std::filesystem::directory_iterator(KORIMG_PIPELINE_LISTS)) {
    if (file.path().extension() != ".txt") continue;
    std::ifstream list(file.path());
    for (std::string line; std::getline(list, line);) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream words(line);
      std::string name, signature;
      words >> name >> std::ws;
      std::getline(words, signature);
      listed[file.path().stem()][name] = signature;
    }
  }
  ASSERT_GE(listed.size(), 10u);
  listed["composite"] = Composites();
  EXPECT_EQ(listed["composite"].size(), 242u);
  for (const PipelineEntry& entry : PipelineTable()) {
    const halide_filter_metadata_t* metadata = entry.metadata();
    built[entry.family][metadata->name] = Signature(*metadata);
  }
  ASSERT_GE(built.size(), 4u);
  for (const auto& [family, members] : built) {
    for (const auto& [name, signature] : members) {
      EXPECT_EQ(signature, listed[family][name]) << name;
    }
    EXPECT_EQ(members.size(), listed[family].size()) << "a member of " << family << " is missing";
  }
}

/// Storage and shape of one argument of a pipeline that is called with plausible values of all kinds.
/// Size of the buffers that pipelines are called with.
struct Size {
  int width, height;
};

class Argument {
 public:
  Argument(const halide_filter_argument_t& argument, int bins, const Size& size) : argument_(argument) {
    const auto [width, height] = size;
    const std::string name = argument.name;
    if (argument.kind == halide_argument_kind_input_scalar) {
      const auto has = [&](const char* part) { return name.find(part) != std::string::npos; };
      number_ = has("Bins")                                      ? bins
                : has("nR")                                      ? (bins - 1) / 2
                : has("fDarkThreshold")                          ? (has("Min") ? 50 : 100)
                : has("fHighlightThreshold")                     ? (has("Max") ? 700 : 500)
                : has("start") || has("Start")                   ? height / 45
                : has("end") || has("End") || has("nWidth")      ? std::min(width, height) / 2
                : has("nHeight")                                 ? height / 2
                : has("Range") || has("Max") || has("Average")   ? 700.5
                : has("Min") || has("threshold") || has("shift") ? 2.3
                : has("Gamma")                                   ? 1.25
                                                                 : 0.75;
      return;
    }
    const bool table = argument.dimensions == 1;
    const bool complex = argument.dimensions == 3 && argument.type.code == halide_type_float;
    const int planar[] = {table ? bins : width, height, 4}, woven[] = {2, width, height};
    const int terms[] = {16, height};  // of polynomials
    const bool places = std::regex_replace(name, std::regex(R"(\$\d+)"), "") == "rows";
    const int* extents = complex ? woven : places ? terms : planar;
    long long count = 1;
    for (int i = 0; i < argument.dimensions; ++i) {
      dimensions_[i] = {0, extents[i], static_cast<int>(count), 0};
      count *= extents[i];
    }
    if (name.find("binned") != std::string::npos) {
      dimensions_[0].extent = width / bins;
      dimensions_[1].extent = height / bins;
    }
    bytes_.resize(count * argument.type.bytes());
    for (long long i = 0; i < count; ++i) {
      const double value = places        ? 4 * Noise(i) - 1 + (i % 16 == 8 ? static_cast<double>(i / 16) : 0)
                           : table       ? Noise(i)
                           : i % 97 == 5 ? NAN
                           : i % 89 == 7 ? INFINITY
                                         : 1000 * Noise(i) - 100;
      if (argument.type.code == halide_type_float && argument.type.bits == 32) {
        const auto f = static_cast<float>(value);
        std::memcpy(&bytes_[i * 4], &f, 4);
      } else if (argument.type.code == halide_type_float) {
        std::memcpy(&bytes_[i * 8], &value, 8);
      } else {
        bytes_[i * argument.type.bytes()] = static_cast<unsigned char>(i);
      }
    }
    buffer_.host = bytes_.data();
    buffer_.type = argument.type;
    buffer_.dimensions = argument.dimensions;
    buffer_.dim = dimensions_;
  }

  void* Address() {
    if (argument_.kind != halide_argument_kind_input_scalar) return &buffer_;
    const halide_type_t type = argument_.type;
    const auto f = static_cast<float>(number_);
    const auto i = static_cast<std::int32_t>(number_);
    if (type.code == halide_type_float && type.bits == 64) {
      std::memcpy(scalar_, &number_, 8);
    } else {
      std::memcpy(scalar_, type.code == halide_type_float ? static_cast<const void*>(&f) : &i, 4);
    }
    return scalar_;
  }

  bool IsOutput() const { return argument_.kind == halide_argument_kind_output_buffer; }

  /// All NaN are the same: which of two a sum passes on is left to the compiler.
  void AddTo(std::uint64_t& hash) {
    if (argument_.type.code == halide_type_float && argument_.type.bits == 32) {
      for (size_t i = 0; i < bytes_.size(); i += 4) {
        float number;
        std::memcpy(&number, &bytes_[i], 4);
        if (std::isnan(number)) number = NAN;
        std::memcpy(&bytes_[i], &number, 4);
      }
    }
    for (const unsigned char byte : bytes_) {
      hash = (hash ^ byte) * 1099511628211ULL;
    }
  }

 private:
  const halide_filter_argument_t& argument_;
  double number_ = 0;
  alignas(8) unsigned char scalar_[8] = {};
  std::vector<unsigned char> bytes_;
  halide_dimension_t dimensions_[3];
  halide_buffer_t buffer_{};
};

/// Runs a pipeline on made-up arguments and gives a hash of its outputs, or its error.
std::string Fingerprint(const PipelineEntry& entry, const Size& size) {
  const halide_filter_metadata_t& metadata = *entry.metadata();
  std::vector<std::unique_ptr<Argument>> arguments;
  std::vector<void*> addresses;
  for (int i = 0; i < metadata.num_arguments; ++i) {
    arguments.push_back(std::make_unique<Argument>(metadata.arguments[i], 7, size));
    addresses.push_back(arguments.back()->Address());
  }
  const int status = entry.call(addresses.data());
  std::uint64_t hash = 14695981039346656037ULL;
  for (auto& argument : arguments) {
    if (argument->IsOutput()) argument->AddTo(hash);
  }
  return std::string(metadata.name) + (status ? " failed " : " ") + std::to_string(status ? status : hash);
}

/// Some tiles and their rests; less than a vector of the widest form; one that ends within its second.
constexpr Size kSizes[] = {{203, 135}, {7, 9}, {13, 8}};

/// Run again with a form's name, the program prints these and does nothing else: a pipeline keeps its form
/// for life.
const bool g_printed = [] {
  const char* form = std::getenv("KORIMG_FINGERPRINTS");
  if (!form) return false;
  LimitForms(form);
  for (const Size& size : kSizes) {
    for (const PipelineEntry& entry : PipelineTable()) {
      std::printf("%s\n", Fingerprint(entry, size).c_str());
    }
  }
  std::exit(0);
}();

std::vector<std::string> FingerprintsOf(const std::string& form) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  FILE* output = popen(("KORIMG_FINGERPRINTS=" + form + " '" + program + "'").c_str(), "r");
  std::vector<std::string> lines;
  char line[256];
  while (output && std::fgets(line, sizeof line, output)) {
    lines.emplace_back(line);
  }
  if (output) pclose(output);
  return lines;
}

TEST(Pipelines, AllFormsGiveTheSameBits) {
  const std::vector<std::string> lowest = FingerprintsOf("sse41");
  ASSERT_EQ(lowest.size(), PipelineTable().size() * std::size(kSizes));
  for (const std::string& line : lowest) {
    EXPECT_EQ(line.find("failed"), std::string::npos) << line;
  }
  for (const char* form : {"base", "avx", "avx2"}) {
    EXPECT_EQ(FingerprintsOf(form), lowest) << form;
  }
}

TEST(Pipelines, AFailureIsNotedAndLeavesTheOutput) {
  std::string noted;
  const long long failures = PipelineFailures();
  SetDebugSink([&](const std::wstring& line) { noted = Narrow(line); });
  float out[8] = {9, 9, 9, 9, 9, 9, 9, 9};
  EXPECT_NE(FailAPipeline(out), 0);
  EXPECT_EQ(out[0], 9);
  EXPECT_NE(noted.find("pipeline: "), std::string::npos);
  EXPECT_GT(PipelineFailures(), failures);
  SetDebugSink(nullptr);
}

TEST(Pipelines, FormsAreChosenFromTheLowestUp) {
  const PipelineEntry& plain = PipelineTable().front();
  std::set<std::string> withBase;
  for (const PipelineEntry& entry : PipelineTable()) {
    if (!entry.withBase) continue;
    const std::string name = entry.metadata()->name;
    withBase.insert(name);
    LimitForms("base");
    EXPECT_EQ(ChosenForm(entry), "base") << name;
    EXPECT_EQ(ChosenForm(plain), "sse41") << "which is asked for nothing";
    LimitForms("");
    EXPECT_EQ(ChosenForm(entry), __builtin_cpu_supports("avx2") ? "avx2" : "sse41") << name;
  }
  EXPECT_EQ(withBase, (std::set<std::string>{"resolution_lanczos2_float", "resolution_lanczos3_float",
                                             "resolution_nearest_float"}));
  for (const auto& [limit, chosen] : {std::pair("sse41", "sse41"), std::pair("avx", "avx")}) {
    LimitForms(limit);
    EXPECT_EQ(ChosenForm(plain), __builtin_cpu_supports("avx") ? chosen : "sse41");
  }
  LimitForms("");
}

}  // namespace
