#include "viewer/server/Http.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "session/job/Errors.h"

namespace korimg::viewer {
namespace {

/// A client that sends whatever bytes it likes.
class Client {
 public:
  explicit Client(int port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    isConnected = connect(socket_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
  }
  Client(Client&& other) noexcept
      : isConnected(other.isConnected), socket_(std::exchange(other.socket_, -1)) {}
  ~Client() { Close(); }

  void Close() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }

  bool Send(const std::string& bytes) const {
    return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  /// All until the server closes, or says nothing for a while.
  std::string Receive(int milliseconds = 5000, const std::string& until = "\1") const {
    std::string all;
    char buffer[4096];
    pollfd poll{socket_, POLLIN, 0};
    while (all.find(until) == all.npos && ::poll(&poll, 1, milliseconds) > 0) {
      const ssize_t got = recv(socket_, buffer, sizeof buffer, 0);
      if (got <= 0) {
        isClosed = true;
        break;
      }
      all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
  }

  bool isConnected;
  mutable bool isClosed = false;

 private:
  int socket_;
};

class Http : public testing::Test {
 protected:
  static HttpOptions Small() {
    HttpOptions options;
    options.connections = 8;
    options.seconds = 1;
    options.largestBody = 10000;
    return options;
  }

  Response Answer(const Request& request) {
    ++asked_;
    if (request.path == "/slow") {
      while (!request.isGone())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      ++gone_;
    }
    if (request.path == "/events") {
      return {.type = "text/event-stream", .stream = [this](const Send& send) {
                for (int i = 0; i < 3; ++i)
                  send("data: " + std::to_string(i) + "\n\n");
                while (send(": still here\n\n"))
                  std::this_thread::sleep_for(std::chrono::milliseconds(5));
                ++gone_;
              }};
    }
    std::string body = request.method + " " + request.path + " " + request.host + " " + request.body;
    for (const auto& [name, value] : request.query)
      body += " " + name + "=" + value;
    return {.body = body};
  }

  std::string Ask(const std::string& bytes) const {
    const Client client(server_.Port());
    client.Send(bytes);
    return client.Receive();
  }
  static std::string Get(const std::string& target, const std::string& more = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + more + "\r\n";
  }
  bool Comes(const std::atomic<int>& count, int wanted) const {
    for (int i = 0; i < 1000 && count < wanted; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return count >= wanted;
  }

  std::atomic<int> asked_ = 0, gone_ = 0;
  HttpServer server_{Small(), [this](const Request& request) { return Answer(request); }};
};

TEST_F(Http, AnswersRequestsOneAfterTheOther) {
  const Client client(server_.Port());
  for (const char* name : {"a", "b"}) {
    client.Send("GET /x?n=" + std::string(name) + "%20%2F HTTP/1.1\r\nHost: h:1\r\n\r\n");
    const std::string end = "n=" + std::string(name) + " /";
    EXPECT_NE(client.Receive(5000, end).find("\r\n\r\nGET /x h:1  " + end), std::string::npos);
  }
  client.Send(
      "POST /x HTTP/1.1\r\nHost: h\r\nContent-Type: application/json\r\nContent-Length: 4\r\n\r\n{\"a\"");
  EXPECT_NE(client.Receive(5000, "{\"a\"").find("POST /x h {\"a\""), std::string::npos);
}

TEST_F(Http, RefusesWhatItDoesNotServe) {
  const std::string json = "Host: h\r\nConnection: close\r\nContent-Type: application/json\r\n";
  struct Case {
    const char* what;
    std::string bytes, status;
  };
  for (const Case& c : {
           Case{"no request", "hello\r\n\r\n", "400"},
           {"another method", "DELETE /x HTTP/1.1\r\nHost: h\r\n\r\n", "405"},
           {"a method of a proxy", "CONNECT h:1 HTTP/1.1\r\nHost: h\r\n\r\n", "40"},
           {"GET with a body", Get("/x", "Content-Length: 3\r\n") + "abc", "400"},
           {"a form", "POST /x HTTP/1.1\r\nHost: h\r\nContent-Type: text/plain\r\nContent-Length: 1\r\n\r\nx",
            "415"},
           {"a packed body",
            "POST /x HTTP/1.1\r\n" + json + "Content-Encoding: gzip\r\nContent-Length: 1\r\n\r\nx", "415"},
           {"a large body", "POST /x HTTP/1.1\r\n" + json + "Content-Length: 10001\r\n\r\n", "413"},
           {"a long path", Get("/" + std::string(2000, 'a')), "414"},
           {"a longer one", Get("/" + std::string(9000, 'a')), "414"},
       }) {
    // What comes behind is no request any more: it may be meant as a body.
    const std::string answer = Ask(c.bytes + Get("/after"));
    EXPECT_EQ(answer.substr(0, 9 + c.status.size()), "HTTP/1.1 " + c.status) << c.what;
  }
  EXPECT_EQ(asked_, 0);
}

TEST_F(Http, SendsWholeAnswersWhateverRangesAreAskedFor) {
  std::string ranges = "Range: bytes=0-0";
  for (int i = 0; i < 500; ++i)
    ranges += ",0-";
  const std::string answer = Ask(Get("/x", ranges + "\r\n"));
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 200");
  EXPECT_LT(answer.size(), 1000u);
}

TEST_F(Http, TakesNoMoreBytesThanItSays) {
  // Chunks without an end, headers without an end, and a line without an end: each is cut off soon.
  const std::string chunk = "400\r\n" + std::string(0x400, 'x') + "\r\n";
  struct Case {
    const char* what;
    std::string begin, more;
    std::size_t most;
  };
  for (const Case& c : {Case{"chunks",
                             "POST /x HTTP/1.1\r\nHost: h\r\nContent-Type: "
                             "application/json\r\nTransfer-Encoding: chunked\r\n\r\n",
                             chunk, 10000},
                        {"headers", "GET /x HTTP/1.1\r\nHost: h\r\n",
                         "X-Header: " + std::string(1000, 'x') + "\r\n", 32 << 10},
                        {"a line", "GET /", std::string(1000, 'x'), 32 << 10}}) {
    const Client client(server_.Port());
    client.Send(c.begin);
    std::size_t sent = 0;
    // What fits into the buffers of the sockets goes beyond what the server reads.
    constexpr std::size_t kBuffers = 16 << 20;
    while (sent < c.most + kBuffers && client.Send(c.more))
      sent += c.more.size();
    EXPECT_LT(sent, c.most + kBuffers) << c.what;
  }
  EXPECT_EQ(asked_, 0);
}

TEST_F(Http, EndsRequestsThatComeTooSlowly) {
  const Client client(server_.Port());
  const auto start = std::chrono::steady_clock::now();
  bool goes = client.Send("GET /x HTTP/1.1\r\nHost: h\r\n");
  for (int i = 0; i < 100 && goes; ++i) {
    goes = client.Send("a");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client.Receive(1);
    goes = goes && !client.isClosed;
  }
  EXPECT_FALSE(goes) << "still read after " << (std::chrono::steady_clock::now() - start).count() * 1e-9
                     << " s";
}

TEST_F(Http, FindsThatNobodyWaitsAnyMore) {
  Client client(server_.Port());
  client.Send(Get("/slow"));
  EXPECT_TRUE(Comes(asked_, 1));
  EXPECT_EQ(gone_, 0);
  client.Close();
  EXPECT_TRUE(Comes(gone_, 1));
}

TEST_F(Http, SendsEventsUntilNobodyListens) {
  Client client(server_.Port());
  client.Send(Get("/events"));
  const std::string text = client.Receive(5000, "data: 2");
  EXPECT_NE(text.find("Content-Type: text/event-stream"), std::string::npos);
  EXPECT_LT(text.find("data: 0"), text.find("data: 1"));
  client.Close();
  EXPECT_TRUE(Comes(gone_, 1));
}

TEST_F(Http, OutlivesAThousandOpenConnections) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  setrlimit(RLIMIT_NOFILE, &limit);
  const int wanted = std::min<int>(1000, static_cast<int>(limit.rlim_cur) / 2 - 50);
  std::vector<Client> clients;
  for (int i = 0; i < wanted; ++i) {
    clients.emplace_back(server_.Port());
    if (i % 3 == 0) clients.back().Send("GET /x HTTP/1.1\r\n");
  }
  // All but those that are served, and as many that wait, are turned away, once their turn has come.
  long long open = wanted;
  for (int i = 0; i < 200 && open > 8 + 8; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(i > 0 ? 20 : 0));
    open = std::count_if(clients.begin(), clients.end(), [](const Client& client) {
      if (!client.isClosed) client.Receive(0);
      return client.isConnected && !client.isClosed;
    });
  }
  EXPECT_LE(open, 8 + 8) << "of " << clients.size();
  clients.clear();
  EXPECT_NE(Ask(Get("/after")).find("GET /after"), std::string::npos);
}

TEST(HttpEnd, CutsOffWhatIsStillGoingOn) {
  std::atomic<int> gone = 0;
  std::vector<Client> clients;
  const auto start = std::chrono::steady_clock::now();
  {
    const HttpServer server({}, [&gone](const Request& request) {
      while (!request.isGone())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      ++gone;
      return Response{};
    });
    for (int i = 0; i < 3; ++i) {
      clients.emplace_back(server.Port());
      clients.back().Send("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
    }
    clients.emplace_back(server.Port());  // says nothing
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_EQ(gone, 3);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8)) << "sooner than any time-out";
  const HttpServer first({}, [](const Request&) { return Response{}; });
  EXPECT_THROW(HttpServer({.port = first.Port()}, [](const Request&) { return Response{}; }), session::Error);
}

}  // namespace
}  // namespace korimg::viewer
