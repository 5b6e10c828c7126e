// Who may ask, and what is answered by which name.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "session/job/Errors.h"
#include "viewer/server/Http.h"

namespace korimg::viewer {

using Json = nlohmann::ordered_json;

/// Makes 128 random bits, in hexadecimal digits.
std::string NewToken();

/// Answers requests for /TOKEN/NAME. Names are whole texts, never paths of files. Whoever does not know the
/// token, or comes by the name of another host or from another page, is told that there is nothing.
class Router {
 public:
  using Handler = std::function<Response(const Request&)>;

  /// With `anyHost` this machine may be asked for by any name, as where it listens to others.
  explicit Router(std::string token, bool anyHost = false) : token_(std::move(token)), anyHost_(anyHost) {}

  /// Adds what is asked for and changes nothing.
  void Get(const std::string& name, Handler handler) { gets_[name] = std::move(handler); }
  /// Adds what does something.
  void Post(const std::string& name, Handler handler) { posts_[name] = std::move(handler); }

  /// Answers any request. What a handler throws is told as {"error": text}.
  Response Answer(const Request& request) const;

 private:
  bool Knows(const Request& request, std::string_view& name) const;

  std::string token_;
  bool anyHost_;
  std::map<std::string, Handler, std::less<>> gets_, posts_;
};

/// Tells what went wrong as the page tells it: files by their names, without their folders.
std::string TextFor(const session::Error& error);

/// Answers with an object for the page.
Response JsonResponse(const Json& json, int status = 200);

/// Reads a number of a request's query, within limits. Throws UsageError where it is missing or beyond them.
double NumberOf(const Request& request, const std::string& name, double low, double high);
int WholeOf(const Request& request, const std::string& name, int low, int high);
/// Reads a text of the query; empty where it is missing.
std::string TextOf(const Request& request, const std::string& name);

/// Reads the object that is a request's body. Throws UsageError.
Json BodyOf(const Request& request);
/// Reads a value of it, or another one where it is missing or null. Throws UsageError for one of another
/// kind.
template <class T>
T ValueIn(const Json& body, const char* name, const T& other) {
  try {
    return body.contains(name) && !body[name].is_null() ? body[name].get<T>() : other;
  } catch (const Json::exception&) {
    throw session::UsageError(std::string(name) + " is no value of that kind");
  }
}

/// Writes a word as a shell takes it.
std::string Quoted(const std::string& word);

}  // namespace korimg::viewer
