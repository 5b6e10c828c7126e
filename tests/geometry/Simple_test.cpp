// Operations that move pixels without resampling: flips, crops, scrolls, binning.
#include <gtest/gtest.h>

#include "korimg/geometry/CImgCrop.h"
#include "korimg/geometry/CImgFlip.h"
#include "korimg/geometry/CImgScroll.h"
#include "korimg/geometry/CImgSoftBinning.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// The stores of source and target: alike, and one of each.
std::vector<std::pair<std::shared_ptr<CVmManager>, std::shared_ptr<CVmManager>>> Pairs() {
  return {{MemoryStore(), MemoryStore()},
          {TinyPool(), TinyPool()},
          {MemoryStore(), TinyPool()},
          {TinyPool(), MemoryStore()}};
}

template <class Image>
std::shared_ptr<Image> Target(const std::shared_ptr<CVmManager>& store, const CVelImage& src) {
  return Make<Image>(store, src.GetWidth(), src.GetHeight(), src.GetPlanes(), Random(0, 1, 7));
}

/// Runs a case on sources of every size, mono and colour, on every pair of stores, on one thread and on
/// eight.
void OnEverySource(const std::function<void(CVelImage&, const std::shared_ptr<CVmManager>&)>& run) {
  for (const auto& [from, to] : Pairs()) {
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      for (const auto& [width, height] : Sizes()) {
        for (const int planes : {1, 3}) {
          run(*Make(from, width, height, planes, Wild(0, 1000)), to);
        }
      }
    }
  }
}

TEST(CImgFlip, MirrorsAlongItsAxis) {
  OnEverySource([](CVelImage& src, const std::shared_ptr<CVmManager>& store) {
    const int w = src.GetWidth(), h = src.GetHeight();
    for (const int axis : {0, 1, 2, -1}) {
      const auto image = Target<CImgFlip>(store, src);
      const auto before = Target<CImgFlip>(MemoryStore(), src);
      image->SetStdPt(0, CfPoint(3, 4));
      image->Do(axis, &src, 0);
      const auto expected = [&](int p, int x, int y) {
        return axis == 0   ? src.GetPixelGrayRaw(x, h - 1 - y, p)
               : axis == 1 ? src.GetPixelGrayRaw(w - 1 - x, y, p)
                           : before->GetPixelGrayRaw(x, y, p);
      };
      ASSERT_EQ(Difference(*image, expected, 0), "") << w << "x" << h << " axis " << axis;
      ASSERT_TRUE(image->IsValidStdPt(0));
    }
  });
}

TEST(CImgScroll, WrapsAround) {
  OnEverySource([](CVelImage& src, const std::shared_ptr<CVmManager>& store) {
    const int w = src.GetWidth(), h = src.GetHeight();
    for (const int amount : {0, 1, -1, 5, -37, 71, 133, 1000, -1000}) {
      for (const int horizontal : {0, 1}) {
        const auto image = Target<CImgScroll>(store, src);
        image->SetStdPt(0, CfPoint(3, 4));
        image->Do(amount, horizontal, &src, 0);
        const auto wrapped = [](long long at, int size) {
          return static_cast<int>((at % size + size) % size);
        };
        const auto expected = [&](int p, int x, int y) {
          return horizontal ? src.GetPixelGrayRaw(wrapped(x - amount, w), y, p)
                            : src.GetPixelGrayRaw(x, wrapped(y - amount, h), p);
        };
        ASSERT_EQ(Difference(*image, expected, 0), "") << w << "x" << h << " by " << amount;
        ASSERT_FALSE(image->IsValidStdPt(0) || image->IsValidStdCtr());
      }
    }
  });
}

TEST(CImgCrop, CutsWindowsInsideOnly) {
  OnEverySource([](CVelImage& src, const std::shared_ptr<CVmManager>& store) {
    const int w = src.GetWidth(), h = src.GetHeight();
    for (const CRect& rect : {CRect(0, 0, w, h), CRect(w / 2, h / 2, w / 2 + 1, h / 2 + 1),
                              CRect(w / 3, h / 4, w, h), CRect(0, h / 2, w / 2 + 1, h)}) {
      const auto image = Target<CImgCrop>(store, src);
      image->SetStdPt(0, CfPoint(3, 4));
      ASSERT_EQ(image->Do(rect, &src, 0), 1);
      ASSERT_EQ(image->GetWidth(), rect.Width());
      ASSERT_EQ(image->GetHeight(), rect.Height());
      const auto expected = [&](int p, int x, int y) {
        return src.GetPixelGrayRaw(rect.left + x, rect.top + y, p);
      };
      ASSERT_EQ(Difference(*image, expected, 0), "") << w << "x" << h;
      ASSERT_FALSE(image->IsValidStdPt(0) || image->IsValidStdCtr());
    }
    for (const CRect& rect : {CRect(-1, 0, w, h), CRect(0, 0, w + 1, h), CRect(0, -1, w, h),
                              CRect(0, 0, w, h + 1), CRect(0, 0, 0, h), CRect(w, h, 0, 0)}) {
      ASSERT_EQ(Target<CImgCrop>(store, src)->Do(rect, &src, 0), 0);
    }
  });
}

TEST(CImgSoftBinning, AddsCellsUp) {
  OnEverySource([](CVelImage& src, const std::shared_ptr<CVmManager>& store) {
    const int w = src.GetWidth(), h = src.GetHeight();
    for (const auto& [bx, by] : {std::pair(1, 1), std::pair(2, 2), std::pair(3, 3), std::pair(4, 4),
                                 std::pair(2, 3), std::pair(10, 10), std::pair(65, 1), std::pair(1, 70)}) {
      for (const int roundUp : {0, 1}) {
        const auto image = Target<CImgSoftBinning>(store, src);
        image->SetStdPt(0, CfPoint(3, 4));
        if (!roundUp && (bx > w || by > h)) {
          ASSERT_EQ(image->Do(bx, by, roundUp, 0, &src, 0), 0);
          continue;
        }
        ASSERT_EQ(image->Do(bx, by, roundUp, 0, &src, 0), 1);
        ASSERT_FALSE(image->IsValidStdPt(0));
        ASSERT_EQ(image->GetWidth(), roundUp ? (w + bx - 1) / bx : w / bx);
        ASSERT_EQ(image->GetHeight(), roundUp ? (h + by - 1) / by : h / by);
        const auto expected = [&, bx = bx, by = by](int p, int x, int y) {
          double sum = 0;
          for (int j = y * by; j < std::min(h, (y + 1) * by); ++j) {
            for (int i = x * bx; i < std::min(w, (x + 1) * bx); ++i) {
              sum += src.GetPixelGrayRaw(i, j, p);
            }
          }
          return sum;
        };
        ASSERT_EQ(Difference(*image, expected, 1e-5), "") << w << "x" << h << " by " << bx << "x" << by;
      }
    }
    ASSERT_EQ(Target<CImgSoftBinning>(store, src)->Do(0, 1, 0, 0, &src, 0), 0);
    ASSERT_EQ(Target<CImgSoftBinning>(store, src)->Do(1, -1, 0, 0, &src, 0), 0);
  });
}

TEST(CImgSoftBinning, BothPathsAddInTheSameOrder) {
  const auto src = Make(MemoryStore(), 133, 71, 1, Random(-200, 3000)),
             paged = Make(TinyPool(), 133, 71, 1, Random(-200, 3000));
  for (const int bins : {2, 3, 4, 5, 7}) {
    const auto pipeline = Target<CImgSoftBinning>(MemoryStore(), *src);
    const auto lines = Target<CImgSoftBinning>(TinyPool(), *src);
    ASSERT_EQ(pipeline->Do(bins, bins, 1, 0, src.get(), 0), 1);
    ASSERT_EQ(lines->Do(bins, bins, 1, 0, paged.get(), 0), 1);
    EXPECT_EQ(Difference(*lines, *pipeline), "") << bins;
  }
}

TEST(CImgSoftBinning, LevelsMayFollow) {
  const auto src = Make(MemoryStore(), 20, 20, 3, [](int p, int, int) { return 300 + 10 * p; });
  for (const int scale : {0, 1}) {
    const auto image = Target<CImgSoftBinning>(MemoryStore(), *src);
    for (int p = 0; p < 3; ++p) {
      image->SetLevel(p, src->GetLevelMin(p), src->GetLevelMax(p));
    }
    ASSERT_EQ(image->Do(2, 5, 0, scale, src.get(), 0), 1);
    for (int p = 0; p < 3; ++p) {
      const float before = src->GetPixelGray256f(0, 0, p);
      if (scale) {
        EXPECT_NEAR(image->GetPixelGray256f(3, 3, p), before, 1e-3);
      } else {
        EXPECT_NEAR(image->GetPixelGrayRaw(3, 3, p), 10 * (300 + 10 * p), 1e-3);
        EXPECT_EQ(image->GetLevelMax(p), src->GetLevelMax(p));
      }
    }
  }
}

}  // namespace
