// Choices by name.
#pragma once

#include <string>
#include <vector>

#include "session/job/Errors.h"

namespace korimg::session {

/// A name, and what it stands for.
template <class E>
struct Named {
  const char* name;
  E value;
};

template <class E>
std::vector<std::string> NamesOf(const std::vector<Named<E>>& choices) {
  std::vector<std::string> names;
  for (const auto& choice : choices) {
    names.push_back(choice.name);
  }
  return names;
}

/// Answers the name of a value that has one.
template <class E>
std::string NameOf(const std::vector<Named<E>>& choices, E value) {
  for (const auto& choice : choices) {
    if (value == choice.value) return choice.name;
  }
  return "";
}

/// Answers what a name stands for. Throws UsageError for another one.
template <class E>
E ValueOf(const std::vector<Named<E>>& choices, const std::string& name) {
  for (const auto& choice : choices) {
    if (name == choice.name) return choice.value;
  }
  std::string names;
  for (const auto& choice : choices) {
    names += (names.empty() ? "" : ", ") + std::string(choice.name);
  }
  throw UsageError("'" + name + "' is none of " + names);
}

}  // namespace korimg::session
