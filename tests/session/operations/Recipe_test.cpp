#include "session/operations/Recipe.h"

#include <sstream>

#include <gtest/gtest.h>

#include "session/operations/Operations.h"
#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

using Recipe = files::FolderTest;

TEST_F(Recipe, EveryExampleComesBack) {
  std::vector<Step> steps;
  std::string texts;
  for (const Operation& operation : Operations()) {
    Step step(operation);
    std::istringstream words(operation.example);
    for (std::string word; words >> word;) {
      step.Set(word.substr(0, word.find('=')), word.substr(word.find('=') + 1));
    }
    steps.push_back(step);
    texts += step.Text() + "\n";
  }
  files::WriteBytes(In("all.json"), RecipeOf(steps));
  std::string read;
  for (const Step& step : ReadRecipe(In("all.json"))) {
    read += step.Text() + "\n";
  }
  EXPECT_EQ(read, texts);
}

TEST_F(Recipe, TakesValuesAsTheSchemaHasThem) {
  const auto text = [](const std::string& operation, const std::string& values) {
    return ParseRecipe(R"({"steps": [{"operation": ")" + operation + R"(", "values": )" + values + "}]}")
        .front()
        .Text();
  };
  EXPECT_EQ(text("bright", R"({"bright": [1, 2.5, -3]})"), "bright bright=1,2.5,-3");
  EXPECT_EQ(text("curve", R"({"points": [[0, 0], [0.25, 0.5], [1, 1]]})"), "curve points=0:0,0.25:0.5,1:1");
  EXPECT_EQ(text("crop", R"({"rect": [1, 2, 30, 40]})"), "crop rect=1,2,30,40");
  EXPECT_EQ(text("ghs", R"({"inverse": true, "amount": "3"})"), "ghs amount=3 inverse=1");
  EXPECT_EQ(text("kernel", R"({"matrix": [[0, 1, 0], [1, 4, 1], [0, 1, 0]]})"),
            "kernel matrix=0,1,0;1,4,1;0,1,0");
}

TEST_F(Recipe, SaysWhatIsWrong) {
  const auto says = [](const std::string& json) -> std::string {
    try {
      ParseRecipe(json);
    } catch (const UsageError& error) {
      return error.what();
    }
    return "";
  };
  for (const auto& [json, wanted] : std::vector<std::pair<std::string, std::string>>{
           {"", "object of JSON"},
           {"[]", "object of JSON"},
           {R"({"steps": {}})", "list of steps"},
           {R"({"steps": []})", "has no steps"},
           {R"({"steps": [3]})", "step 1 of the recipe: names no operation"},
           {R"({"steps": [{"operation": "invert"}, {"operation": "brihgt"}]})", "step 2"},
           {R"({"steps": [{"operation": "bright", "value": {}}]})", "no use for 'value'"},
           {R"({"steps": [{"operation": "bright", "values": []}]})", "no object"},
           {R"({"steps": [{"operation": "bright", "values": {"colour": 1}}]})", "colour"},
           {R"({"steps": [{"operation": "bright", "values": {"bright": {}}}]})", "is no value"},
           {R"({"steps": [{"operation": "rotate"}]})", "degrees"}}) {
    EXPECT_NE(says(json).find(wanted), std::string::npos) << json << ": " << says(json);
  }
  EXPECT_THROW(ReadRecipe(In("nowhere.json")), files::FileError);
  EXPECT_THROW(ReadRecipe(In(".")), files::FileError);
}

}  // namespace
}  // namespace korimg::session
