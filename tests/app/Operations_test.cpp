#include "app/operations/Operations.h"

#include <gtest/gtest.h>

#include "app/tool/Images.h"
#include "tests/app/Folder.h"
#include "tests/support/Images.h"

namespace korimg::tool {
namespace {

using namespace korimg::test;

class Table : public files::FolderTest {
 protected:
  Table() { tool_.console.SetUp(true, false); }

  /// A colour image of 97 x 71, from a file.
  std::filesystem::path File(const std::string& name, const PixelRule& rule) {
    const auto image = Make(MemoryStore(), 97, 71, 3, rule);
    SaveImage(tool_, *image, {}, In(name));
    return In(name);
  }

  /// A value for a parameter that has no default.
  std::string Value(const Parameter& parameter) {
    if (parameter.kind == ParameterKind::File) return second_.string();
    if (parameter.name == "max") return "800,900,1000";
    if (parameter.kind == ParameterKind::PerPlane) return "150,100,200";
    return parameter.kind == ParameterKind::Integer ? "7" : "437.5";
  }

  std::unique_ptr<CVelImage> Run(const Operation& operation, const std::string& store, CRect* rect) {
    Step step{&operation, {}};
    for (const Parameter& parameter : operation.parameters) {
      if (parameter.defaultValue.empty()) step.values[parameter.name] = Value(parameter);
    }
    managers_.push_back(store == "contiguous" ? MemoryStore() : TinyPool());
    LoadedImage loaded = LoadImage(tool_, managers_.back(), first_);
    Call call(tool_, step, loaded.image, loaded.info.header, rect);
    operation.run(call);
    return std::move(loaded.image);
  }

  Tool tool_;
  std::filesystem::path first_, second_;
  std::vector<std::shared_ptr<CVmManager>> managers_;
};

TEST_F(Table, EveryOperationGivesTheSameOnBothStores) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("second.fits", Random(50, 500, 2));
  for (const Operation& operation : Operations()) {
    for (const bool partial : {false, true}) {
      if (partial && !operation.takesRect) continue;
      CRect rect(13, 5, 90, 60);
      const auto contiguous = Run(operation, "contiguous", partial ? &rect : nullptr);
      const auto paged = Run(operation, "paged", partial ? &rect : nullptr);
      ASSERT_EQ(contiguous->GetPlanes(), paged->GetPlanes()) << operation.name;
      if (!operation.storesAgree) continue;
      EXPECT_EQ(Difference(*contiguous, *paged, *operation.storesAgree), "") << operation.name;
      for (int p = 0; p < contiguous->GetPlanes(); ++p) {
        // Automatic levels count in bins, a few of which make up the difference of the two paths.
        EXPECT_NEAR(contiguous->GetLevelMin(p), paged->GetLevelMin(p), 2.0) << operation.name;
        EXPECT_NEAR(contiguous->GetLevelMax(p), paged->GetLevelMax(p), 2.0) << operation.name;
      }
    }
  }
}

TEST_F(Table, AWindowLeavesTheRestAsItWas) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("second.fits", Random(50, 500, 2));
  for (const Operation& operation : Operations()) {
    if (!operation.takesRect) continue;
    for (const std::string store : {"contiguous", "paged"}) {
      CRect rect(13, 5, 90, 60);
      const auto image = Run(operation, store, &rect);
      for (const auto& [x, y] : {std::pair(12, 30), {90, 30}, {50, 4}, {50, 60}}) {
        EXPECT_EQ(image->GetPixelGrayRaw(x, y, 1), static_cast<float>(Random(100, 1000)(1, x, y)))
            << operation.name;
      }
    }
  }
}

TEST_F(Table, ABlankPixelOfAFlatLeavesItsPixelAlone) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("flat.fits",
                 [](int p, int x, int y) { return x == 7 && y == 9 ? NAN : Random(50, 500, 2)(p, x, y); });
  Step step{&FindOperation("dark-flat"), {{"flat", second_.string()}}};
  managers_.push_back(MemoryStore());
  LoadedImage loaded = LoadImage(tool_, managers_.back(), first_);
  Call call(tool_, step, loaded.image, loaded.info.header, nullptr);
  step.operation->run(call);
  EXPECT_EQ(loaded.image->GetPixelGrayRaw(7, 9, 1), static_cast<float>(Random(100, 1000)(1, 7, 9)));
  EXPECT_TRUE(std::isfinite(loaded.image->GetPixelGrayRaw(8, 9, 1)));
  EXPECT_THROW(Run(FindOperation("flat"), "contiguous", nullptr), UsageError);
}

TEST_F(Table, DefaultsAreWithinTheirRangesAndNamesAreUnique) {
  std::vector<std::string> names;
  for (const Operation& operation : Operations()) {
    names.push_back(operation.name);
    EXPECT_FALSE(operation.summary.empty());
    for (const Parameter& parameter : operation.parameters) {
      EXPECT_FALSE(parameter.help.empty()) << operation.name << " " << parameter.name;
      if (!parameter.defaultValue.empty()) {
        EXPECT_NO_THROW(CheckValue(operation, parameter, parameter.defaultValue)) << operation.name;
      }
    }
  }
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST_F(Table, RefusesValuesThatCantBe) {
  struct Case {
    const char *operation, *parameter, *value;
  };
  for (const Case& c :
       {Case{"bright", "bright", "1,2"}, Case{"bright", "bright", "1,2,3,4"}, Case{"bright", "bright", "red"},
        Case{"bright", "bright", ""}, Case{"bright", "bright", "nan"}, Case{"bright", "bright", "1e9"},
        Case{"lift-up", "lines", "1.5"}, Case{"lift-up", "lines", "-1"}, Case{"calculate", "op", "power"},
        Case{"calculate", "cut-minus", "2"}, Case{"calculate", "value", "12px"}}) {
    const Operation& operation = FindOperation(c.operation);
    const auto parameter = std::find_if(operation.parameters.begin(), operation.parameters.end(),
                                        [&](const Parameter& p) { return p.name == c.parameter; });
    EXPECT_THROW(CheckValue(operation, *parameter, c.value), UsageError) << c.parameter << "=" << c.value;
  }
  EXPECT_THROW(FindOperation("inverse"), UsageError);
}

TEST_F(Table, FramesOfAnotherSizeAreRefusedWithBothSizes) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = In("small.fits");
  SaveImage(tool_, *Make(MemoryStore(), 50, 40, 1, Random(0, 1)), {}, second_);
  for (const char* name : {"dark", "flat", "dark-flat", "paste", "synthesize-dark"}) {
    const std::string error = files::ErrorOf([&] { Run(FindOperation(name), "contiguous", nullptr); });
    EXPECT_NE(error.find("50 x 40"), std::string::npos) << name << ": " << error;
    EXPECT_NE(error.find("97 x 71"), std::string::npos) << name << ": " << error;
  }
}

TEST(Sizes, AreReadWithTheirUnits) {
  EXPECT_EQ(ParseSize("4096"), 4096);
  EXPECT_EQ(ParseSize("512M"), 512LL << 20);
  EXPECT_EQ(ParseSize("1.5GiB"), 3LL << 29);
  EXPECT_EQ(ParseSize("2kb"), 2048);
  for (const char* text : {"", "M", "12X", "-3M", "nan", "1e99", "5MM"}) {
    EXPECT_THROW(ParseSize(text), UsageError) << text;
  }
}

}  // namespace
}  // namespace korimg::tool
