#include "session/operations/Operations.h"

#include <algorithm>

#include <fmt/format.h>

namespace korimg::session {

// The functions of all families, which CMake lists.
#define KORIMG_FAMILY(name, Name) std::vector<Operation> Name##Operations();
#include "session/operations/Families.inc"
#undef KORIMG_FAMILY

namespace {

/// How many letters must change to get from one name to the other.
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) {
    row[j] = j;
  }
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t change = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
    }
  }
  return row[b.size()];
}

std::vector<Operation> Join() {
  std::vector<Operation> all;
  const auto add = [&all](const char* family, std::vector<Operation> operations) {
    for (Operation& operation : operations) {
      operation.family = family;
      all.push_back(std::move(operation));
    }
  };
#define KORIMG_FAMILY(name, Name) add(#name, Name##Operations());
#include "session/operations/Families.inc"
#undef KORIMG_FAMILY
  std::sort(all.begin(), all.end(), [](const Operation& a, const Operation& b) { return a.name < b.name; });
  return all;
}

}  // namespace

const std::vector<Operation>& Operations() {
  static const std::vector<Operation> all = Join();
  return all;
}

bool IsOperation(const std::string& name) {
  return std::any_of(Operations().begin(), Operations().end(),
                     [&](const Operation& operation) { return operation.name == name; });
}

const Operation& FindOperation(const std::string& name) {
  const Operation* nearest = &Operations().front();
  for (const Operation& operation : Operations()) {
    if (operation.name == name) return operation;
    if (Distance(name, operation.name) < Distance(name, nearest->name)) nearest = &operation;
  }
  throw UsageError(fmt::format("there is no operation '{}'; did you mean '{}'? `korimg ops` lists them all",
                               name, nearest->name));
}

const std::vector<std::string>& Families() {
  static const std::vector<std::string> families = {
#define KORIMG_FAMILY(name, Name) #name,
#include "session/operations/Families.inc"
#undef KORIMG_FAMILY
  };
  return families;
}

}  // namespace korimg::session
