#include "session/run/internal/Report.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <map>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/files/internal/Times.h"
#include "session/run/internal/TimeAxis.h"

namespace korimg::session {
namespace {

constexpr const char* kStyle =
    "body{font:15px/1.5 sans-serif;margin:2em auto;max-width:1200px;padding:0 1em;background:#16181c;"
    "color:#d8dade}h1{font-size:1.5em}h2{font-size:1.15em;margin-top:2em}img{display:block}"
    "img.stack{width:100%;border-radius:4px}table{border-collapse:collapse;font-size:13px}"
    "td,th{padding:.25em .7em;text-align:left;border-bottom:1px solid #33363d}td.n,th.n{text-align:right}"
    "code,pre{color:#9ac1f0}pre{white-space:pre-wrap}.bad{color:#f08080}.plots{display:flex;flex-wrap:wrap;"
    "gap:1em}svg{background:#1d2026;border-radius:4px}.scroll{overflow-x:auto}dl{display:grid;"
    "grid-template-columns:max-content auto;gap:.1em 1.5em}dt{color:#9aa0aa}dd{margin:0}";

/// Text as it may stand in a page.
std::string Escaped(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

/// A JPEG as an address that holds it (RFC 2397, RFC 4648).
std::string Inline(const std::string& jpeg) {
  constexpr const char* kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string address = "data:image/jpeg;base64,";
  for (size_t i = 0; i < jpeg.size(); i += 3) {
    unsigned bits = 0;
    const size_t bytes = std::min<size_t>(3, jpeg.size() - i);
    for (size_t k = 0; k < 3; ++k) {
      bits = bits << 8 | (k < bytes ? static_cast<unsigned char>(jpeg[i + k]) : 0u);
    }
    for (size_t k = 0; k < 4; ++k) {
      address += k <= bytes ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
    }
  }
  return address;
}

/// The frames that were measured, and where they stand in plots: by time where all know theirs, else by
/// number.
struct Course {
  std::vector<const ReportFrame*> frames;
  std::optional<TimeAxis> time;

  explicit Course(const std::vector<ReportFrame>& all) {
    std::vector<std::optional<double>> starts;
    for (const ReportFrame& frame : all) {
      if (!frame.sky) continue;
      frames.push_back(&frame);
      starts.push_back(frame.start);
    }
    time = TimeAxis::Of(starts);
  }

  /// 0 to 1.
  double PlaceOf(size_t i) const {
    if (time) return time->places[i];
    return frames.size() > 1 ? static_cast<double>(i) / static_cast<double>(frames.size() - 1) : 0;
  }
  /// Frames between two pauses, which a line joins.
  int PartOf(size_t i) const { return time ? time->parts[i] : 0; }
};

/// A curve over the frames in the order of time; what was left out is marked.
std::string Plot(const std::string& title, const Course& course,
                 std::initializer_list<std::pair<const char*, std::optional<double> ReportFrame::*>> curves) {
  constexpr double kWidth = 360, kHeight = 170, kLeft = 56, kRight = 12, kTop = 28, kBottom = 22;
  constexpr const char* kColours[] = {"#7fb4f0", "#f0c060"};
  double low = std::numeric_limits<double>::infinity(), high = -low;
  for (const auto& [name, value] : curves) {
    for (const ReportFrame* frame : course.frames) {
      if (frame->*value) low = std::min(low, *(frame->*value)), high = std::max(high, *(frame->*value));
    }
  }
  if (!(low <= high)) return "";
  const double margin = high > low ? 0.05 * (high - low) : std::max(std::abs(high) * 0.05, 0.5);
  low -= margin, high += margin;
  const auto x = [&](double at) { return kLeft + (kWidth - kLeft - kRight) * at; };
  const auto y = [&](double v) {
    return kHeight - kBottom - (kHeight - kTop - kBottom) * (v - low) / (high - low);
  };
  std::string svg = fmt::format(
      "<svg width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" font-size=\"11\" fill=\"#d8dade\">"
      "<text x=\"{2}\" y=\"17\" font-size=\"13\">{3}</text>",
      kWidth, kHeight, kLeft, Escaped(title));
  for (const double v : {low + margin, high - margin}) {
    svg += fmt::format(
        "<line x1=\"{}\" x2=\"{}\" y1=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"#3a3e46\"/><text x=\"{}\" "
        "y=\"{:.1f}\" "
        "text-anchor=\"end\">{:.4g}</text>",
        kLeft, kWidth - kRight, y(v), y(v), kLeft - 6, y(v) + 4, v);
  }
  const auto label = [&](double at, const char* anchor, const std::string& text) {
    svg += fmt::format("<text x=\"{:.1f}\" y=\"{}\" text-anchor=\"{}\">{}</text>", x(at), kHeight - 6, anchor,
                       text);
  };
  label(0, "start", course.time ? "0" : "1");
  label(1, "end",
        course.time ? fmt::format("{:.1f} h", course.time->hours) : fmt::format("{}", course.frames.size()));
  if (course.time) {
    label(0.5, "middle", "since " + files::FitsDate(course.time->start).substr(0, 16));
    for (const TimeAxis::Pause& pause : course.time->pauses) {
      svg += fmt::format(
          "<line class=\"pause\" x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"{1}\" y2=\"{2}\" stroke=\"#6a707c\" "
          "stroke-dasharray=\"2 3\"><title>a pause of {3:.1f} h</title></line>",
          x(pause.at), kTop, kHeight - kBottom, pause.hours);
    }
  }
  int number = 0;
  for (const auto& [name, value] : curves) {
    const char* colour = kColours[number];
    std::map<int, std::string> lines;
    std::string dots;
    for (size_t i = 0; i < course.frames.size(); ++i) {
      const ReportFrame& frame = *course.frames[i];
      if (!(frame.*value)) continue;
      const double v = *(frame.*value), left = x(course.PlaceOf(i));
      if (frame.reason.empty()) lines[course.PartOf(i)] += fmt::format("{:.1f},{:.1f} ", left, y(v));
      dots += fmt::format(
          "<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"2.5\" fill=\"{}\"><title>{}{}: {:.4g}</title></circle>",
          left, y(v), frame.reason.empty() ? colour : "#f08080", Escaped(frame.file),
          frame.start ? ", " + files::FitsDate(*frame.start) : "", v);
    }
    for (const auto& [part, points] : lines) {
      svg += fmt::format("<polyline fill=\"none\" stroke=\"{}\" points=\"{}\"/>", colour, points);
    }
    svg += dots;
    if (curves.size() > 1) {
      svg += fmt::format("<text x=\"{}\" y=\"17\" fill=\"{}\" text-anchor=\"end\">{}</text>",
                         kWidth - kRight - 30 * (static_cast<int>(curves.size()) - 1 - number), colour, name);
    }
    ++number;
  }
  return svg + "</svg>\n";
}

std::string Cell(const std::optional<double>& value, const char* form) {
  return fmt::format("<td class=\"n\">{}</td>", value ? fmt::format(fmt::runtime(form), *value) : "");
}

std::string Lines(const std::vector<std::string>& lines) {
  std::string text = "<pre>";
  for (const std::string& line : lines) {
    text += Escaped(line) + '\n';
  }
  return text + "</pre>\n";
}

std::string Page(const Report& report) {
  std::string page = fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta "
      "charset=\"utf-8\"><title>korimg</title><style>{}</style>"
      "</head><body>\n<h1>Stacked frames</h1>\n",
      kStyle);
  for (const ReportStack& stack : report.stacks) {
    if (report.stacks.size() > 1) page += fmt::format("<h2>{}</h2>\n", Escaped(stack.name));
    page += fmt::format("<img class=\"stack\" src=\"{}\" alt=\"\">\n<dl>", Inline(stack.picture));
    for (const auto& [name, text] : stack.facts) {
      page += fmt::format("<dt>{}</dt><dd>{}</dd>\n", Escaped(name), Escaped(text));
    }
    page += "</dl>\n";
    if (!stack.gradient.empty()) {
      page +=
          fmt::format("<p>The gradient, from its darkest to its brightest:</p>\n<img src=\"{}\" alt=\"\">\n",
                      Inline(stack.gradient));
    }
  }
  page += "<h2>Over time</h2>\n<div class=\"plots\">\n";
  const Course course(report.frames);
  page += Plot("FWHM, pixels", course, {{"", &ReportFrame::fwhm}});
  page += Plot("Stars", course, {{"", &ReportFrame::stars}});
  page += Plot("Sky", course, {{"", &ReportFrame::sky}});
  page += Plot("Light of stars, of the reference's", course, {{"", &ReportFrame::light}});
  page += Plot("Shift, pixels", course, {{"dx", &ReportFrame::dx}, {"dy", &ReportFrame::dy}});
  page += Plot("Rotation, degrees", course, {{"", &ReportFrame::degrees}});
  page += Plot("Rejected, %", course, {{"", &ReportFrame::rejected}});
  page +=
      "</div>\n<h2>Frames</h2>\n<div class=\"scroll\"><table>\n<tr><th></th><th>frame</th><th>begun, "
      "UTC</th><th>status</th>"
      "<th>calibrated by</th><th class=\"n\">clipped</th><th class=\"n\">stars</th><th class=\"n\">FWHM</th>"
      "<th class=\"n\">elongation</th><th class=\"n\">guide error</th><th class=\"n\">sky</th><th "
      "class=\"n\">noise</th><th>registered "
      "by</th>"
      "<th class=\"n\">dx</th><th class=\"n\">dy</th><th class=\"n\">degrees</th><th "
      "class=\"n\">residual</th>"
      "<th class=\"n\">light</th><th class=\"n\">weight</th><th class=\"n\">rejected</th></tr>\n";
  for (const ReportFrame& frame : report.frames) {
    page += fmt::format(
        "<tr><td>{}</td><td>{}</td><td>{}</td><td{}>{}</td><td>{}</td><td class=\"n\">{:.2g} %</td>",
        frame.thumbnail.empty()
            ? ""
            : fmt::format("<img width=\"150\" src=\"{}\" alt=\"\">", Inline(frame.thumbnail)),
        Escaped(frame.file), frame.start ? files::FitsDate(*frame.start) : "",
        frame.reason.empty() ? "" : " class=\"bad\"",
        frame.reason.empty() ? "stacked" + Escaped(frame.note.empty() ? "" : "; " + frame.note)
                             : "left out: " + Escaped(frame.reason),
        Escaped(frame.served), 100 * frame.clipped);
    page += Cell(frame.stars, "{:.0f}") + Cell(frame.fwhm, "{:.2f}") + Cell(frame.elongation, "{:.2f}") +
            Cell(frame.guideError, "{:.2f}") + Cell(frame.sky, "{:.5g}") + Cell(frame.noise, "{:.4g}") +
            fmt::format("<td>{}</td>", Escaped(frame.method)) + Cell(frame.dx, "{:.2f}") +
            Cell(frame.dy, "{:.2f}") + Cell(frame.degrees, "{:.3f}") + Cell(frame.residual, "{:.3f}") +
            Cell(frame.light, "{:.3g}") + Cell(frame.weight, "{:.2f}") + Cell(frame.rejected, "{:.3f} %") +
            "</tr>\n";
  }
  page += "</table></div>\n<h2>Plan</h2>\n" + Lines(report.plan);
  page += fmt::format(
      "<h2>Made by</h2>\n<p><code>{}</code><br>korimg {}, {:%Y-%m-%d %H:%M} UTC</p>\n</body></html>\n",
      Escaped(report.command), Version(), fmt::gmtime(files::TimeOfWriting()));
  return page;
}

}  // namespace

void WriteReport(const Report& report, const std::filesystem::path& path) {
  files::TransientFile part(files::PartialName(path));
  std::ofstream file(part.Path());
  file << Page(report);
  file.close();
  if (!file) throw files::FileError(path, "cannot be written; is the disk full?");
  part.RenameTo(path);
}

}  // namespace korimg::session
