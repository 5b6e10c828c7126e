#include "session/register/LayFrames.h"

#include <fstream>

#include <gtest/gtest.h>

#include "session/register/LensLibrary.h"
#include "session/stack/internal/Transforms.h"
#include "tests/support/Folder.h"
#include "tests/support/StarFields.h"

namespace korimg::session {
namespace {

using namespace korimg::test::field;

/// Frames of a session that nobody has to read again.
struct Field {
  std::vector<Way> ways;
  FramesToLay frames;

  void Add(const Way& way, double fwhm = 3, double sky = 100, double width = 1600) {
    FrameMeasure measure;
    measure.width = kWidth;
    measure.height = kHeight;
    measure.stars =
        Stars(way, static_cast<int>(0.75 * width), 0.06, static_cast<int>(ways.size()) + 1, width);
    measure.starCount = static_cast<int>(measure.stars.size());
    measure.fwhm = fwhm;
    measure.sky = sky;
    measure.noise = 1;
    ways.push_back(way);
    frames.files.push_back("frame" + std::to_string(ways.size()));
    frames.measures.push_back(std::move(measure));
  }

  LaidFrames Lay(std::optional<size_t> reference = std::nullopt, const LayOptions& options = {}) {
    // What has no stars in common is looked for by its light: there is none here.
    frames.image = [](size_t) -> std::shared_ptr<CVelImage> {
      static const auto store = CreateContiguousManager();
      return test::Make(store, kWidth, kHeight, 1, [](int, int, int) { return 0; });
    };
    Job job;
    return LayFrames(job, frames, reference, options);
  }

  double Worst(const LaidFrames& laid, size_t i) const {
    double worst = 0;
    for (const Point& p : Common(ways[i], ways[*laid.reference], 2800)) {
      const Point from = ways[i](p), to = ways[*laid.reference](p);
      const auto [x, y] = PlaceOf(laid.registrations[i], frames.measures[i], from.x, from.y);
      worst = std::max(worst, x == x ? Distance({x, y}, to) : 1e9);
    }
    return worst;
  }
};

Way Through(const Way& lens, const Way& sky) {
  return [=](Point p) { return lens(sky(p)); };
}

TEST(LayFrames, LaysARowOfFramesThroughTheirNeighbours) {
  // The last ones share no star with the first.
  for (const double barrel : {0.0, 0.02}) {
    Field field;
    for (int i = 0; i < 5; ++i) {
      field.Add(Through(Barrel(barrel), Turned(150 - 290.0 * i, 20.0 * i, i)), 3, 100, 2800);
    }
    const LaidFrames laid = field.Lay(0);
    for (size_t i = 0; i < 5; ++i) {
      ASSERT_TRUE(laid.registrations[i].IsGood()) << barrel << " " << i << laid.registrations[i].Text();
      EXPECT_EQ(laid.registrations[i].map.has_value(), barrel > 0 && i > 0) << i;
      EXPECT_EQ(laid.registrations[i].note, "") << "nothing is doubtful";
      EXPECT_LT(i < 4 ? field.Worst(laid, i) : 0, 0.4) << barrel << " " << i << ": " << laid.model;
    }
    EXPECT_EQ(laid.model.starts_with("rigid with"), barrel > 0) << laid.model;
  }
}

TEST(LayFrames, RigidSessionsStayAsTheyWere) {
  Field field;
  for (int i = 0; i < 4; ++i) {
    field.Add(Turned(30.0 * i, -17.0 * i, 0.3 * i));
  }
  const LaidFrames laid = field.Lay(1), rigid = field.Lay(1, {.model = FrameModel::Rigid});
  Registrar registrar(field.frames.measures[1], [&] { return field.frames.image(1); });
  for (size_t i = 0; i < 4; ++i) {
    const Registration own = i == 1 ? ReferenceRegistration(field.frames.measures[1])
                                    : registrar.Register(field.frames.measures[i], {});
    for (const LaidFrames& each : {laid, rigid}) {
      const Registration& r = each.registrations[i];
      EXPECT_EQ(std::tuple(r.dx, r.dy, r.degrees, r.stars, r.residual, r.map.has_value()),
                std::tuple(own.dx, own.dy, own.degrees, own.stars, own.residual, false));
    }
  }
}

TEST(LayFrames, ModelsAreAsAskedFor) {
  Field field;
  for (int i = 0; i < 6; ++i) {
    field.Add(Through(Barrel(0.03), Turned(90 * std::sin(i), 70 * std::cos(2.0 * i), 0.2 * i)));
  }
  struct Case {
    FrameModel model;
    int good;  // at least
    bool hasLens;
  };
  for (const Case& c : {Case{FrameModel::Auto, 6, true},
                        {FrameModel::Distortion, 6, true},
                        {FrameModel::Homography, 1, false},
                        {FrameModel::Rigid, 1, false}}) {
    const LaidFrames laid = field.Lay(0, {.model = c.model});
    const auto good = std::ranges::count_if(laid.registrations, [](const auto& r) { return r.IsGood(); });
    EXPECT_GE(good, c.good) << laid.model;
    EXPECT_TRUE(good == 6 || !c.hasLens) << laid.model;
    for (size_t i = 1; i < 6; ++i) {
      const Registration& r = laid.registrations[i];
      EXPECT_FALSE(r.map && c.model == FrameModel::Rigid);
      EXPECT_FALSE(r.map && c.model == FrameModel::Homography && r.map->GetModel() != CFrameMap::Homography);
      EXPECT_EQ(r.map && !r.map->FrameDistortion().IsNone(), c.hasLens);
      EXPECT_LT(c.hasLens ? field.Worst(laid, i) : 0, 0.15) << i;
    }
  }
}

TEST(LayFrames, OneFrameOfAnotherScaleHasAMapOfItsOwn) {
  Field field;
  for (int i = 0; i < 5; ++i) {
    field.Add(Turned(20.0 * i, 5, 0.1 * i, i == 3 ? 1.04 : 1));
  }
  const LaidFrames laid = field.Lay(0);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_TRUE(laid.registrations[i].IsGood());
    EXPECT_LT(field.Worst(laid, i), 0.15) << i << " " << laid.model;
  }
  EXPECT_EQ(laid.registrations[3].map->GetModel(), CFrameMap::Similarity);
  EXPECT_FALSE(laid.registrations[2].map && laid.registrations[2].map->GetModel() == CFrameMap::Homography);
  const LaidFrames rigid = field.Lay(0, {.model = FrameModel::Rigid});
  EXPECT_EQ(rigid.registrations[3].status, "residual too large");
}

TEST(LayFrames, ChoosesTheReferenceThatServesMost) {
  Field dithers;  // the sharpest lies far off
  for (int i = 0; i < 6; ++i) {
    dithers.Add(Turned(i == 2 ? 400 : 10.0 * i, 0, 0), i == 2 ? 2.0 : 2.5 + 0.01 * i);
  }
  EXPECT_NE(dithers.Lay().reference, 2u);
  EXPECT_LT(dithers.frames.measures[*dithers.Lay().reference].fwhm, 2.54) << "one of the sharper half";

  Field bright;  // the sharpest has the moon in it
  for (int i = 0; i < 4; ++i) {
    bright.Add(Turned(3.0 * i, 0, 0), i == 1 ? 2.0 : 2.5 + 0.01 * i, i == 1 ? 400 : 100);
  }
  EXPECT_EQ(bright.Lay().reference, 0u);

  Field other;  // the sharpest shows another field
  const Way elsewhere = [](Point p) { return Point{p.y * 0.9 + 40, p.x * 0.37 - 20}; };
  for (int i = 0; i < 5; ++i) {
    other.Add(i == 3 ? elsewhere : Turned(8.0 * i, 0, 0), i == 3 ? 2.0 : 2.5 + 0.01 * i);
  }
  const LaidFrames laid = other.Lay();
  EXPECT_EQ(laid.reference, 0u);
  EXPECT_EQ(std::ranges::count_if(laid.registrations, [](const auto& r) { return r.IsGood(); }), 4);
  EXPECT_EQ(other.Lay(3).reference, 3u) << "as it was asked for";

  other.frames.mayBeReference = {0, 1, 1, 1, 1};
  EXPECT_EQ(other.Lay().reference, 1u);
}

TEST(LayFrames, AKnownLensServesFewStarsAndHarmsNone) {
  const auto field = [](double barrel, double share) {
    Field frames;
    for (int i = 0; i < 5; ++i) {
      frames.Add(Through(Barrel(barrel), Turned(80 * std::sin(2.0 * i), 60 * std::cos(3.0 * i), 0.2 * i)));
      auto& stars = frames.frames.measures.back().stars;
      std::erase_if(stars, [&](const CStar& star) {
        // The same few of the sky in each frame, none of them in the corners.
        return share < 1 && (Distance({star.x, star.y}, {499.5, 349.5}) > 0.68 * kHalf || star.flux < 3500);
      });
    }
    return frames;
  };
  const LaidFrames many = field(0.04, 1).Lay(0);
  ASSERT_TRUE(many.lens);
  Field few = field(0.04, 0.1), straight = field(0, 0.1);
  const LaidFrames alone = few.Lay(0), served = few.Lay(0, {.lens = many.lens});
  EXPECT_FALSE(alone.lens || served.lens) << alone.model << served.model;
  double aloneOff = 0, servedOff = 0;
  for (size_t i = 1; i < 5; ++i) {
    ASSERT_TRUE(served.registrations[i].IsGood()) << served.registrations[i].Text();
    aloneOff = std::max(aloneOff, few.Worst(alone, i));
    servedOff = std::max(servedOff, few.Worst(served, i));
  }
  EXPECT_LT(servedOff, 0.5) << served.model;
  EXPECT_GT(aloneOff, 1.5) << alone.model;
  const LaidFrames harmless = straight.Lay(0, {.lens = many.lens});
  for (size_t i = 1; i < 5; ++i) {
    EXPECT_FALSE(harmless.registrations[i].map) << harmless.model;
  }
}

using MapFiles = files::FolderTest;

TEST_F(MapFiles, LibrariesOfLensesKnowWhatTheyWereTold) {
  files::Header header;
  EXPECT_EQ(LensLibrary::KeyOf(header, 10, 20), "");
  header.Set("INSTRUME", "a \"camera\"");
  header.Set("TELESCOP", "lens");
  header.Set("FOCALLEN", 134.7);
  const std::string key = LensLibrary::KeyOf(header, 10, 20);
  EXPECT_EQ(key, "a \"camera\", lens, 135 mm, 10 x 20");
  const LensLibrary library(In("sub/lenses.json"));
  EXPECT_FALSE(library.Find(key));
  const CLensDistortion one = CLensDistortion::Of(10, 20, {0.0625, 1.0 / 3}),
                        two = CLensDistortion::Of(10, 20, {-0.125});
  library.Keep(key, two, "first");
  library.Keep("other", two, "other");
  library.Keep(key, one, "then");
  EXPECT_TRUE(library.Find(key) == one);
  EXPECT_TRUE(library.Find("other") == two);
  EXPECT_FALSE(library.Find(""));
  LensLibrary("").Keep(key, one, "nowhere");
  files::WriteBytes(In("junk"), "{\"lenses\": 3}");
  EXPECT_THROW(LensLibrary(In("junk")).Find(key), files::FileError);
  EXPECT_THROW(LensLibrary(In("junk")).Keep(key, one, ""), files::FileError) << "which is left as it is";
  EXPECT_EQ(files::ReadBytes(In("junk")), "{\"lenses\": 3}");
}

TEST_F(MapFiles, StacksReadTheMapsThatAreWritten) {
  const CLensDistortion lens = CLensDistortion::Of(900, 700, {0.0625, -0.01, 1e-17, 1.0 / 3}),
                        other({1.5, 2.25}, 77, {0, 0, 0.125});
  for (const CFrameMap& map : {CFrameMap({1.02, -0.1, 4, 1.0 / 3, 0.97, -3, 1e-4, 1e-300, 1}, lens, other),
                               CFrameMap({2, 0, 0, 0, 2, 0, 0, 0, 1})}) {
    Registration registration{In("a.fits").string()};
    registration.status = "ok";
    registration.map = map;
    files::WriteBytes(In("list"), ToJson(registration) + "\n");
    const Transform read = Transforms(In("list")).Of(In("a.fits"));
    ASSERT_TRUE(read.map);
    EXPECT_FALSE(read.IsNone());
    EXPECT_EQ(read.map->GetMatrix(), map.GetMatrix());
    EXPECT_TRUE(read.map->FrameDistortion() == map.FrameDistortion());
    EXPECT_TRUE(read.map->ReferenceDistortion() == map.ReferenceDistortion());
  }
  for (
      const char* wrong :
      {R"({"matrix": [1, 2]})", R"({"matrix": [1, 0, 0, 0, -1, 0, 0, 0, 1]})", R"("no")",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, "x"]})",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, 1], "frame_lens": {"centre": [1, 2], "scale": 0, "radial": [0, 0, 0]}})",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, 0]})"}) {
    files::WriteBytes(In("list"), "{\"file\": \"a.fits\", \"dx\": 0, \"dy\": 0, \"degrees\": 0, \"map\": " +
                                      std::string(wrong) + "}\n");
    EXPECT_THROW(Transforms(In("list")), files::FileError) << wrong;
  }
}

}  // namespace
}  // namespace korimg::session
