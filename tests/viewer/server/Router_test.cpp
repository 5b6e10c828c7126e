#include "viewer/server/Router.h"

#include <set>

#include <gtest/gtest.h>

#include "session/job/Errors.h"
#include "viewer/api/Api.h"

namespace korimg::viewer {
namespace {

constexpr const char* kToken = "0123456789abcdef0123456789abcdef";

class RouterTest : public testing::Test {
 protected:
  RouterTest() {
    router_.Get("name",
                [](const Request& request) { return Response{.body = "got " + TextOf(request, "a")}; });
    router_.Post("act", [](const Request& request) { return Response{.body = "did " + request.body}; });
    router_.Get("usage", [](const Request&) -> Response { throw session::UsageError("no \"such\" thing"); });
    router_.Get("crash", [](const Request&) -> Response { throw std::runtime_error("broken"); });
  }

  static Request Of(const std::string& path, const std::string& method = "GET") {
    return {.method = method, .path = path, .query = {{"a", "1"}}, .host = "127.0.0.1:8000", .body = "it"};
  }
  static std::string In(const std::string& name) { return "/" + std::string(kToken) + "/" + name; }

  Router router_{kToken};
};

TEST_F(RouterTest, AnswersThoseWhoKnowTheToken) {
  EXPECT_EQ(router_.Answer(Of(In("name"))).body, "got 1");
  EXPECT_EQ(router_.Answer(Of(In("act"), "POST")).body, "did it");
  EXPECT_EQ(router_.Answer(Of(In("act"))).status, 405);
  EXPECT_EQ(router_.Answer(Of(In("name"), "POST")).status, 405);
  EXPECT_EQ(router_.Answer(Of(In("other"))).status, 404);
}

TEST_F(RouterTest, TellsOthersThatThereIsNothing) {
  const std::string token = kToken;
  const std::string reference = router_.Answer(Of("/")).body;
  for (const std::string& path :
       {std::string(), std::string("/"), std::string("/name"), "/" + token, "//" + token + "/name",
        "/" + token.substr(1) + "/name", "/" + token + "0/name", "/" + token + "name",
        "/1" + token.substr(1) + "/name", "/" + token + "/../name", "/" + token + "//name",
        "/" + token + "/./name", "/" + token + "/name/", In("name") + std::string("\0", 1)}) {
    const Response response = router_.Answer(Of(path));
    EXPECT_EQ(response.status, 404) << path;
    EXPECT_EQ(response.body, reference) << path;
  }
}

TEST_F(RouterTest, AnswersThisMachineByItsOwnNamesOnly) {
  const auto status = [&](const std::string& host, const std::string& origin = "") {
    Request request = Of(In("name"));
    request.host = host;
    request.origin = origin;
    return router_.Answer(request).status;
  };
  for (const char* host : {"127.0.0.1", "127.0.0.1:80", "127.0.0.2:80", "localhost:9", "[::1]:9", "[::1]"}) {
    EXPECT_EQ(status(host), 200) << host;
    EXPECT_EQ(status(host, "http://" + std::string(host)), 200) << host;
  }
  for (const char* host :
       {"", "evil.example", "127.0.0.1.evil.example:80", "localhost.evil:80", "[::2]:80", "[::1", "::1",
        "127.0.0:80", "LOCALHOST@evil", "[::1].evil.example", "127.0.0.1:80@evil.example",
        "localhost:80.evil.example", "127.0.0.1:x", "127.0.0.1:"}) {
    EXPECT_EQ(status(host), 404) << host;
  }
  for (const char* origin : {"null", "http://evil.example", "http://127.0.0.1:1", "https://127.0.0.1:8000"}) {
    EXPECT_EQ(status("127.0.0.1:8000", origin), 404) << origin;
  }
  Router any(kToken, true);
  any.Get("name", [](const Request&) { return Response{}; });
  Request request = Of(In("name"));
  request.host = "observatory:8000";
  EXPECT_EQ(any.Answer(request).status, 200);
  request.origin = "http://evil.example";
  EXPECT_EQ(any.Answer(request).status, 404);
}

TEST_F(RouterTest, TellsErrorsAsObjectsAndGuardsEveryAnswer) {
  const Response usage = router_.Answer(Of(In("usage")));
  EXPECT_EQ(usage.status, 400);
  EXPECT_EQ(usage.body, R"({"error":"no \"such\" thing"})");
  EXPECT_EQ(router_.Answer(Of(In("crash"))).status, 500);
  for (const char* path : {"name", "crash", "nothing"}) {
    std::set<std::string> names;
    for (const auto& [name, value] : router_.Answer(Of(In(path))).headers)
      names.insert(name);
    for (const char* name :
         {"Content-Security-Policy", "Referrer-Policy", "X-Content-Type-Options", "Cache-Control"}) {
      EXPECT_TRUE(names.contains(name)) << path << " " << name;
    }
  }
}

TEST_F(RouterTest, ReadsNumbersWithinTheirLimits) {
  Request request;
  for (const auto& [text, expected] : {std::pair("7", 7), {"-2", -2}, {"1e1", 10}}) {
    request.query["n"] = text;
    EXPECT_EQ(WholeOf(request, "n", -2, 10), expected);
  }
  for (const char* text : {"", "x", "7 ", "nan", "inf", "11", "-3", "1.5", "0x1"}) {
    request.query["n"] = text;
    EXPECT_THROW(WholeOf(request, "n", -2, 10), session::UsageError) << text;
  }
  EXPECT_THROW(NumberOf(request, "missing", 0, 1), session::UsageError);
}

TEST(Token, IsNewEachTimeAndAllOfItRandom) {
  std::set<std::string> tokens;
  std::vector<std::set<char>> digits(32);
  for (int i = 0; i < 200; ++i) {
    const std::string token = NewToken();
    ASSERT_EQ(token.size(), 32u);
    tokens.insert(token);
    for (int k = 0; k < 32; ++k)
      digits[k].insert(token[k]);
  }
  EXPECT_EQ(tokens.size(), 200u);
  for (const auto& seen : digits)
    EXPECT_GT(seen.size(), 8u);
}

}  // namespace
}  // namespace korimg::viewer
