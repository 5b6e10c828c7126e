#include <cstring>

#include <gtest/gtest.h>

#include "korimg/geometry/CImgResolution.h"

#include "tests/geometry/Reference.h"

using namespace korimg::test;

namespace {

const PixelRule kNoise = Random(0, 1000);

std::vector<std::pair<int, int>> NewSizes(int width, int height) {
  return {{width, height},
          {2 * width, 2 * height},
          {width * 3 / 2 + 1, height * 3 / 2 + 1},
          {width / 2 + 1, height / 2 + 1},
          {2 * width + 5, height / 3 + 1}};
}

std::shared_ptr<CImgResolution> Target(CVelImage& source) {
  return Make<CImgResolution>(source.VmManager(), 2, 2, source.GetPlanes(), Random(-5, 5));
}

/// A position of a pixel of an axis, as pipelines have it.
float Scaled(int n, int size, int newSize) {
  return static_cast<float>(n) * (static_cast<float>(size) / static_cast<float>(newSize));
}

TEST(CImgResolution, PipelinesScaleByEveryKernel) {
  for (const StoreCase& store : {Stores()[0], Stores()[1]}) {
    for (const auto& [width, height] : Sizes()) {
      const auto source = Make(store.make(), width, height, 2, kNoise);
      for (int method = 0; method < kMethodCount; ++method) {
        for (const auto& [w, h] : NewSizes(width, height)) {
          const auto target = Target(*source);
          ASSERT_EQ(target->DoChange(source.get(), w, h, method, 0), 1);
          const auto expected = [&, width = width, height = height, w = w, h = h](int p, int x, int y) {
            return SampleBySum(*source, p, method, Scaled(x, width, w), Scaled(y, height, h), -0.1);
          };
          ASSERT_EQ(target->GetWidth(), w);
          for (int p = 0; p < 2; ++p) {
            for (int y = 0; y < h; ++y) {
              for (int x = 0; x < w; ++x) {
                ASSERT_NEAR(target->GetPixelGrayRaw(x, y, p), expected(p, x, y), 2e-3)
                    << width << "x" << height << " to " << w << "x" << h << " method " << method << " at "
                    << x << ", " << y;
              }
            }
          }
        }
      }
    }
  }
}

TEST(CImgResolution, LinesGoTheirOwnWayAtTheEdges) {
  for (const auto& sides : Sizes()) {
    const auto [columns, rows] = sides;
    const int width = columns, height = rows;
    const auto source = Make(TinyPool(), width, height, 2, kNoise);
    for (const auto& newSides : NewSizes(width, height)) {
      const auto [newColumns, newRows] = newSides;
      const int w = newColumns, h = newRows;
      const auto size = std::to_string(width) + "x" + std::to_string(height) + " to " + std::to_string(w) +
                        "x" + std::to_string(h);
      const auto pixel = [&](int x, int y, int p) -> double { return source->GetPixelGrayRaw(x, y, p); };
      const auto target = Target(*source);

      ASSERT_EQ(target->Do(source.get(), w, h, 0), 1);
      // Beyond the last two pixels of an axis, along their line.
      const auto line = [](double s, int last, auto&& at) {
        const int i = std::max(std::min(static_cast<int>(s), last - 1), 0), j = std::min(i + 1, last);
        return s == i ? at(i) : at(i) + (s - i) * (at(j) - at(i));
      };
      ASSERT_EQ(Difference(
                    *target,
                    [&](int p, int x, int y) {
                      return line(Scaled(y, height, h), height - 1, [&](int row) {
                        return line(Scaled(x, width, w), width - 1,
                                    [&](int column) { return pixel(column, row, p); });
                      });
                    },
                    2e-3),
                "")
          << size;

      ASSERT_EQ(target->Bicubic(source.get(), w, h, 0), 1);
      const auto turned = [](int i, int last) { return i > last || -i > last ? 0 : std::abs(i); };
      const auto bicubic = [&](int p, int x, int y) {
        const double sx = x * (static_cast<double>(width) / w), sy = y * (static_cast<double>(height) / h);
        double sum = 0, weights = 0;
        for (int i = static_cast<int>(sy) - 1; i <= static_cast<int>(sy) + 2; ++i) {
          for (int j = static_cast<int>(sx) - 1; j <= static_cast<int>(sx) + 2; ++j) {
            const double weight = KernelAt(1, i - sy, -0.1) * KernelAt(1, j - sx, -0.1);
            sum += weight * pixel(turned(j, width - 1), turned(i, height - 1), p);
            weights += weight;
          }
        }
        return sum / weights;
      };
      ASSERT_EQ(Difference(*target, bicubic, 1e-5), "") << size;

      for (int method = 0; method < kMethodCount; ++method) {
        ASSERT_EQ(target->DoChange(source.get(), w, h, method, 0), 1);
        const auto sample = [&](int p, int x, int y) {
          return SampleBySum(*source, p, method, Scaled(x, width, w), Scaled(y, height, h));
        };
        ASSERT_EQ(Difference(*target, sample, 2e-4), "") << size << " method " << method;
      }
    }
  }
}

TEST(CImgResolution, ABrightLeftEdgeLeaksToTheRightOnLinesOnly) {
  const auto scaled = [](const StoreCase& store) {
    const auto source = Make(store.make(), 10, 10, 1, [](int, int x, int) { return x == 0 ? 10000 : 100; });
    const auto target = Target(*source);
    target->Bicubic(source.get(), 15, 15, 0);
    return target->GetPixelGrayRaw(14, 7, 0);
  };
  EXPECT_NEAR(scaled(Stores()[0]), 100, 0.1);
  EXPECT_GT(std::abs(scaled(Stores()[2]) - 100), 10);
}

TEST(CImgResolution, SameSizeAndHalfSizeTakePixelsAsTheyAre) {
  const auto source = Make(MemoryStore(), 71, 33, 3, Wild(0, 1000));
  const auto target = Target(*source);
  for (const int method : {0, 4}) {
    target->DoChange(source.get(), 71, 33, method, 0);
    EXPECT_EQ(Difference(*target, *source), "") << method << ": not even a NaN beside a pixel matters";
  }
  target->DoChange(source.get(), 71 / 2 + 1, 33, 4, 0);
  const auto even = Make(MemoryStore(), 70, 10, 1, kNoise);
  const auto half = Target(*even);
  half->DoChange(even.get(), 35, 5, 4, 0);
  EXPECT_EQ(Difference(
                *half, [&](int, int x, int y) { return even->GetPixelGrayRaw(2 * x, 2 * y, 0); }, 0),
            "");
}

TEST(CImgResolution, AnyNumberOfThreadsGivesTheSame) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 171, 133, 2, Wild(0, 1000));
    for (int method = 0; method < kMethodCount; ++method) {
      std::vector<std::vector<float>> results;
      for (const int threads : {1, 8}) {
        const WithThreads team(threads);
        const auto target = Target(*source);
        target->DoChange(source.get(), 300, 71, method, 0);
        results.push_back(Pixels(*target));
      }
      EXPECT_EQ(std::memcmp(results[0].data(), results[1].data(), results[0].size() * sizeof(float)), 0);
    }
  }
}

TEST(CImgResolution, WithoutASizeOrAMethodNothingIsWritten) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 9, 9, 1, kNoise);
    const auto target = Target(*source);
    target->SetStdPt(0, CfPoint(1, 1));
    EXPECT_EQ(target->Do(source.get(), 0, 5, 0), 0);
    EXPECT_EQ(target->GetStdPtNum(), 0);
    EXPECT_EQ(target->DoChange(source.get(), 2, 2, 5, 0), 1);
    EXPECT_EQ(target->DoChange(source.get(), 2, 2, -1, 0), 1);
    EXPECT_EQ(Difference(*target, *Make(MemoryStore(), 2, 2, 1, Random(-5, 5))), "") << store.name;
  }
}

}  // namespace
