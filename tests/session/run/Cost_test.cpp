#include "session/run/internal/Cost.h"

#include <gtest/gtest.h>

#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

using CostTest = files::FolderTest;

TEST_F(CostTest, ADiskWithoutRoomIsToldOfWithBothNumbers) {
  Workload work{.out = In("not there/yet")};
  CheckRoom(work, {.results = 1000});
  const long long tooMany = 4'000'000'000'000'000'000;
  for (const Cost& cost : {Cost{.results = tooMany}, Cost{.masters = tooMany},
                           Cost{.results = tooMany / 2, .masters = tooMany / 2}}) {
    const std::string error = files::ErrorOf([&] { CheckRoom(work, cost); });
    EXPECT_NE(error.find("4000000000000000000 bytes needed, "), std::string::npos) << error;
    EXPECT_NE(error.find("no room in folder " + folder_.string()), std::string::npos) << error;
  }
  EXPECT_FALSE(std::filesystem::exists(In("not there")));
}

TEST_F(CostTest, WhatTheBudgetDoesNotHoldIsTemporary) {
  const Shape shape{10000, 8000, 1};  // 320 MB
  const Workload work{
      .masters = {{10, shape}}, .stacks = {{50, shape}}, .hasGradients = true, .out = folder_};
  Job small({.memory = 500'000'000}), large({.memory = 20'000'000'000});
  const Cost tight = CostOf(small, work), loose = CostOf(large, work);
  // The master, and the stack with what is measured on it and its gradient.
  EXPECT_EQ(tight.temporary, 320'000'000 + 3 * 320'000'000 - 500'000'000);
  EXPECT_LT(tight.memory, 2 * 500'000'000 + 100'000'000) << "images and bands";
  EXPECT_EQ(loose.temporary, 0);
  EXPECT_GT(loose.memory, 960'000'000);
  EXPECT_EQ(tight.masters, 0) << "they are not kept";
  EXPECT_GT(tight.results, 11LL * 10000 * 8000);
}

TEST_F(CostTest, TimeGrowsWithLightsPlanesAndMosaics) {
  Job job;
  const auto seconds = [&](size_t lights, int planes, bool isMosaic) {
    return CostOf(job, {.stacks = {{lights, {3000, 2000, planes}, isMosaic}}}).seconds;
  };
  EXPECT_GT(seconds(2000, 1, false), 9 * seconds(200, 1, false));
  EXPECT_GT(seconds(200, 3, false), 1.5 * seconds(200, 1, false));
  EXPECT_GT(seconds(200, 3, true), 1.2 * seconds(200, 3, false));
}

}  // namespace
}  // namespace korimg::session
