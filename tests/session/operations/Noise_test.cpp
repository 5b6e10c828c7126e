// What the repairs add to the library's: patterns from headers, and refusals.
#include "tests/session/operations/OperationTest.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class Noise : public OperationTest {
 protected:
  Image File(int planes, const std::string& pattern = "") {
    files::Header header;
    if (!pattern.empty()) header.Set("BAYERPAT", pattern);
    return Saved(*Make(MemoryStore(), 40, 31, planes, Random(100, 1000)), header);
  }
};

TEST_F(Noise, AMosaicsPatternComesFromItsHeaderUnlessItIsTold) {
  std::vector<float> told[2];
  for (const bool mirrored : {false, true}) {
    told[mirrored] = Result(File(1), "cfa-noise", {{"pattern", mirrored ? "grbg" : "rggb"}});
    const std::string pattern = mirrored ? "GRBG" : "RGGB";
    EXPECT_EQ(Result(File(1, pattern), "cfa-noise", {}), told[mirrored]);
    EXPECT_EQ(Result(File(1, "BGGR"), "cfa-noise", {{"pattern", pattern == "GRBG" ? "grbg" : "rggb"}}),
              told[mirrored]);
  }
  EXPECT_NE(told[0], told[1]);
  EXPECT_NE(Result(File(1), "cfa-noise", {{"pattern", "honeycomb2"}}), told[0]);
}

TEST_F(Noise, WhatCannotBeRepairedIsRefused) {
  const struct {
    int planes;
    const char* operation;
    std::map<std::string, std::string> values;
    const char* says;
  } cases[] = {
      {3, "cfa-noise", {{"pattern", "rggb"}}, "no mosaic"},
      {1, "cfa-noise", {}, "pattern="},
      {1, "colour-noise", {}, "one plane"},
      {1, "fringe", {}, "one plane"},
      {3, "fringe", {{"colour", "0,10,20"}}, "some red"},
      {3, "hot-cool", {{"pixels", "hot"}, {"cool", "0.3"}}, "leave out"},
      {1, "kernel", {{"matrix", "2"}, {"green", "3"}}, "one plane"},
      {3, "digital-development", {{"weight", "2"}}, "filter=mean"},
      {3, "kernel", {{"matrix", "1,2;3,4"}}, "2 x 2"},
      {3, "kernel", {{"matrix", "1"}, {"blue", "1,2,3"}}, "3 x 1"},
  };
  for (const auto& c : cases) {
    ExpectRefused(File(c.planes), c.operation, c.values, c.says);
  }
}

TEST_F(Noise, KernelsOfPlanesGoBeforeTheOneForAll) {
  Image image = File(3);
  const auto before = Pixels(image.Pixels());
  const auto after = Result(File(3), "kernel", {{"matrix", "1"}, {"green", "2"}, {"blue", "0.5"}});
  const size_t plane = before.size() / 3;
  for (size_t i = 0; i < before.size(); i += 97) {
    const float factor = i < plane ? 1.0f : i < 2 * plane ? 2.0f : 0.5f;
    ASSERT_EQ(after[i], before[i] * factor) << i;
  }
}

}  // namespace
}  // namespace korimg::session
