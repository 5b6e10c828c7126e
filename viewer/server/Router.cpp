#include "viewer/server/Router.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <regex>
#include <system_error>

#include <fmt/format.h>
#include <sys/random.h>

#include "session/files/ImageFile.h"
#include "session/job/Errors.h"
#include "session/job/Job.h"
#include "session/job/Json.h"

namespace korimg::viewer {
namespace {

/// Takes as long whatever is different.
bool IsSame(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  }
  return difference == 0;
}

/// This machine by a name that no name server can give to another one, at any port: ssh -L has its own.
bool IsLocal(const std::string& host) {
  static const std::regex known(R"((localhost|127(\.[0-9]{1,3}){3}|\[::1\])(:[0-9]{1,5})?)");
  constexpr std::size_t kLongest = 30;  // more than any name below has, and little for an expression
  return host.size() <= kLongest && std::regex_match(host, known);
}

Response Nothing() {
  return {.status = 404, .body = "There is nothing here.\n"};
}

int StatusOf(session::ErrorKind kind) {
  switch (kind) {
    case session::ErrorKind::Usage:
      return 400;
    case session::ErrorKind::File:
      return 422;
    case session::ErrorKind::Resource:
    case session::ErrorKind::Cancelled:
      return 503;
    default:
      return 500;
  }
}

Response Call(const Router::Handler& handler, const Request& request) {
  try {
    try {
      return handler(request);
    } catch (...) {
      session::ThrowOfFamily();
    }
  } catch (const session::Error& error) {
    return JsonResponse({{"error", TextFor(error)}}, StatusOf(error.Kind()));
  }
}

}  // namespace

std::string NewToken() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) {
    throw session::Error(session::ErrorKind::Resource, "the system has no random numbers for a token");
  }
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

bool Router::Knows(const Request& request, std::string_view& name) const {
  const std::string_view path = request.path;
  if (path.size() < token_.size() + 2 || path[0] != '/' || path[token_.size() + 1] != '/') return false;
  if (!IsSame(path.substr(1, token_.size()), token_)) return false;
  if (!anyHost_ && !IsLocal(request.host)) return false;
  if (!request.origin.empty() && request.origin != "http://" + request.host) return false;
  name = path.substr(token_.size() + 2);
  return true;
}

Response Router::Answer(const Request& request) const {
  std::string_view name;
  Response response = Nothing();
  if (Knows(request, name)) {
    const bool isGet = request.method == "GET", isPost = request.method == "POST";
    const auto& handlers = isPost ? posts_ : gets_;
    if (const auto found = handlers.find(name); (isGet || isPost) && found != handlers.end()) {
      response = Call(found->second, request);
    } else if (gets_.contains(name) || posts_.contains(name)) {
      response = {.status = 405, .body = isGet ? "POST only\n" : "GET only\n"};
    }
  }
  const auto has = [&](const char* key) {
    return std::any_of(response.headers.begin(), response.headers.end(),
                       [key](const auto& header) { return header.first == key; });
  };
  if (!has("Cache-Control")) response.headers.emplace_back("Cache-Control", "no-store");
  response.headers.emplace_back("Content-Security-Policy",
                                "default-src 'self'; img-src 'self' blob: data:; object-src 'none'; "
                                "base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
  response.headers.emplace_back("Referrer-Policy", "no-referrer");
  response.headers.emplace_back("X-Content-Type-Options", "nosniff");
  response.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  return response;
}

std::string TextFor(const session::Error& error) {
  const auto* of = dynamic_cast<const files::FileError*>(&error);
  if (!of) return error.what();
  return std::filesystem::path(of->Subject()).filename().string() + ": " + of->Reason();
}

Response JsonResponse(const Json& json, int status) {
  return {.status = status, .type = "application/json", .body = session::Dump(json)};
}

std::string TextOf(const Request& request, const std::string& name) {
  const auto found = request.query.find(name);
  return found == request.query.end() ? "" : found->second;
}

double NumberOf(const Request& request, const std::string& name, double low, double high) {
  const std::string text = TextOf(request, name);
  const auto number = session::ToNumber(text);
  if (!number || !(*number >= low && *number <= high)) {
    throw session::UsageError(fmt::format("{} is a number from {} to {}, not '{}'", name, low, high, text));
  }
  return *number;
}

int WholeOf(const Request& request, const std::string& name, int low, int high) {
  const double number = NumberOf(request, name, low, high);
  if (number != std::floor(number)) throw session::UsageError(fmt::format("{} is a whole number", name));
  return static_cast<int>(number);
}

Json BodyOf(const Request& request) {
  Json body = Json::parse(request.body, nullptr, false);
  if (!body.is_object()) throw session::UsageError("the request is no object of JSON");
  return body;
}

std::string Quoted(const std::string& word) {
  const auto isPlain = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || (c != 0 && std::strchr("-_=.,:/+@%", c));
  };
  if (!word.empty() && std::ranges::all_of(word, isPlain)) return word;
  std::string quoted = "'";
  for (const char c : word) {
    quoted += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return quoted + "'";
}

}  // namespace korimg::viewer
