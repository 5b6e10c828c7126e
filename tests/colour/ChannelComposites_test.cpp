// Colour images of exposures through filters, against plain sums of samples.
#include <cmath>

#include <gtest/gtest.h>

#include "korimg/colour/CColor.h"
#include "korimg/colour/CImgCmyComposit.h"
#include "korimg/colour/CImgLrgbCmpst.h"
#include "korimg/colour/CImgRgbCmpst.h"
#include "korimg/geometry/CInterp.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

struct Source {
  std::shared_ptr<CVelImage> image;
  double dx, dy, degrees;
};

/// A sample as the composites read it, 0 beyond the edges: whole rows of the canvas for shifts, positions up
/// to the last pixel for turned ones.
double Sampled(const Source& s, int plane, int method, bool useImageCentre, int x, int y) {
  CVelImage& image = *s.image;
  CInterp interp(method, &image, 0);
  const int w = image.GetWidth(), h = image.GetHeight();
  if (!image.IsColor()) plane = 0;
  if (s.degrees == 0) {
    const double u = x - s.dx, v = y - s.dy;
    if (!(u >= 0 && u < w && v >= 0 && v <= h - 1)) return 0;
    if (u == std::floor(u) && v == std::floor(v)) {
      return image.GetPixelGrayRaw(static_cast<int>(u), static_cast<int>(v), plane);
    }
    return interp.Do(u, v, plane);
  }
  const CfPoint centre = image.GetStdCtr();
  const double cx = useImageCentre ? centre.fx : w * 0.5, cy = useImageCentre ? centre.fy : h * 0.5;
  const double radians = s.degrees * 3.141592653589793 / 180.0, sine = std::sin(radians),
               cosine = std::cos(radians);
  const double right = x - s.dx - cx, up = cy - y + s.dy;
  const double u = cosine * right - sine * up + cx, v = cy - (sine * right + cosine * up);
  return u >= 0 && u <= w - 1 && v >= 0 && v <= h - 1 ? interp.Do(u, v, plane) : 0;
}

/// Three sources of unlike sizes, levels and planes that are shifted and turned by unlike amounts.
std::vector<Source> Sources(const std::shared_ptr<CVmManager>& store, int width, int height, int variant) {
  const double shifts[][3][2] = {{{0, 0}, {2, -1}, {-3, 4}}, {{0.25, -1.5}, {3, 0.75}, {-0.6, 0}}};
  const double turns[] = {0, variant == 2 ? 31.7 : 0, variant == 2 ? -3.3 : 0};
  std::vector<Source> sources;
  for (int i = 0; i < 3; ++i) {
    const double* shift = shifts[variant == 0 ? 0 : 1][i];
    const auto image =
        Make<CVelImage>(store, width + 2 * i - 1 > 0 ? width + 2 * i - 1 : 1, height + (i == 1 ? 3 : 0),
                        i == 1 ? 3 : 1, variant == 0 ? Wild(100, 900, i + 1) : Random(100, 900, i + 1));
    for (int p = 0; p < image->GetPlanes(); ++p) {
      image->SetLevel(p, 10 * i + p, 1000 + 100 * i + 7 * p);
    }
    image->SetStdCtr(width * 0.3, height * 0.6);
    sources.push_back({image, shift[0], shift[1], turns[i]});
  }
  return sources;
}

struct CompositeCase {
  int width, height, variant, method;
  bool useImageCentre;
  OptionalRect rect;
};

std::vector<CompositeCase> Cases() {
  std::vector<CompositeCase> cases;
  for (const auto& [width, height] : Sizes()) {
    for (int variant = 0; variant < 3; ++variant) {
      OptionalRect rect;
      if (width > 8 && height > 8) rect = CRect(3, 2, width - 4, height - 1);
      cases.push_back({width, height, variant, variant + 1, variant == 1, {}});
      cases.push_back({width, height, variant, 0, variant == 2, rect});
    }
  }
  // Lines that do not fit into one block of a paged store.
  cases.push_back({1500, 9, 2, 0, true, {}});
  return cases;
}

/// Compares run(store, rect) with a rule, which is worked out once, on all stores and with one thread and
/// many.
template <class F>
void Compare(const CompositeCase& c, const PixelRule& rule, double tolerance, F&& run) {
  const auto expected = Make<CVelImage>(MemoryStore(), c.width, c.height, 3, [&](int p, int x, int y) {
    return IsInside(c.rect, x, y) ? rule(p, x, y) : Random(0, 1)(p, x, y);
  });
  for (const StoreCase& store : Stores()) {
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      OptionalRect rect = c.rect;
      const auto result = run(store.make(), Address(rect));
      EXPECT_EQ(Difference(*result, *expected, tolerance), "")
          << c.width << " x " << c.height << ", variant " << c.variant << ", " << store.name << ", threads "
          << threads;
    }
  }
}

TEST(ChannelComposites, RedGreenAndBlue) {
  for (const CompositeCase& c : Cases()) {
    for (const bool masked : {false, true}) {
      const auto known = Sources(MemoryStore(), c.width, c.height, c.variant);
      const auto rule = [&](int p, int x, int y) {
        return masked && p == 1 ? Random(0, 1)(p, x, y)
                                : Sampled(known[p], p, c.method, c.useImageCentre, x, y);
      };
      Compare(c, rule, 1e-6, [&](const std::shared_ptr<CVmManager>& store, CRect* rect) {
        const auto s = Sources(store, c.width, c.height, c.variant);
        const auto target = Make<CImgRgbCmpst>(store, c.width, c.height, 3, Random(0, 1));
        int mask[] = {5, 0, -1};
        target->Do(s[0].image.get(), s[0].dx, s[0].dy, s[0].degrees, s[1].image.get(), s[1].dx, s[1].dy,
                   s[1].degrees, s[2].image.get(), s[2].dx, s[2].dy, s[2].degrees, c.useImageCentre, c.method,
                   rect, masked ? mask : nullptr, 0, CString());
        EXPECT_EQ(target->GetLevelMin(1), 11);
        EXPECT_EQ(target->GetLevelMax(1), 1107);
        EXPECT_EQ(target->GetLevelMax(2), 1200);
        return target;
      });
    }
  }
}

TEST(ChannelComposites, CyanMagentaAndYellow) {
  for (const CompositeCase& c : Cases()) {
    const auto known = Sources(MemoryStore(), c.width, c.height, c.variant);
    const auto rule = [&](int p, int x, int y) {
      const auto read = [&](int i, int plane) {
        return Sampled(known[i], plane, c.method, c.useImageCentre, x, y);
      };
      const double red = read(2, 1) + read(1, 0) - read(0, 2);
      return p == 0 ? red : 2 * (p == 1 ? read(2, 1) : read(1, 0)) - red;
    };
    Compare(c, rule, 1e-3, [&](const std::shared_ptr<CVmManager>& store, CRect* rect) {
      const auto s = Sources(store, c.width, c.height, c.variant);
      const auto target = Make<CImgCmyComposit>(store, c.width, c.height, 3, Random(0, 1));
      target->Do(s[0].image.get(), s[0].dx, s[0].dy, s[0].degrees, s[1].image.get(), s[1].dx, s[1].dy,
                 s[1].degrees, s[2].image.get(), s[2].dx, s[2].dy, s[2].degrees, c.useImageCentre, c.method,
                 rect, 7, 0);
      EXPECT_EQ(target->GetLevelMin(0), (10 + 20) * 0.5);
      EXPECT_EQ(target->GetLevelMax(1), (1000 + 1200) * 0.5);
      EXPECT_EQ(target->GetLevelMax(2), (1000 + 1100) * 0.5);
      return target;
    });
  }
}

TEST(ChannelComposites, PlanesOfOneColourImageComeBack) {
  const auto store = MemoryStore();
  const auto image = Make<CVelImage>(store, 23, 17, 3, Wild(0, 1000));
  const auto target = Make<CImgRgbCmpst>(store, 23, 17, 3, Random(0, 1));
  target->Do(image.get(), 0, 0, 0, image.get(), 0, 0, 0, image.get(), 0, 0, 0, 0, 0, nullptr, nullptr, 0,
             CString());
  EXPECT_EQ(Difference(*target, *image), "");
  EXPECT_EQ(target->GetLevelMax(2), image->GetLevelMax(2));
}

/// A colour from 0 to 255 where a source has one, else 0.
std::array<double, 3> ColourOf(const Source& s, double scale, int x, int y) {
  CVelImage& image = *s.image;
  const double cx = image.GetWidth() * 0.5, cy = image.GetHeight() * 0.5;
  const double radians = s.degrees * 3.141592653589793 / 180.0, sine = std::sin(radians),
               cosine = std::cos(radians);
  const double right = x - cx - s.dx, up = cy - y + s.dy;
  const double u = (right * cosine - up * sine) * scale + cx, v = cy - (right * sine + up * cosine) * scale;
  std::array<double, 3> colour{};
  if (!(u >= 0 && u < image.GetWidth() && v >= 0 && v < image.GetHeight())) return colour;
  for (int p = 0; p < 3; ++p) {
    const int plane = image.IsColor() ? p : 0;
    const bool isWhole = u == std::floor(u) && v == std::floor(v);
    const double raw = isWhole ? image.GetPixelGrayRaw(static_cast<int>(u), static_cast<int>(v), plane)
                               : image.GetPixelGrayRaw(u, v, plane);
    colour[p] = (raw - image.GetLevelMin(plane)) / image.GetLevelRange(plane) * 255.0;
  }
  return colour;
}

TEST(ChannelComposites, LuminanceAndColour) {
  for (const CompositeCase& c : Cases()) {
    const auto known = Sources(MemoryStore(), c.width, c.height, c.variant);
    const double scale = c.variant == 2 ? 1.07 : 1;
    for (const int mode : {-1, 0, 1, 2}) {  // -1: Lab, else the operation of a mix
      const auto rule = [&](int p, int x, int y) {
        const auto a = ColourOf(known[0], 1, x, y), b = ColourOf(known[1], scale, x, y);
        double v[3];
        if (mode < 0) {
          const auto limited = [](double value) { return value < 0 ? 0 : value > 5000 ? 5000 : value; };
          CColor first, second;
          first.RgbToLab(limited(a[0]) / 255, limited(a[1]) / 255, limited(a[2]) / 255);
          second.RgbToLab(limited(b[0]) / 255, limited(b[1]) / 255, limited(b[2]) / 255);
          first.LabToRgb(first.GetL(), second.Geta(), second.Getb());
          v[0] = first.GetR() * 255, v[1] = first.GetG() * 255, v[2] = first.GetB() * 255;
        } else {
          const double difference = std::abs(a[p] - b[p]);
          v[p] = mode == 1 ? difference : mode == 2 ? 255 - difference : (a[p] + b[p]) / 2;
        }
        return v[p] / 255 * known[0].image->GetLevelRange(0) + known[0].image->GetLevelMin(0);
      };
      Compare(c, rule, 1e-4, [&](const std::shared_ptr<CVmManager>& store, CRect* rect) {
        const auto s = Sources(store, c.width, c.height, c.variant);
        const auto target = Make<CImgLrgbCmpst>(store, c.width, c.height, 3, Random(0, 1));
        target->DoLrgb(s[0].image.get(), s[0].dx, s[0].dy, s[0].degrees, s[1].image.get(), s[1].dx, s[1].dy,
                       s[1].degrees, 0, scale, rect, mode >= 0, mode, 0);
        EXPECT_EQ(target->GetLevelMax(2), 1000);
        return target;
      });
    }
  }
}

TEST(ChannelComposites, OfLabPlanes) {
  for (const int method : {CInterp::MethodBilinear, CInterp::MethodBicubic}) {
    const auto luminance = [](const std::shared_ptr<CVmManager>& store) {
      const auto image = Make<CVelImage>(store, 43, 37, 1, Random(5, 110));
      image->SetLevel(0, 100, 900);
      return Source{image, 1.25, -2, 0};
    };
    const auto colour = [](const std::shared_ptr<CVmManager>& store) {
      return Source{Make<CVelImage>(store, 40, 41, 2, Random(-60, 60)), -0.5, 3, 11.3};
    };
    const Source l = luminance(MemoryStore()), ab = colour(MemoryStore());
    CInterp ofL(method, l.image.get(), 0), ofAb(method, ab.image.get(), 0);
    const auto rule = [&](int p, int x, int y) {
      const double radians = ab.degrees * 3.141592653589793 / 180.0, sine = std::sin(radians),
                   cosine = std::cos(radians), right = x - 20 - ab.dx, up = 20.5 - y + ab.dy;
      const double u = (cosine * right - sine * up) * 0.9 + 20, v = 20.5 - (sine * right + cosine * up) * 0.9;
      const double ul = x - l.dx, vl = y - l.dy;
      double values[3] = {};
      if (ul >= 0 && ul < 43 && vl >= 0 && vl < 37) {
        values[0] = ofL.Do(ul, vl, 0);
      }
      if (u >= 0 && u < 40 && v >= 0 && v < 41) {
        values[1] = ofAb.Do(u, v, 0);
        values[2] = ofAb.Do(u, v, 1);
      }
      CColor rgb;
      rgb.LabToRgb(values[0], values[1], values[2]);
      return (p == 0 ? rgb.GetR() : p == 1 ? rgb.GetG() : rgb.GetB()) * 800 + 100;
    };
    const CompositeCase c = {43, 37, method, method, false, CRect(2, 1, 40, 36)};
    Compare(c, rule, 1e-5, [&](const std::shared_ptr<CVmManager>& store, CRect* rect) {
      const Source first = luminance(store), second = colour(store);
      const auto target = Make<CImgLrgbCmpst>(store, 43, 37, 3, Random(0, 1));
      target->DoLab(first.image.get(), first.dx, first.dy, first.degrees, second.image.get(), second.dx,
                    second.dy, second.degrees, method, 0.9, 0, rect, 0);
      return target;
    });
  }
}

TEST(ChannelComposites, AnEmptyRectangleWritesNothing) {
  const auto store = MemoryStore();
  const auto src = Make<CVelImage>(store, 7, 5, 3, Random(200, 800));
  CRect turned(3, 2, 1, 4);
  const auto rgb = Make<CImgRgbCmpst>(store, 7, 5, 3, Random(0, 1));
  rgb->Do(src.get(), 0, 0, 0, src.get(), 0, 0, 0, src.get(), 0, 0, 0, 0, 0, &turned, nullptr, 0, CString());
  const auto lrgb = Make<CImgLrgbCmpst>(store, 7, 5, 3, Random(0, 1));
  lrgb->DoLrgb(src.get(), 0, 0, 0, src.get(), 0, 0, 0, 0, 1.0, &turned, 0, 0, 0);
  lrgb->DoLab(src.get(), 0, 0, 0, src.get(), 0, 0, 0, 0, 1.0, 0, &turned, 0);
  EXPECT_EQ(Difference(*rgb, Random(0, 1), 1e-6), "");
  EXPECT_EQ(Difference(*lrgb, Random(0, 1), 1e-6), "");
}

TEST(ChannelComposites, BeyondTheColourTheLuminanceStaysGray) {
  const auto store = MemoryStore();
  const auto l = Make<CVelImage>(store, 9, 9, 1, Random(200, 800));
  const auto colour = Make<CVelImage>(store, 3, 3, 3, Random(200, 800));
  const auto target = Make<CImgLrgbCmpst>(store, 9, 9, 3, Random(0, 1));
  target->DoLrgb(l.get(), 0, 0, 0, colour.get(), 0, 0, 0, 0, 1.0, nullptr, 0, 0, 0);
  for (int p = 0; p < 3; ++p) {
    EXPECT_NEAR(target->GetPixelGrayRaw(7, 7, p), l->GetPixelGrayRaw(7, 7, 0), 1e-2);
  }
}

}  // namespace
