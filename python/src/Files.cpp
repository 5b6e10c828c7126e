// Image files to arrays and back.
#include <algorithm>
#include <cctype>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <pybind11/operators.h>

#include "python/src/Host.h"
#include "session/files/Mosaic.h"
#include "session/picture/Images.h"

namespace korimg::python {
namespace {

/// Joins cards as a FITS file has them, for those who parse them so.
std::string TextOf(const files::Header& header) {
  std::string text;
  for (const std::string& card : header.cards) {
    text += card;
  }
  return text;
}

files::Header HeaderOf(const std::string& text) {
  constexpr size_t kCard = 80;
  if (text.size() % kCard != 0) {
    throw UsageError(fmt::format("the cards of a header have {} characters each", kCard));
  }
  files::Header header;
  for (size_t i = 0; i < text.size(); i += kCard) {
    header.cards.push_back(text.substr(i, kCard));
  }
  return header;
}

/// A value in the type that its card gives it.
py::object ValueOf(const files::Header& header, const std::string& key) {
  const auto text = header.GetString(key);
  if (!text) return py::none();
  for (const std::string& card : header.cards) {
    if (card.substr(0, 8) != fmt::format("{:<8}", key)) continue;
    const size_t first = card.find_first_not_of(' ', 10);
    if (first == std::string::npos || card[first] == '\'') return py::str(*text);
    if (*text == "T" || *text == "F") return py::bool_(*text == "T");
    break;
  }
  const auto whole = header.GetInt(key);
  if (whole && text->find_first_of(".eEdD") == std::string::npos) return py::int_(*whole);
  if (const auto number = header.GetDouble(key)) return py::float_(*number);
  return py::str(*text);
}

std::string KeyOf(std::string key) {
  std::ranges::transform(key, key.begin(), [](unsigned char c) { return std::toupper(c); });
  return key;
}

void SetValue(files::Header& header, const std::string& name, const py::object& value,
              const std::string& comment) {
  const std::string key = KeyOf(name);
  const bool isText = py::isinstance<py::str>(value);
  const bool isTruth =
      py::isinstance<py::bool_>(value) || py::isinstance(value, py::module_::import("numpy").attr("bool_"));
  if (isTruth || (!isText && !py::hasattr(value, "__float__") && !py::hasattr(value, "__index__"))) {
    throw UsageError(
        fmt::format("{}: write a number or a text, not {}", key, py::repr(value).cast<std::string>()));
  }
  if (isText) return header.Set(key, value.cast<std::string>(), comment);
  // numpy's numbers too.
  if (py::hasattr(value, "__index__")) {
    int overflows = 0;
    const py::object whole = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
    if (!whole) throw py::error_already_set();
    const long long number = PyLong_AsLongLongAndOverflow(whole.ptr(), &overflows);
    if (overflows != 0) throw UsageError(fmt::format("{}: whole numbers have 64 bits", key));
    return header.Set(key, static_cast<std::int64_t>(number), comment);
  }
  header.Set(key, py::float_(value).cast<double>(), comment);
}

/// Reads a file: pixels, header, levels, what is known of the pixels, and what the file says of itself.
py::dict Read(const std::string& path, const std::string& hdu, const py::object& report, bool wantsProgress) {
  Host host({.report = report, .wantsProgress = wantsProgress, .usesThreads = false});
  std::unique_ptr<files::ImageReader> reader;
  host.Run([&] { reader = files::ImageReader::Open(path, {.hdu = hdu}); });
  files::ImageInfo info = reader->Info();
  Pixels pixels = NewArray(info.width, info.height, info.planes);
  std::optional<Pixels> variance, mask;
  QualityReader quality(*reader);
  if (quality.HasUncertainty()) variance = NewArray(info.width, info.height, info.planes);
  if (quality.HasMask()) mask = NewArray(info.width, info.height, info.planes);
  const Band<float> to = WritableBandOf(pixels);
  const QualityRows rows{variance ? WritableBandOf(*variance) : Band<float>(),
                         mask ? WritableBandOf(*mask) : Band<float>()};
  LevelPairs levels;
  host.Run([&] {
    const int step = BandRows(info.width, info.planes, info.height);
    for (int top = 0; top < info.height; top += step) {
      host.job.CheckCancelled();
      const int count = std::min(step, info.height - top);
      reader->ReadRows(to.Part(top, count));
      if (variance || mask) {
        quality.ReadRows({variance ? rows.variance.Part(top, count) : Band<float>(),
                          mask ? rows.mask.Part(top, count) : Band<float>()});
      }
      host.job.Progress("reading " + std::filesystem::path(path).filename().string(), top + count,
                        info.height);
    }
    host.job.EndProgress();
    info = reader->Info();  // camera raw: black is known now
    const Image image = Image::Over(host.job, to, nullptr, {{0, 1}});
    SetLevels(image.Pixels(), info, false);
    levels = LevelsOf(image.Pixels());
  });
  py::dict result;
  result["pixels"] = std::move(pixels);
  result["header"] = info.header;
  result["levels"] = levels;
  result["variance"] = variance;
  result["mask"] = mask;
  result["format"] = info.format;
  result["mosaic"] = files::FindMosaic(info).name;
  return result;
}

void Write(const std::string& path, const Pixels& pixels, const files::Header& header,
           const LevelPairs& levels, bool integers, const std::optional<Pixels>& variance,
           const std::optional<Pixels>& mask, bool overwrite, const py::object& report, bool wantsProgress) {
  Host host({.report = report, .wantsProgress = wantsProgress, .overwrite = overwrite, .usesThreads = false});
  const Band<const float> band = BandOf(pixels);
  const auto over = [&](const Pixels& array) {
    const Band<const float> own = BandOf(array);
    if (own.Width() != band.Width() || own.Rows() != band.Rows() || own.Planes() != band.Planes()) {
      throw UsageError("uncertainty and flags have the shape of the image");
    }
    return ImageOver(host.job, array, {});
  };
  std::optional<Image> deviations, flags;
  if (variance) deviations.emplace(over(*variance));
  if (mask) flags.emplace(over(*mask));
  host.Run([&] {
    host.job.CheckOutput(path);
    Image image = ImageOver(host.job, pixels, levels, &header);
    image.Pixels().SetOwnLevel(!levels.empty());
    Quality quality;
    if (deviations) quality.variance = std::move(deviations->Pointer());
    if (flags) quality.mask = std::move(flags->Pointer());
    SaveImage(host.job, image.Pixels(), image.Header(), path,
              {.integers = integers, .uncertainty = variance.has_value(), .mask = mask.has_value()}, quality);
  });
}

}  // namespace

void AddFiles(py::module_& module) {
  py::class_<files::Header>(module, "Header",
                            "The cards of a FITS header in their order, as they were read: duplicates, "
                            "HIERARCH, CONTINUE, COMMENT and HISTORY included.")
      .def(py::init<>(), "Makes an empty header.")
      .def(py::init(&HeaderOf), py::arg("text"), "Takes cards of 80 characters, one after the other.")
      .def("tostring", &TextOf, "Gives the cards of 80 characters, one after the other, without END.")
      .def_property_readonly(
          "cards", [](const files::Header& header) { return header.cards; }, "The cards, 80 characters each.")
      .def(
          "get",
          [](const files::Header& h, const std::string& key, const py::object& other) {
            const py::object value = ValueOf(h, KeyOf(key));
            return value.is_none() ? other : value;
          },
          py::arg("key"), py::arg("default") = py::none(), "Gives the value of the first card of that name.")
      .def(
          "__getitem__",
          [](const files::Header& h, const std::string& key) {
            py::object value = ValueOf(h, KeyOf(key));
            if (value.is_none()) throw py::key_error(key);
            return value;
          },
          py::arg("key"))
      .def(
          "__setitem__",
          [](files::Header& h, const std::string& key, const py::object& value) {
            SetValue(h, key, value, "");
          },
          py::arg("key"), py::arg("value"))
      .def(
          "__delitem__", [](files::Header& h, const std::string& key) { h.Remove(KeyOf(key)); },
          py::arg("key"))
      .def(
          "__contains__",
          [](const files::Header& h, const std::string& key) { return h.GetString(KeyOf(key)).has_value(); },
          py::arg("key"))
      .def("__len__", [](const files::Header& h) { return h.cards.size(); })
      .def(
          "__iter__",
          [](const files::Header& h) {
            py::list keys;
            for (const std::string& card : h.cards) {
              keys.append(card.substr(0, card.find_last_not_of(' ', 7) + 1));
            }
            return py::iter(keys);
          },
          "Goes through the keywords of the cards, 8 characters at most.")
      .def(py::pickle([](const files::Header& h) { return py::make_tuple(TextOf(h)); },
                      [](const py::tuple& state) { return HeaderOf(state[0].cast<std::string>()); }))
      .def("set", &SetValue, py::arg("key"), py::arg("value"), py::arg("comment") = "",
           "Gives the first card of that name a value and a comment, or appends one.")
      .def(
          "add_history", [](files::Header& h, const std::string& text) { h.AddHistory(text); },
          py::arg("text"), "Appends HISTORY, 72 characters a card.")
      .def(
          "copy", [](const files::Header& h) { return h; }, "Gives a copy.")
      .def(
          "__eq__", [](const files::Header& a, const files::Header& b) { return a.cards == b.cards; },
          py::is_operator())
      .def("__repr__", [](const files::Header& h) { return fmt::format("{}", fmt::join(h.cards, "\n")); });
  module.def("read", &Read);
  module.def("write", &Write);
}

}  // namespace korimg::python
