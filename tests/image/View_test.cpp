#include "korimg/image/View.h"

#include <numeric>

#include <gtest/gtest.h>

namespace korimg {
namespace {

constexpr int kPlanes = 3, kWidth = 5, kTop = 10, kRows = 4;

/// Pixels 0, 1, 2 ... in memory, seen as a band of a pitch.
struct Numbers {
  explicit Numbers(int pitch) : pixels(static_cast<size_t>(kPlanes) * kRows * pitch) {
    std::iota(pixels.begin(), pixels.end(), 0.0F);
    float* starts[kPlanes];
    for (int p = 0; p < kPlanes; ++p) {
      starts[p] = &pixels[static_cast<size_t>(p) * kRows * pitch];
    }
    band = {starts, kPlanes, kWidth, kTop, kRows, pitch};
  }

  std::vector<float> pixels;
  Band<float> band;
};

TEST(View, RowsLieAPitchApart) {
  for (const int pitch : {kWidth, kWidth + 3}) {
    const Numbers numbers(pitch);
    const Band<const float> read = numbers.band;  // what may be written may be read
    EXPECT_EQ(read.IsDense(), pitch == kWidth);
    EXPECT_EQ(read.Bottom(), kTop + kRows);
    for (int p = 0; p < kPlanes; ++p) {
      const Plane<const float> plane = numbers.band.Plane(p);
      for (int y = 0; y < kRows; ++y) {
        const auto first = static_cast<float>((p * kRows + y) * pitch);
        for (const Row<const float> row : {read.Row(p, kTop + y), plane[y]}) {
          ASSERT_EQ(row.size(), static_cast<size_t>(kWidth));
          EXPECT_EQ(row.front(), first) << p << ' ' << y;
          EXPECT_EQ(row.back(), first + kWidth - 1) << p << ' ' << y;
        }
      }
    }
  }
}

TEST(View, PartsKeepTheRowsOfTheImage) {
  const Numbers numbers(kWidth + 2);
  const Band<float> part = numbers.band.Part(kTop + 1, 2), moved = part.At(3);
  EXPECT_EQ(part.Rows(), 2);
  EXPECT_EQ(part.Row(2, kTop + 2).data(), numbers.band.Row(2, kTop + 2).data());
  EXPECT_EQ(moved.Row(1, 3).data(), numbers.band.Row(1, kTop + 1).data());
  EXPECT_EQ(numbers.band.Part(kTop + kRows, 0).Rows(), 0);
}

TEST(View, RunsAreAsLongAsMemoryHasThem) {
  for (const int pitch : {kWidth, kWidth + 1}) {
    const Numbers numbers(pitch);
    std::vector<float> seen;
    int runs = 0;
    numbers.band.Plane(1).ForRuns([&](Row<float> run) {
      seen.insert(seen.end(), run.begin(), run.end());
      ++runs;
    });
    EXPECT_EQ(runs, pitch == kWidth ? 1 : kRows);
    std::vector<float> wanted;
    for (int y = 0; y < kRows; ++y) {
      const Row<float> row = numbers.band.Plane(1)[y];
      wanted.insert(wanted.end(), row.begin(), row.end());
    }
    EXPECT_EQ(seen, wanted);
  }
}

TEST(View, CopiesLeaveWhatLiesBetweenTheRows) {
  const Numbers from(kWidth + 1);
  Numbers to(kWidth + 4);
  std::vector<float> expected = to.pixels;
  CopyPixels(from.band, to.band.At(0));
  for (int p = 0; p < kPlanes; ++p) {
    for (int y = 0; y < kRows; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        expected[(p * kRows + y) * (kWidth + 4) + x] = static_cast<float>((p * kRows + y) * (kWidth + 1) + x);
      }
    }
  }
  EXPECT_EQ(to.pixels, expected);
}

TEST(View, BuffersHaveRoomForEachBand) {
  BandBuffer buffer;
  for (const int rows : {3, 1, 7}) {
    const Band<float> band = buffer.Get(kPlanes, kWidth, kTop, rows);
    EXPECT_TRUE(band.IsDense());
    EXPECT_EQ(band.Top(), kTop);
    float* next = band.Data()[0];
    for (int p = 0; p < kPlanes; ++p) {
      EXPECT_EQ(band.Data()[p], next) << "planes lie one behind the other";
      band.Plane(p).ForRuns([&](Row<float> run) {
        ASSERT_EQ(run.size(), static_cast<size_t>(kWidth * rows));
        std::iota(run.begin(), run.end(), 0.0F);  // for the sanitizers
      });
      next += kWidth * rows;
    }
  }
}

#ifdef KORIMG_ASSERTIONS
TEST(ViewDeathTest, WhatLiesOutsideIsNoticed) {
  const Numbers numbers(kWidth);
  const Band<float>& band = numbers.band;
  float* const* starts = band.Data();
  EXPECT_DEATH((Band<float>(starts, kPlanes, kWidth, 0, kRows, kWidth - 1)), "pitch >= width");
  EXPECT_DEATH((Band<float>(starts, 4, kWidth, 0, kRows)), "kMostPlanes");
  EXPECT_DEATH(band.Plane(kPlanes), "p < planes_");
  EXPECT_DEATH(band.Row(0, kTop - 1), "y >= 0");
  EXPECT_DEATH(band.Row(0, kTop + kRows), "y < rows_");
  EXPECT_DEATH(band.Part(kTop + 1, kRows), "Bottom");
  EXPECT_DEATH(CopyPixels(band.Part(kTop, 1), band), "Rows");
}
#endif

}  // namespace
}  // namespace korimg
