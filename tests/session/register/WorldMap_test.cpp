#include "session/register/WorldMap.h"

#include <cmath>
#include <map>
#include <numbers>
#include <optional>

#include <gtest/gtest.h>

namespace korimg::session {
namespace {

constexpr files::ImageSize kSize{1000, 960};
constexpr double kDegree = std::numbers::pi / 180;

struct Direction {
  double x, y, z;
};

/// By the formulas of the standard: pixel, distortion, linear part, gnomonic plane, native angles, sky.
struct World {
  double crpix[2], crval[2], cd[2][2];
  std::map<std::string, double> sip = {};

  files::Header ToHeader(const std::string& form) const {
    files::Header header;
    header.Set("CTYPE1", sip.empty() ? "RA---TAN" : "RA---TAN-SIP");
    header.Set("CTYPE2", sip.empty() ? "DEC--TAN" : "DEC--TAN-SIP");
    header.Set("CRPIX1", crpix[0]), header.Set("CRPIX2", crpix[1]);
    header.Set("CRVAL1", crval[0]), header.Set("CRVAL2", crval[1]);
    for (int i = 0; i < 2; ++i) {
      for (int k = 0; k < 2; ++k) {
        const std::string index = std::to_string(i + 1) + "_" + std::to_string(k + 1);
        if (form == "CD") header.Set("CD" + index, cd[i][k]);
        if (form == "PC") header.Set("PC" + index, cd[i][k] / (i == 0 ? -0.001 : 0.002));
      }
    }
    if (form == "PC") header.Set("CDELT1", -0.001), header.Set("CDELT2", 0.002);
    if (!sip.empty()) header.Set("A_ORDER", 3), header.Set("B_ORDER", 3);
    for (const auto& [key, value] : sip) {
      header.Set(key, value);
    }
    return header;
  }

  Direction At(double x, double y) const {
    double u = x + 1 - crpix[0], v = y + 1 - crpix[1];
    double du = 0, dv = 0;
    for (const auto& [key, value] : sip) {
      const double term = value * std::pow(u, key[2] - '0') * std::pow(v, key[4] - '0');
      (key[0] == 'A' ? du : dv) += term;
    }
    u += du, v += dv;
    const double xi = (cd[0][0] * u + cd[0][1] * v) * kDegree, eta = (cd[1][0] * u + cd[1][1] * v) * kDegree;
    const double phi = std::atan2(xi, -eta), theta = std::atan2(1.0, std::hypot(xi, eta));
    const double d0 = crval[1] * kDegree, phiPole = std::numbers::pi;
    const double dec =
        std::asin(std::sin(theta) * std::sin(d0) + std::cos(theta) * std::cos(d0) * std::cos(phi - phiPole));
    const double ra =
        crval[0] * kDegree +
        std::atan2(-std::cos(theta) * std::sin(phi - phiPole),
                   std::sin(theta) * std::cos(d0) - std::cos(theta) * std::sin(d0) * std::cos(phi - phiPole));
    return {std::cos(dec) * std::cos(ra), std::cos(dec) * std::sin(ra), std::sin(dec)};
  }
};

TEST(WorldMap, LaysImagesWhereTheirSkiesAreTheSame) {
  const World plain{{512.5, 400}, {359.7, 71}, {{-0.0021, 0.0004}, {0.0003, 0.0022}}},
      turned{{300, 711.25}, {1.1, 71.6}, {{0.0007, 0.0019}, {0.0018, -0.0008}}},
      bent{{500, 480},
           {0.4, 70.5},
           {{-0.002, 0}, {0, 0.002}},
           {{"A_2_0", 2e-6},
            {"A_0_2", -1e-6},
            {"A_1_1", 5e-7},
            {"A_3_0", 4e-9},
            {"A_1_2", 4e-9},
            {"B_0_2", 1e-6},
            {"B_2_0", 3e-7},
            {"B_2_1", 4e-9},
            {"B_0_3", 5e-9}}};
  for (const auto& [from, to] : {std::pair(plain, turned), {bent, plain}, {turned, bent}}) {
    for (const char* form : {"CD", "PC"}) {
      const auto map = MapByWorld(from.ToHeader(form), kSize, to.ToHeader("CD"), kSize);
      ASSERT_TRUE(map) << form;
      int seen = 0;
      for (int i = 0; i < 36; ++i) {
        const Point p{200.0 * (i % 6), 180.0 * (i / 6)};
        const auto there = (*map)(p);
        ASSERT_TRUE(there);
        if (there->x < 0 || there->y < 0 || there->x > 1000 || there->y > 960) continue;
        ++seen;
        const Direction a = from.At(p.x, p.y), b = to.At(there->x, there->y);
        EXPECT_LT(std::hypot(a.x - b.x, a.y - b.y, a.z - b.z) / kDegree, 1e-9)
            << form << " " << p.x << ", " << p.y;
      }
      EXPECT_GT(seen, 5);
    }
  }
}

TEST(WorldMap, TellsPlacesOfTheSkyAsAstropyDoes) {
  // pixel_to_world_values of astropy 5.2: about the first meridian, near the pole, in the south.
  struct Case {
    double ra, dec;
    bool isBent;
    double x, y, expectedRa, expectedDec;
  };
  for (const Case& c : {Case{0.3, 41, false, 0, 0, 1.4500787941470794, 39.777181994815315},
                        {0.3, 41, false, 699, 499, 358.71890696717384, 42.65603181628628},
                        {0.3, 41, true, 0, 0, 1.4485848111694777, 39.787832200451035},
                        {0.3, 41, true, 699, 499, 358.71603249516517, 42.67586135409711},
                        {0.3, 41, true, 41.5, 333.25, 1.909556398365744, 41.18949850175713},
                        {120, 89.8, false, 0, 0, 151.9559888433134, 88.32987061354812},
                        {120, 89.8, false, 699, 499, 338.4085276791271, 88.12825256490488},
                        {210, -60, false, 41.5, 333.25, 212.4200076687349, -59.77897115869726}}) {
    World world{{300.5, 210.25}, {c.ra, c.dec}, {{-0.004, 0.0015}, {0.0012, 0.0041}}};
    if (c.isBent) world.sip = {{"A_2_0", 2e-5}, {"A_1_1", -1e-5}, {"B_0_2", 3e-5}, {"B_1_1", 1.5e-5}};
    const auto sky = SkyAt(world.ToHeader("CD"), {700, 500}, c.x, c.y);
    ASSERT_TRUE(sky);
    EXPECT_NEAR(sky->ra, c.expectedRa, 1e-9);
    EXPECT_NEAR(sky->dec, c.expectedDec, 1e-9);
  }
  EXPECT_FALSE(SkyAt({}, {700, 500}, 0, 0));
  // Other units, and another pole.
  struct Other {
    const char* unit;
    double perDegree;
    std::optional<double> pole;
    double dec, expectedRa, expectedDec;
  };
  for (const Other& c : {Other{"deg", 1, 90, 41, 0.031630029031117834, 42.2175037980384},
                         {"deg", 1, 0, -30, 358.89103575932097, -30.19126763485579},
                         {"deg", 1, {}, 90, 279.56998349910896, 88.7660735299761},
                         {"arcmin", 60, {}, 41, 1.9183177664829456, 41.187471105864084},
                         {"arcsec", 3600, {}, 41, 1.9183177664829456, 41.187471105864084},
                         {"rad", kDegree, {}, 41, 1.9183177664829456, 41.187471105864084}}) {
    World world{
        {300.5, 210.25}, {0.3 * c.perDegree, c.dec * c.perDegree}, {{-0.004, 0.0015}, {0.0012, 0.0041}}};
    for (auto& row : world.cd) {
      for (double& number : row) {
        number *= c.perDegree;
      }
    }
    files::Header header = world.ToHeader("CD");
    header.Set("CUNIT1", c.unit), header.Set("CUNIT2", c.unit);
    if (c.pole) header.Set("LONPOLE", *c.pole);
    const auto sky = SkyAt(header, {700, 500}, 41.5, 333.25);
    ASSERT_TRUE(sky) << c.unit;
    EXPECT_NEAR(sky->ra, c.expectedRa, 1e-9) << c.unit << ' ' << c.dec;
    EXPECT_NEAR(sky->dec, c.expectedDec, 1e-9) << c.unit << ' ' << c.dec;
  }
  const World singular{{300.5, 210.25}, {10, 41}, {{0.001, 0.002}, {0.002, 0.004}}},
      none{{300.5, 210.25}, {10, 41}, {{0, 0}, {0, 0}}},
      beyond{{300.5, 210.25}, {10, 95}, {{0.001, 0}, {0, 0.001}}};
  for (const World& world : {singular, none, beyond}) {
    EXPECT_FALSE(SkyAt(world.ToHeader("CD"), {700, 500}, 3, 4));
  }
}

TEST(WorldMap, SaysNothingOfOtherKinds) {
  const World plain{{512.5, 400}, {359.7, 71}, {{-0.0021, 0.0004}, {0.0003, 0.0022}}};
  const files::Header good = plain.ToHeader("CD");
  EXPECT_TRUE(MapByWorld(good, kSize, good, kSize));
  EXPECT_FALSE(MapByWorld(good, kSize, {}, kSize));
  for (const auto& [key, value] :
       {std::pair("CTYPE1", "RA---SIN"), {"CTYPE2", "GLAT-TAN"}, {"CRVAL1", "no"}}) {
    files::Header other = good;
    other.Set(key, value);
    EXPECT_FALSE(MapByWorld(good, kSize, other, kSize)) << key;
  }
  files::Header far = good, fifth = good, world = good;
  far.Set("CRVAL2", -20.0);
  EXPECT_FALSE(MapByWorld(good, kSize, far, kSize)) << "behind the camera";
  fifth.Set("CTYPE1", "RA---TAN-SIP"), fifth.Set("A_5_0", 1e-15);
  EXPECT_FALSE(MapByWorld(fifth, kSize, good, kSize)) << "of an order that a lens does not have";
  world.Set("PV2_1", 0.3);
  EXPECT_FALSE(MapByWorld(world, kSize, good, kSize));
}

}  // namespace
}  // namespace korimg::session
