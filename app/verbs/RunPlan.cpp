#include "app/verbs/RunPlan.h"

#include <charconv>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/job/Json.h"

namespace korimg::tool {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr int kFormat = 1;

Json ToJson(const RunTask& task, int number) {
  return {{"number", number},      {"stage", NameOf(kRunStages, task.stage)},
          {"object", task.object}, {"stack", task.stack},
          {"part", task.part},     {"parts", task.parts},
          {"text", task.Text()},   {"after", task.after}};
}

RunTask TaskOf(const Json& json) {
  RunTask task{ValueOf(kRunStages, json.at("stage").get<std::string>())};
  task.object = json.at("object");
  task.stack = json.at("stack");
  task.part = json.at("part");
  task.parts = json.at("parts");
  task.after = json.at("after").get<std::vector<int>>();
  return task;
}

}  // namespace

void Write(const RunPlan& plan, const fs::path& file) {
  Json json{{"format", kFormat},
            {"korimg", Version()},
            {"folder", plan.folder.string()},
            {"arguments", plan.arguments},
            {"tasks", Json::array()}};
  for (const RunTask& task : plan.tasks) {
    json["tasks"].push_back(ToJson(task, static_cast<int>(json["tasks"].size())));
  }
  files::TransientFile part(files::PartialName(file));
  std::ofstream out(part.Path());
  // A name that is no UTF-8 would not be the same when it is read again.
  try {
    out << json.dump(1) << '\n';
  } catch (const Json::exception&) {
    throw files::FileError(file, "cannot hold names that are no UTF-8; rename the files, or their folder");
  }
  out.close();
  if (!out) throw files::FileError(file, "cannot be written; is the disk full, and the folder there?");
  part.RenameTo(file);
}

RunPlan ReadPlan(const fs::path& file) {
  std::ifstream in(file);
  if (!in) throw files::FileError(file, "cannot be opened; korimg run ... --plan-only makes a plan");
  try {
    const Json json = Json::parse(in);
    if (json.at("format") != kFormat || json.at("korimg") != Version()) {
      throw files::FileError(file, fmt::format("is the plan of another korimg ({}, this is {}); make it anew",
                                               json.at("korimg").get<std::string>(), Version()));
    }
    RunPlan plan{
        json.at("folder").get<std::string>(), json.at("arguments").get<std::vector<std::string>>(), {}};
    for (const Json& task : json.at("tasks")) {
      plan.tasks.push_back(TaskOf(task));
    }
    return plan;
  } catch (const Json::exception&) {
    throw files::FileError(file, "is no plan of a run; korimg run ... --plan-only makes one");
  }
}

std::vector<int> ParseNumbers(const std::string& text, int count) {
  const auto refuse = [&] {
    throw UsageError(fmt::format(
        "--task {}: are no tasks of the plan; write numbers from 0 to {}, as in 0-3,7", text, count - 1));
  };
  std::vector<int> numbers;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    const char *at = item.data(), *const end = at + item.size();
    int first = 0, last = 0;
    auto read = std::from_chars(at, end, first);
    last = first;
    if (read.ec == std::errc() && read.ptr != end && *read.ptr == '-') {
      read = std::from_chars(read.ptr + 1, end, last);
    }
    if (read.ec != std::errc() || read.ptr != end || first < 0 || last < first || last >= count) refuse();
    for (int number = first; number <= last; ++number) {
      numbers.push_back(number);
    }
  }
  if (numbers.empty()) refuse();
  return numbers;
}

}  // namespace korimg::tool
