#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>

#include "session/files/Geometry.h"
#include "session/operations/Operations.h"
#include "session/register/WorldMap.h"
#include "session/stars/Stars.h"
#include "viewer/api/Api.h"
#include "viewer/image/Preview.h"
#include "viewer/image/Statistics.h"
#include "viewer/image/Tiles.h"

namespace korimg::viewer {

using namespace session;

namespace {

constexpr int kBins = 256;  // of a histogram; chosen: a panel is hardly wider
constexpr double kAnyPixel = files::kMaxSide;

std::shared_ptr<const OpenImage> ImageOf(const Request& request, Context& context) {
  return context.images.Get(WholeOf(request, "id", 0, 1 << 30), TextOf(request, "developed") == "1");
}

/// Numbers of JSON are finite.
Json NumberOrNull(double value) {
  return std::isfinite(value) ? Json(value) : Json();
}

Json JsonOf(const session::Levels& levels, int planes) {
  Json json = Json::array();
  for (int p = 0; p < std::min(planes, 3); ++p) {
    json.push_back({{"black", levels.min[p]}, {"white", levels.max[p]}, {"midtone", levels.midtone[p]}});
  }
  return json;
}

Stretch StretchOf(const Request& request, const Pyramid& pyramid) {
  Stretch stretch;
  const std::string levels = TextOf(request, "levels");
  stretch.levels = levels.empty() ? pyramid.Shown(TextOf(request, "linked") == "1") : ReadLevels(levels);
  stretch.steps = ReadSteps(TextOf(request, "steps"));
  stretch.inColours = TextOf(request, "colours") == "1";
  return stretch;
}

Response Info(const OpenImage& image) {
  const Pyramid& pyramid = *image.pyramid;
  const Source& source = pyramid.Of();
  const files::ImageInfo& info = source.info;
  Json json{{"id", image.id},
            {"width", source.shape.width},
            {"height", source.shape.height},
            {"planes", source.shape.planes},
            {"levels", pyramid.Levels()},
            {"tile", Pyramid::kTile},
            {"version", image.version + (image.IsExact() ? "" : "r")},
            {"progress", pyramid.Progress()},
            {"failure", pyramid.Failure()},
            {"auto", JsonOf(pyramid.Shown(false), source.shape.planes)},
            {"linked", JsonOf(pyramid.Shown(true), source.shape.planes)},
            {"format", info.format},
            {"type", info.type},
            {"overturned", source.isOverturned},
            {"mosaic", source.mosaic},
            {"developed", image.isDeveloped}};
  const auto scale = files::PixelScale(info.header);
  json["scale"] = scale ? Json(*scale) : Json();
  const files::ImageSize size{info.width, info.height, info.planes};
  json["sky"] = SkyAt(info.header, size, 0, 0).has_value();
  for (const char* key : {"OBJECT", "DATE-OBS", "EXPTIME", "FILTER", "INSTRUME", "CCD-TEMP", "GAIN"}) {
    if (const auto value = info.header.GetString(key)) json["keywords"][key] = *value;
  }
  return JsonResponse(json);
}

Response Tile(const Request& request, const OpenImage& image) {
  Pyramid& pyramid = *image.pyramid;
  const TilePlace place = PlaceOf(request);
  const bool isExact = image.IsExact();
  const Bytes bytes = DrawTile(pyramid, place, StretchOf(request, pyramid), request.isGone);
  if (request.isGone()) throw Cancelled();
  const bool asPng = TextOf(request, "format") == "png";
  Response response{.type = asPng ? "image/png" : "image/jpeg", .body = asPng ? PngOf(bytes) : JpegOf(bytes)};
  // The version in its address is that of the file's state.
  if (isExact && TextOf(request, "v") == image.version) {
    response.headers.emplace_back("Cache-Control", "private, max-age=600");
  }
  return response;
}

/// The pixel under the cursor, as rows of the picture count.
Response Value(const Request& request, const OpenImage& image) {
  Pyramid& pyramid = *image.pyramid;
  const Source& source = pyramid.Of();
  const int x = WholeOf(request, "x", 0, source.shape.width - 1),
            y = WholeOf(request, "y", 0, source.shape.height - 1);
  BandBuffer buffer;
  const Band<float> row = buffer.Get(source.shape.planes, source.shape.width, y, 1);
  pyramid.Read(row);
  Json json{{"x", x}, {"y", source.Turned(y)}, {"values", Json::array()}};
  for (int p = 0; p < source.shape.planes; ++p) {
    json["values"].push_back(NumberOrNull(row.Row(p, y)[x]));
  }
  const files::ImageInfo& info = source.info;
  const files::ImageSize size{info.width, info.height, info.planes};
  if (const auto sky = SkyAt(info.header, size, x, source.Turned(y))) {
    json["ra"] = sky->ra;
    json["dec"] = sky->dec;
  }
  return JsonResponse(json);
}

Response Statistics(const Request& request, const OpenImage& image) {
  Pyramid& pyramid = *image.pyramid;
  const auto edge = [&](const char* name) { return WholeOf(request, name, -kAnyPixel, 2 * kAnyPixel); };
  const CRect rect(edge("left"), edge("top"), edge("right"), edge("bottom"));
  const double low = NumberOf(request, "low", -1e300, 1e300), high = NumberOf(request, "high", -1e300, 1e300);
  if (!(high > low)) throw UsageError("high is above low");
  const RectStatistics found = Measure(pyramid, rect, kBins, low, high, request.isGone);
  Json json{{"left", found.rect.left},     {"top", found.rect.top}, {"right", found.rect.right},
            {"bottom", found.rect.bottom}, {"step", found.step},    {"planes", Json::array()}};
  for (const PlaneStatistics& plane : found.planes) {
    const auto known = [&](double value) { return plane.count > 0 ? NumberOrNull(value) : Json(); };
    json["planes"].push_back({{"count", plane.count},
                              {"blank", plane.blank},
                              {"min", known(plane.min)},
                              {"max", known(plane.max)},
                              {"mean", known(plane.mean)},
                              {"median", known(plane.median)},
                              {"deviation", known(plane.deviation)},
                              {"spread", known(plane.spread)},
                              {"histogram", plane.histogram}});
  }
  return JsonResponse(json);
}

/// Seconds of arc between two places; null where the header does not tell them.
Json ArcBetween(const Source& source, const CfPoint& from, const CfPoint& to) {
  constexpr double kDegree = std::numbers::pi / 180, kArcseconds = 3600;
  const files::ImageInfo& info = source.info;
  const files::ImageSize size{info.width, info.height, info.planes};
  const auto skyAt = [&](const CfPoint& place) {
    const double y = source.isOverturned ? source.shape.height - 1 - place.y : place.y;
    return SkyAt(info.header, size, place.x, y);
  };
  const auto a = skyAt(from), b = skyAt(to);
  if (!a || !b) return {};
  // By half angles, which keeps small ones exact.
  const auto half = [](double degrees) { return std::pow(std::sin(degrees * kDegree / 2), 2); };
  const double share =
      half(b->dec - a->dec) + std::cos(a->dec * kDegree) * std::cos(b->dec * kDegree) * half(b->ra - a->ra);
  return NumberOrNull(2 * std::asin(std::sqrt(std::min(share, 1.0))) / kDegree * kArcseconds);
}

/// Pixels along a line, a step for each pixel of its length.
Response Profile(const Request& request, const OpenImage& image) {
  constexpr int kMost = 600;  // places; chosen: a plot is hardly wider
  const auto place = [&](const char* name) { return NumberOf(request, name, -kAnyPixel, 2 * kAnyPixel); };
  const CfPoint from(place("x0"), place("y0")), to(place("x1"), place("y1"));
  const double length = std::hypot(to.x - from.x, to.y - from.y);
  const int count = std::clamp(static_cast<int>(std::lround(length)) + 1, 2, kMost);
  Json json{
      {"length", length}, {"arc", ArcBetween(image.pyramid->Of(), from, to)}, {"planes", Json::array()}};
  for (const auto& plane : ProfileOf(*image.pyramid, from, to, count, request.isGone)) {
    Json values = Json::array();
    for (const float v : plane)
      values.push_back(NumberOrNull(v));
    json["planes"].push_back(std::move(values));
  }
  return JsonResponse(json);
}

Response Stars(const Request& request, Context& context) {
  const int id = WholeOf(request, "id", 0, 1 << 30);
  const auto image = context.images.Get(id, false);
  const Source& source = image->pyramid->Of();
  const Turns::Turn turn = context.searching.Take(request.isGone);
  Job job({.cancel = TokenOf(request, context.job), .memory = context.job.Memory() / 4});
  // A frame of a run is no file.
  const CRect all(0, 0, source.shape.width, source.shape.height);
  const FoundStars found =
      FindStars(context.images.IsOffered(id) ? WindowOf(*image->pyramid, 0, all, request.isGone)
                                             : Image::Open(job, context.files.Find(id)));
  job.CheckComputed();
  constexpr std::size_t kMost = 5000;  // that a page draws; chosen
  Json json{{"count", found.stars.size()},    {"fwhm", found.fwhm},
            {"elongation", found.elongation}, {"sky", found.sky},
            {"noise", found.noise},           {"list", Json::array()}};
  for (std::size_t i = 0; i < std::min(found.stars.size(), kMost); ++i) {
    const CStar& star = found.stars[i];
    const double y = source.isOverturned ? source.shape.height - 1 - star.y : star.y;
    json["list"].push_back({{"x", star.x}, {"y", y}, {"fwhm", star.fwhm}, {"flags", FlagsText(star)}});
  }
  return JsonResponse(json);
}

}  // namespace

session::Levels ReadLevels(const std::string& text) {
  std::vector<double> numbers;
  std::istringstream words(text);
  for (std::string word; std::getline(words, word, ',') && numbers.size() < 10;) {
    const auto number = ToNumber(word);
    if (!number || !std::isfinite(*number)) throw UsageError("levels are BLACK,MIDTONE,WHITE of each plane");
    numbers.push_back(*number);
  }
  if (numbers.size() != 3 && numbers.size() != 9) {
    throw UsageError("levels are BLACK,MIDTONE,WHITE of each plane, or once for all");
  }
  session::Levels levels;
  for (int p = 0; p < 3; ++p) {
    const double* plane = &numbers[numbers.size() == 9 ? 3 * p : 0];
    levels.min[p] = plane[0];
    levels.midtone[p] = plane[1];
    levels.max[p] = plane[2];
    if (!(plane[2] > plane[0]) || !(plane[1] > 0 && plane[1] < 1)) {
      throw UsageError("white is above black, and midtones are between 0 and 1");
    }
  }
  return levels;
}

TilePlace PlaceOf(const Request& request) {
  return {WholeOf(request, "level", 0, 32), WholeOf(request, "x", 0, files::kMaxSide),
          WholeOf(request, "y", 0, files::kMaxSide),
          request.query.contains("overlap") ? WholeOf(request, "overlap", 0, 1) : 0};
}

std::vector<Step> ReadSteps(const std::string& text) {
  std::vector<Step> steps;
  std::istringstream words(text);
  bool begins = true;
  for (std::string word; words >> word; begins = word == "then") {
    if (word == "then") continue;
    if (begins) {
      if (word != "ghs" && word != "curve" && word != "stretch") {
        throw UsageError("tiles are drawn with ghs, stretch and curve only");
      }
      steps.emplace_back(FindOperation(word));
      continue;
    }
    const std::size_t equals = word.find('=');
    if (equals == word.npos) throw UsageError("parameters are written name=value");
    steps.back().Set(word.substr(0, equals), word.substr(equals + 1));
  }
  for (const Step& step : steps) {
    if (step.What().name == "stretch" && step.Values().empty())
      throw UsageError("stretch wants its values here");
  }
  return steps;
}

void AddImage(Router& router, Context& context) {
  const auto get = [&](const char* name, auto answer) {
    router.Get(name, [&context, answer](const Request& request) {
      return answer(request, *ImageOf(request, context));
    });
  };
  get("image/info", [](const Request&, const OpenImage& image) { return Info(image); });
  get("image/tile", Tile);
  get("image/value", Value);
  get("image/statistics", Statistics);
  get("image/profile", Profile);
  get("image/header", [](const Request&, const OpenImage& image) {
    return JsonResponse(image.pyramid->Of().info.header.cards);
  });
  router.Get("image/stars", [&context](const Request& request) { return Stars(request, context); });
}

}  // namespace korimg::viewer
