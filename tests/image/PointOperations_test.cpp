#include <gtest/gtest.h>

#include "korimg/image/CImgBright.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/CImgCutOff.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

bool Inside(const OptionalRect& rect, int x, int y) {
  return !rect || (x >= rect->left && x < rect->right && y >= rect->top && y < rect->bottom);
}

const PixelRule kGarbage = Random(-5, 5, 9);

/// Runs an operation from a wild source into windows of a target full of garbage, on every store, and
/// compares with rule(target, plane, source pixel) inside and with the garbage outside.
template <class Operation>
void Check(const std::function<void(Operation&, CVelImage&, CRect*)>& run,
           const std::function<double(Operation&, int, double, float)>& rule, double tolerance) {
  OnEveryPath([&](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (const int planes : {1, 3}) {
        const auto src = Make(store.make(), width, height, planes, Wild(0, 1000));
        for (OptionalRect rect : Windows(width, height)) {
          const auto target = Make<Operation>(src->VmManager(), width, height, planes, kGarbage);
          run(*target, *src, Address(rect));
          const auto expected = [&](int p, int x, int y) -> double {
            const auto old = static_cast<float>(kGarbage(p, x, y));
            return Inside(rect, x, y) ? rule(*target, p, src->GetPixelGrayRaw(x, y, p), old) : old;
          };
          ASSERT_EQ(Difference(*target, expected, tolerance), "")
              << store.name << " " << width << "x" << height << "x" << planes;
        }
      }
    }
  });
}

TEST(CImgBright, TurnsContrastAboutTheAverage) {
  float bright[] = {10, 0, -3}, contrast[] = {128, 64, -300};
  Check<CImgBright>([&](CImgBright& target, CVelImage& src,
                        CRect* rect) { target.Do(bright, contrast, 100.5, &src, rect, 0); },
                    [&](CImgBright& target, int p, double s, float) {
                      const double t = target.To256(s, p);
                      return target.ToRaw((t - 100.5) * contrast[p] / 256 + bright[p] + t, p);
                    },
                    2e-5);
}

TEST(CImgBright, LineLoopCopiesUnchangedPlanesExactly) {
  float zero[] = {0};
  const auto src = Make(TinyPool(), 71, 33, 1, Wild(-1e9, 1e9));
  const auto target = Make<CImgBright>(src->VmManager(), 71, 33, 1, kGarbage);
  target->Do(zero, zero, 17, src.get(), nullptr, 0);
  EXPECT_EQ(Difference(*target, *src), "");
}

TEST(CImgCalculation, AppliesTheNumber) {
  struct Case {
    int op, cutMinus;
    double value;
    std::function<double(double)> formula;
  };
  const std::vector<Case> cases = {
      {0, 1, 2.5, [](double s) { return s + 2.5; }},
      {1, 0, 400, [](double s) { return s - 400; }},
      {1, 1, 400, [](double s) { return s - 400 < 0 ? 0 : s - 400; }},
      {2, 0, -3, [](double s) { return s * -3; }},
      {3, 0, 7, [](double s) { return s / 7; }},
  };
  for (const Case& c : cases) {
    Check<CImgCalculation>([&](CImgCalculation& target, CVelImage& src,
                               CRect* rect) { target.Do(c.value, c.op, c.cutMinus, &src, rect, 0); },
                           [&](CImgCalculation&, int, double s, float) { return c.formula(s); }, 1e-6);
  }
}

TEST(CImgCalculation, WhatCantBeComputedIsCopiedByThePlainLoopOnly) {
  for (const auto& [op, value] : {std::pair(3, 0.0), std::pair(9, 1.0), std::pair(-1, 1.0)}) {
    const auto src = Make(MemoryStore(), 80, 40, 1, Random(0, 1000));
    for (const bool whole : {true, false}) {
      for (const unsigned features : {0u, 2u}) {
        const WithFeatures simd(features);
        const auto target = Make<CImgCalculation>(src->VmManager(), 80, 40, 1, kGarbage);
        CRect small(0, 0, 63, 40);
        target->Do(value, op, 0, src.get(), whole ? nullptr : &small, 0);
        const bool copied = !whole && features == 0;  // a window of 63 columns takes the loop
        const float first = static_cast<float>(kGarbage(0, 0, 0));
        EXPECT_EQ(target->GetPixelGrayRaw(0, 0, 0), copied ? src->GetPixelGrayRaw(0, 0, 0) : first);
        EXPECT_EQ(target->GetPixelGrayRaw(70, 3, 0), static_cast<float>(kGarbage(0, 70, 3)));
      }
    }
  }
}

TEST(CImgCalculation, ReadsAPagedSourceIntoAContiguousTarget) {
  const auto src = Make(TinyPool(), 200, 150, 3, Wild(0, 1000));
  const auto target = Make<CImgCalculation>(MemoryStore(), 200, 150, 3, kGarbage);
  CRect rect(10, 20, 180, 140);
  target->Do(5, 0, 0, src.get(), &rect, 0);
  const auto expected = [&](int p, int x, int y) -> double {
    return Inside(rect, x, y) ? src->GetPixelGrayRaw(x, y, p) + 5.0f : static_cast<float>(kGarbage(p, x, y));
  };
  EXPECT_EQ(Difference(*target, expected, 1e-6), "");
}

TEST(CImgCutOff, ReplacesWhatLiesBeyondTheLevels) {
  Check<CImgCutOff>(
      [](CImgCutOff& target, CVelImage& src, CRect* rect) { target.Do(&src, -7, 2000, rect, 0); },
      [](CImgCutOff&, int p, double s, float) -> double {
        return s <= 100 + 10 * p ? -7 : s >= 900 + 25 * p ? 2000 : s;  // the levels that Make sets
      },
      0);
}

TEST(PointOperations, WorkInPlace) {
  float bright[] = {10, 20, 30}, contrast[] = {50, 60, 70};
  const auto check = [](auto image, int width, const std::string& store,
                        const std::function<void(decltype(*image), CVelImage&)>& run) {
    using Image = std::decay_t<decltype(*image)>;
    const auto apart = Make<Image>(image->VmManager(), width, 40, 3, kGarbage);
    const auto source = Make<Image>(image->VmManager(), width, 40, 3, Wild(0, 1000));
    run(*apart, *source);
    run(*image, *image);
    EXPECT_EQ(Difference(*image, *apart), "") << store << " " << width;
  };
  for (const StoreCase& store : Stores()) {
    for (const int width : {1, 3, 7, 65, 71}) {
      check(Make<CImgBright>(store.make(), width, 40, 3, Wild(0, 1000)), width, store.name,
            [&](CImgBright& target, CVelImage& src) { target.Do(bright, contrast, 90, &src, nullptr, 0); });
      check(Make<CImgCalculation>(store.make(), width, 40, 3, Wild(0, 1000)), width, store.name,
            [&](CImgCalculation& target, CVelImage& src) { target.Do(3, 1, 1, &src, nullptr, 0); });
      check(Make<CImgCutOff>(store.make(), width, 40, 3, Wild(0, 1000)), width, store.name,
            [&](CImgCutOff& target, CVelImage& src) { target.Do(&src, -1, 2, nullptr, 0); });
    }
  }
}

TEST(Threshold, ReplacesPixelsInPlace) {
  struct Case {
    void (CVelImage::*run)(int, float, float);
    std::function<bool(double)> condition;
  };
  const double t = 500;
  const std::vector<Case> cases = {
      {&CVelImage::ThresholdEqual, [=](double s) { return s == t; }},
      {&CVelImage::ThresholdNotEqual, [=](double s) { return s != t; }},
      {&CVelImage::ThresholdGreaterThan, [=](double s) { return s > t; }},
      {&CVelImage::ThresholdLessThan, [=](double s) { return s < t; }},
      {&CVelImage::ThresholdLessThanEqual, [=](double s) { return s <= t; }},
  };
  for (const StoreCase& store : Stores()) {
    for (const Case& c : cases) {
      for (const auto& [width, height] : Sizes()) {
        const PixelRule rule = Wild(t, 1000);  // strews the threshold itself in
        for (const int plane : {-1, 1, 5}) {
          const auto image = Make(store.make(), width, height, 3, rule);
          (image.get()->*c.run)(plane, static_cast<float>(t), -1);
          const auto expected = [&](int p, int x, int y) -> double {
            const auto s = static_cast<float>(rule(p, x, y));
            return (plane == -1 || plane == p) && c.condition(s) ? -1 : s;
          };
          ASSERT_EQ(Difference(*image, expected, 0), "") << store.name << " plane " << plane;
        }
      }
    }
  }
}

TEST(CutOuts, FollowTheLevels) {
  OnEveryPath([](const StoreCase& store) {
    const PixelRule rule = Wild(0, 1500);
    const auto limited = Make(store.make(), 71, 133, 3, rule);
    limited->CutOutOfLevel();
    EXPECT_EQ(Difference(
                  *limited,
                  [&](int p, int x, int y) -> double {
                    const auto s = static_cast<float>(rule(p, x, y));
                    return s < 100 + 10 * p ? 100 + 10 * p : s > 900 + 25 * p ? 900 + 25 * p : s;
                  },
                  0),
              "");

    const auto based = Make(store.make(), 71, 133, 3, rule);
    EXPECT_EQ(based->CutOutOfZeroLevel(), 1);
    EXPECT_EQ(Difference(
                  *based,
                  [&](int p, int x, int y) -> double {
                    const double r =
                        (static_cast<float>(rule(p, x, y)) - (100.0 + 10 * p)) * 800 / (800 + 15 * p);
                    return r < 0 ? 0 : r;
                  },
                  1e-6),
              "");
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(based->GetLevelMin(p), 0);
      EXPECT_EQ(based->GetLevelMax(p), 800);
      EXPECT_EQ(based->GetLevelRange(p), 800);
    }
  });
}

TEST(LiftUp, MovesRowsUp) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      for (const int lines : {-2, 0, 1, 3, height - 1, height, height + 7}) {
        const PixelRule rule = Wild(0, 1);
        const auto image = Make(store.make(), width, height, 3, rule);
        image->LiftUp(lines);
        const bool paged = image->GetAllocationPolicy() == 0;
        const auto expected = [&, height = height](int p, int x, int y) -> double {
          const int from = lines <= 0 ? y : y + lines < height ? y + lines : paged ? y : height - 1;
          return static_cast<float>(rule(p, x, from));
        };
        ASSERT_EQ(Difference(*image, expected, 0), "") << store.name << " " << height << " rows by " << lines;
      }
    }
  }
}

TEST(Paste, CopiesTheWindow) {
  for (const StoreCase& from : Stores()) {
    for (const StoreCase& to : Stores()) {
      const auto src = Make(from.make(), 71, 133, 3, Wild(0, 1));
      for (OptionalRect rect : Windows(71, 133)) {
        const auto target = Make(to.make(), 71, 133, 3, kGarbage);
        target->Paste(src.get(), Address(rect));
        const auto expected = [&](int p, int x, int y) -> double {
          return Inside(rect, x, y) ? src->GetPixelGrayRaw(x, y, p) : static_cast<float>(kGarbage(p, x, y));
        };
        ASSERT_EQ(Difference(*target, expected, 0), "") << from.name << " to " << to.name;
      }
    }
  }
}

TEST(PixelBlt, CutsTheWindowToBothImages) {
  struct Case {
    int dstX, dstY, width, height, srcX, srcY;
  };
  const std::vector<Case> cases = {{0, 0, 20, 20, 0, 0}, {5, 7, 100, 100, 2, 3}, {-4, -4, 6, 6, -1, -2},
                                   {19, 0, 5, 5, 30, 0}, {3, 3, -5, 4, 0, 0},    {40, 40, 5, 5, 0, 0}};
  for (const StoreCase& store : Stores()) {
    for (const Case& c : cases) {
      for (const int convert : {0, 1}) {
        const auto src = Make(store.make(), 31, 17, 3, Wild(0, 1000));
        const auto target = Make(src->VmManager(), 20, 20, 3, kGarbage);
        for (int p = 0; p < 3; ++p) {
          target->SetLevel(p, 0, 1 + p);
        }
        target->PixelBlt(c.dstX, c.dstY, c.width, c.height, src.get(), c.srcX, c.srcY, convert);
        const int dx = std::max(c.dstX, 0), dy = std::max(c.dstY, 0), sx = std::max(c.srcX, 0),
                  sy = std::max(c.srcY, 0);
        const auto expected = [&](int p, int x, int y) -> double {
          const int fromX = x - dx + sx, fromY = y - dy + sy;
          const bool inside =
              x >= dx && x < dx + c.width && y >= dy && y < dy + c.height && fromX < 31 && fromY < 17;
          if (!inside) return static_cast<float>(kGarbage(p, x, y));
          const double s = src->GetPixelGrayRaw(fromX, fromY, p);
          return convert ? (s - (100.0 + 10 * p)) / (800 + 15 * p) * (1 + p) : s;
        };
        ASSERT_EQ(Difference(*target, expected, 1e-6), "") << store.name << " " << convert;
      }
    }
    const auto image = Make(store.make(), 8, 8, 1, Random(0, 1));
    const auto mono = Make(store.make(), 8, 8, 1, Random(0, 1));
    const auto colour = Make(store.make(), 8, 8, 3, kGarbage);
    colour->PixelBlt(0, 0, 8, 8, mono.get(), 0, 0, 0);
    EXPECT_EQ(colour->GetPixelGrayRaw(0, 0, 0), static_cast<float>(kGarbage(0, 0, 0))) << "planes differ";
    image->PixelBlt(0, 1, 8, 8, image.get(), 0, 0, 0);
    EXPECT_EQ(image->GetPixelGrayRaw(5, 7, 0), mono->GetPixelGrayRaw(5, 6, 0))
        << "overlapping copy in itself";
  }
}

}  // namespace
