#include "viewer/image/Pyramid.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "session/job/Errors.h"
#include "session/picture/Image.h"
#include "tests/support/Images.h"

namespace korimg::viewer {
namespace {

using session::Shape;
using test::Noise;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

/// Pixels with holes: single NaN, and whole cells of them.
float PixelAt(int p, int x, int y) {
  const std::uint64_t n = (static_cast<std::uint64_t>(p) << 40) + (static_cast<std::uint64_t>(y) << 20) + x;
  if (Noise(n) < 0.05 || (x / 4 + y / 4) % 13 == 5) return kNaN;
  return static_cast<float>(1000 * Noise(n + 7) - 100);
}

std::shared_ptr<Source> Rule(const Shape& shape, std::function<float(int p, int x, int y)> rule = PixelAt) {
  auto source = std::make_shared<Source>();
  source->shape = shape;
  source->info.type = "float32";
  source->read = [rule](const Band<float>& to) {
    for (int p = 0; p < to.Planes(); ++p) {
      for (int y = to.Top(); y < to.Bottom(); ++y) {
        for (int x = 0; x < to.Width(); ++x) {
          to.Row(p, y)[x] = rule(p, x, y);
        }
      }
    }
  };
  return source;
}

void Finish(const Pyramid& pyramid) {
  while (pyramid.Progress() < 1 && pyramid.Failure().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

/// Levels by plain loops, in double precision.
std::vector<std::vector<double>> PlainLevel(const Shape& shape, int level, Shape& size) {
  std::vector<std::vector<double>> planes(shape.planes);
  for (int p = 0; p < shape.planes; ++p) {
    for (int y = 0; y < shape.height; ++y) {
      for (int x = 0; x < shape.width; ++x)
        planes[p].push_back(PixelAt(p, x, y));
    }
  }
  size = shape;
  for (int l = 0; l < level; ++l) {
    const Shape half{(size.width + 1) / 2, (size.height + 1) / 2, size.planes};
    for (auto& plane : planes) {
      std::vector<double> next;
      for (int y = 0; y < half.height; ++y) {
        for (int x = 0; x < half.width; ++x) {
          double sum = 0;
          int count = 0;
          for (int v = 2 * y; v < std::min(2 * y + 2, size.height); ++v) {
            for (int u = 2 * x; u < std::min(2 * x + 2, size.width); ++u) {
              const double value = plane[static_cast<std::size_t>(v) * size.width + u];
              if (std::isnan(value)) continue;
              sum += value;
              ++count;
            }
          }
          next.push_back(count > 0 ? sum / count : kNaN);
        }
      }
      plane = std::move(next);
    }
    size = half;
  }
  return planes;
}

void ExpectLevel(Pyramid& pyramid, const Shape& shape, int level) {
  Shape size;
  const auto plain = PlainLevel(shape, level, size);
  ASSERT_EQ(std::pair(pyramid.At(level).width, pyramid.At(level).height), std::pair(size.width, size.height));
  for (int i = 0; i < pyramid.Strips(level); ++i) {
    const Pyramid::StripPtr strip = pyramid.Get(level, i);
    EXPECT_FALSE(strip->isRough);
    for (int p = 0; p < size.planes; ++p) {
      for (int y = strip->rows.Top(); y < strip->rows.Bottom(); ++y) {
        for (int x = 0; x < size.width; ++x) {
          const double expected = plain[p][static_cast<std::size_t>(y) * size.width + x];
          const float found = strip->rows.Row(p, y)[x];
          if (std::isnan(expected) ? !std::isnan(found) : !(std::abs(found - expected) < 1e-3)) {
            FAIL() << "level " << level << " plane " << p << " at " << x << ", " << y << ": " << found
                   << ", not " << expected;
          }
        }
      }
    }
  }
}

TEST(Pyramid, HoldsMeansOfHalvesAtAnySizeAndBudget) {
  for (const Shape shape :
       {Shape{1, 1, 1}, {1, 700, 1}, {1030, 1, 3}, {513, 771, 1}, {259, 1025, 3}, {256, 512, 2}}) {
    // Room for all, for some of the levels, for nothing at all.
    for (const long long budget : {64LL << 20, 1LL << 20, 0LL}) {
      SCOPED_TRACE(testing::Message() << shape.width << " x " << shape.height << ", budget " << budget);
      Pyramid pyramid(Rule(shape), budget);
      EXPECT_LE(std::max(pyramid.At(pyramid.Levels() - 1).width, pyramid.At(pyramid.Levels() - 1).height),
                Pyramid::kTile);
      Finish(pyramid);
      for (int level = 0; level < pyramid.Levels(); ++level)
        ExpectLevel(pyramid, shape, level);
    }
  }
}

TEST(Pyramid, ReadsNothingAgainWhereThereIsRoom) {
  std::atomic<int> reads = 0;
  const auto source = Rule({513, 1300, 1});
  source->read = [&reads, read = source->read](const Band<float>& to) {
    ++reads;
    read(to);
  };
  Pyramid pyramid(source, 64 << 20);
  Finish(pyramid);
  const int before = reads;
  for (int level = 0; level < pyramid.Levels(); ++level) {
    for (int i = 0; i < pyramid.Strips(level); ++i)
      pyramid.Get(level, i);
  }
  EXPECT_EQ(reads, before);
}

TEST(Pyramid, ShowsRowsAtStepsUntilItHasSeenAll) {
  // Large enough that the coarsest strip would take long; the pass through it takes a second.
  const Shape shape{9000, 12000, 1};
  const auto source = Rule(shape);
  source->read = [](const Band<float>& to) {
    if (to.Rows() > 1) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int y = to.Top(); y < to.Bottom(); ++y)
      std::ranges::fill(to.Row(0, y), static_cast<float>(y));
  };
  Pyramid pyramid(source, 1 << 20);
  const int last = pyramid.Levels() - 1, step = 1 << last;
  const Pyramid::StripPtr rough = pyramid.Get(last, 0);
  ASSERT_TRUE(rough->isRough);
  for (int y = 0; y < rough->rows.Rows(); ++y) {
    EXPECT_EQ(rough->rows.Row(0, y)[3], static_cast<float>(std::min(y * step + step / 2, shape.height - 1)));
  }
  EXPECT_FALSE(pyramid.Get(0, 3)->isRough) << "what is quick is exact";
  Finish(pyramid);
  const Pyramid::StripPtr exact = pyramid.Get(last, 0);
  EXPECT_FALSE(exact->isRough);
  for (int y = 0; y + 1 < exact->rows.Rows(); ++y) {
    EXPECT_NEAR(exact->rows.Row(0, y)[3], y * step + (step - 1) / 2.0, 1e-2);
  }
}

TEST(Pyramid, ShowsWhatTheLibraryShowsAWholeImageBy) {
  const Shape shape{200, 901, 3};
  const auto rule = [](int p, int x, int y) {
    const double star = x == 77 && y == 613 ? 5000 * (p + 1) : 0;
    return x == 3 ? kNaN
                  : static_cast<float>(100 + 30 * p + 5 * Noise(p * 1000003LL + y * 1009LL + x) + star);
  };
  const auto store = test::MemoryStore();
  const auto image = session::NewImage(store, shape.width, shape.height, shape.planes);
  test::Paint(*image, rule);
  Pyramid pyramid(Rule(shape, rule), 1 << 20);
  Finish(pyramid);
  for (const bool linked : {false, true}) {
    const session::Levels expected = session::StretchForPicture(*image, linked),
                          found = pyramid.Shown(linked);
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(found.min[p], expected.min[p]);
      EXPECT_EQ(found.max[p], expected.max[p]);
      EXPECT_EQ(found.midtone[p], expected.midtone[p]);
    }
  }
}

TEST(Pyramid, TellsWhatIsWrongWithAFileThatBreaksHalfWay) {
  const auto source = Rule({300, 900, 1});
  source->read = [read = source->read](const Band<float>& to) {
    if (to.Rows() > 1 && to.Top() >= 512) throw files::FileError("a.fits", "is damaged");
    read(to);
  };
  Pyramid pyramid(source, 1 << 20);
  Finish(pyramid);
  EXPECT_EQ(pyramid.Failure(), "a.fits: is damaged");
  EXPECT_LT(pyramid.Progress(), 1);
  EXPECT_FALSE(pyramid.Get(0, 0)->isRough) << "what can be read is shown";
  EXPECT_THROW(pyramid.Get(0, 2), files::FileError);
}

TEST(Pyramid, GivesUpWhatNobodyWaitsFor) {
  Pyramid pyramid(Rule({900, 900, 1}), 0);
  Finish(pyramid);
  EXPECT_THROW(pyramid.Get(1, 0, [] { return true; }), session::Cancelled);
}

}  // namespace
}  // namespace korimg::viewer
