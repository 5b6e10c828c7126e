#include "app/calibrate/Report.h"

#include <fstream>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "app/files/Formats.h"

namespace korimg::tool {
namespace {

constexpr const char* kStyle =
    "body{font:15px/1.5 sans-serif;margin:2em;background:#16181c;color:#d8dade}h1{font-size:1.4em}"
    "table{border-collapse:collapse}td,th{padding:.3em .8em;text-align:left;border-bottom:1px solid #33363d}"
    "td.n{text-align:right}img{width:260px;display:block}code{color:#9ac1f0}.bad{color:#f08080}";

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

/// A path as an address: every character that means something there is written by its number.
std::string Address(const std::filesystem::path& path) {
  std::string address;
  for (const char c : path.generic_string()) {
    const bool plain =
        std::isalnum(static_cast<unsigned char>(c)) || std::string("/._-~").find(c) != std::string::npos;
    address += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return address;
}

std::string Page(const Report& report, const std::filesystem::path& folder) {
  std::string page = fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta "
      "charset=\"utf-8\"><title>korimg</title><style>{}</style></head>"
      "<body>\n<h1>Calibrated frames</h1>\n<p><code>{}</code><br>korimg {}</p>\n<h2>Masters</h2>\n<ul>\n",
      kStyle, Escaped(report.command), Version());
  for (const std::string& master : report.masters) {
    page += fmt::format("<li>{}</li>\n", Escaped(master));
  }
  page +=
      "</ul>\n<h2>Frames</h2>\n<table>\n<tr><th></th><th>frame</th><th>calibrated by</th><th>mean</th>"
      "<th>clipped at 0</th></tr>\n";
  for (const ReportRow& row : report.rows) {
    if (row.preview.empty()) {
      page += fmt::format("<tr><td class=\"bad\">failed</td><td>{}</td><td colspan=\"3\"></td></tr>\n",
                          Escaped(row.file));
      continue;
    }
    const std::string picture = Address(std::filesystem::relative(row.preview, folder));
    page += fmt::format(
        "<tr><td><a href=\"{0}\"><img src=\"{0}\" alt=\"\"></a></td><td>{1}</td><td>{2}</td><td "
        "class=\"n\">{3:.6g}</td>"
        "<td class=\"n\">{4:.3g} %</td></tr>\n",
        picture, Escaped(row.file), Escaped(row.served), row.mean, 100 * row.clipped);
  }
  return page + "</table>\n</body></html>\n";
}

}  // namespace

void WriteReport(const Report& report, const std::filesystem::path& path) {
  files::TransientFile part(files::PartialName(path));
  std::ofstream file(part.Path());
  file << Page(report, path.parent_path());
  file.close();
  if (!file) throw files::FileError(path, "cannot be written; is the disk full?");
  part.RenameTo(path);
}

}  // namespace korimg::tool
