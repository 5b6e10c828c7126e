#include "viewer/server/Http.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>

#include "session/job/Errors.h"

namespace korimg::viewer {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Chosen.
constexpr seconds kSilent{3};     // that a new connection may say nothing
constexpr seconds kIdle{15};      // that a connection is kept for its next request
constexpr seconds kPatience{30};  // for a reader that takes nothing
constexpr int kRequests = 1000;   // of a connection

/// Threads as they are wanted, up to a number; as many connections may wait, and others are turned away.
class Pool : public httplib::TaskQueue {
 public:
  explicit Pool(int most) : most_(most) {}

  void enqueue(std::function<void()> serve) override {
    {
      const std::lock_guard lock(mutex_);
      if (waiting_.size() < most_) {
        waiting_.push_back(std::move(serve));
        if (idle_ < waiting_.size() && threads_.size() < most_) threads_.emplace_back([this] { Work(); });
        changed_.notify_one();
        return;
      }
    }
    turnsAway = true;
    serve();
    turnsAway = false;
  }

  void shutdown() override {
    {
      const std::lock_guard lock(mutex_);
      ends_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

  /// The connection that this thread serves is only to be closed.
  static inline thread_local bool turnsAway = false;

 private:
  void Work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      changed_.wait(lock, [this] { return ends_ || !waiting_.empty(); });
      --idle_;
      if (waiting_.empty()) return;
      const auto serve = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      serve();
      lock.lock();
    }
  }

  const std::size_t most_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> waiting_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool ends_ = false;
};

/// A connection. The server's library reads lines and chunked bodies of any length, for as long as something
/// comes: here each request has so many bytes, and so much time.
class Connection : public httplib::Stream {
 public:
  Connection(socket_t socket, const HttpOptions& options, const std::atomic<bool>& ends)
      : socket_(socket), options_(options), ends_(ends) {}

  /// Waits for the next request.
  bool Begins() {
    left_ = options_.largestHead;
    closes = true;
    deadline_ = Clock::now() + seconds(options_.seconds);
    return next_ < filled_ ||
           Wait(POLLIN,
                Clock::now() + (requests_++ == 0 ? std::min(kSilent, seconds(options_.seconds)) : kIdle));
  }
  /// The head was read: there may be so much more.
  void ExpectBody() { left_ = options_.largestBody; }

  bool IsGone() const {
    char byte;
    if (ends_) return true;
    const ssize_t got = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
  }

  bool is_readable() const override { return !ends_; }
  bool is_writable() const override { return !IsGone(); }

  ssize_t read(char* to, size_t size) override {
    if (next_ == filled_) {
      if (!Wait(POLLIN, deadline_)) return -1;
      const ssize_t got = recv(socket_, buffer_, sizeof buffer_, 0);
      if (got <= 0) return got;
      next_ = 0;
      filled_ = static_cast<size_t>(got);
    }
    size = std::min({size, filled_ - next_, left_});
    if (size == 0) return -1;
    std::copy_n(buffer_ + next_, size, to);
    next_ += size;
    left_ -= size;
    return static_cast<ssize_t>(size);
  }

  ssize_t write(const char* from, size_t size) override {
    for (size_t sent = 0; sent < size;) {
      if (!Wait(POLLOUT, Clock::now() + kPatience)) return -1;
      const ssize_t some = send(socket_, from + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (some < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return -1;
      sent += static_cast<size_t>(std::max<ssize_t>(some, 0));
    }
    return static_cast<ssize_t>(size);
  }

  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return socket_; }

  /// After this request: unless all of it was read and answered.
  bool closes = true;

 private:
  bool Wait(short what, Clock::time_point until) const {
    pollfd poll{socket_, what, 0};
    while (!ends_) {
      const auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now());
      if (left.count() <= 0) return false;
      const int ready = ::poll(&poll, 1, static_cast<int>(std::min(left, milliseconds(100)).count()));
      if (ready > 0) return true;
      if (ready < 0 && errno != EINTR) return false;
    }
    return false;
  }

  const socket_t socket_;
  const HttpOptions& options_;
  const std::atomic<bool>& ends_;
  size_t left_ = 0;
  Clock::time_point deadline_;
  int requests_ = 0;
  char buffer_[4096];
  size_t next_ = 0, filled_ = 0;
};

thread_local Connection* served = nullptr;  ///< by this thread

Request Translate(const httplib::Request& from) {
  Request request{.method = from.method,
                  .path = from.path,
                  .host = from.get_header_value("Host"),
                  .origin = from.get_header_value("Origin"),
                  .body = from.body};
  for (const auto& [name, value] : from.params) {
    request.query.emplace(name, value);
  }
  request.isGone = [connection = served] { return connection->IsGone(); };
  return request;
}

void Translate(Response from, httplib::Response& to) {
  served->closes = from.stream != nullptr;
  to.status = from.status;
  for (const auto& [name, value] : from.headers) {
    to.set_header(name, value);
  }
  if (!from.stream) {
    to.set_content(from.body, from.type);
    return;
  }
  to.set_chunked_content_provider(from.type,
                                  [stream = std::move(from.stream)](size_t, httplib::DataSink& sink) {
                                    stream([&sink](const std::string& piece) {
                                      return sink.is_writable() && sink.write(piece.data(), piece.size());
                                    });
                                    sink.done();
                                    return true;
                                  });
}

}  // namespace

struct HttpServer::Server : httplib::Server {
  HttpOptions options;
  int port = 0;
  std::atomic<bool> ends = false;
  std::thread thread;

  /// A browser opens more connections at once than the library lets wait.
  void Widen() { ::listen(svr_sock_, SOMAXCONN); }

  bool process_and_close_socket(socket_t socket) override {
    if (!Pool::turnsAway) {
      Connection connection(socket, options, ends);
      served = &connection;
      bool closes = false;
      for (int i = 1; !closes && connection.Begins(); ++i) {
        const bool isLast = i == kRequests;
        const auto begin = [&](httplib::Request& request) {
          connection.ExpectBody();
          request.ranges.clear();  // whole answers only: many ranges would be many copies
        };
        if (!process_request(connection, isLast, closes, begin)) break;
        closes |= isLast || connection.closes;
      }
      served = nullptr;
    }
    shutdown(socket, SHUT_RDWR);
    close(socket);
    return true;
  }
};

HttpServer::HttpServer(const HttpOptions& options, const std::function<Response(const Request&)>& answer)
    : server_(std::make_unique<Server>()) {
  Server& server = *server_;
  server.options = options;
  server.new_task_queue = [most = options.connections] { return new Pool(most); };
  server.set_payload_max_length(options.largestBody);
  // Two servers must not share a port, as SO_REUSEPORT would let them.
  server.set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server.set_tcp_nodelay(true);
  // Before the library looks for a handler by regular expressions, and before it reads a body.
  server.set_pre_routing_handler([answer](const httplib::Request& request, httplib::Response& response) {
    constexpr std::size_t kLongestPath = 1024;  // chosen: all of ours are far shorter
    const bool hasBody = request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
    const bool isPost = request.method == "POST";
    const auto refuse = [&](int status, const char* why) {
      Translate({.status = status, .body = why}, response);
      served->closes = true;
      return httplib::Server::HandlerResponse::Handled;
    };
    // Whoever reads a request otherwise than we do would see another one.
    const auto isDouble = [&](const char* name) { return request.get_header_value_count(name) > 1; };
    if (isDouble("Host") || isDouble("Origin") || isDouble("Content-Length") ||
        isDouble("Transfer-Encoding") ||
        (request.has_header("Content-Length") && request.has_header("Transfer-Encoding"))) {
      return refuse(400, "a header is there twice\n");
    }
    if (request.path.size() > kLongestPath) return refuse(414, "too long\n");
    if (!isPost && request.method != "GET") return refuse(405, "GET or POST\n");
    if (isPost) {
      const std::string type = request.get_header_value("Content-Type");
      if (request.has_header("Content-Encoding") || type != "application/json")
        return refuse(415, "JSON only\n");
      return httplib::Server::HandlerResponse::Unhandled;
    }
    if (hasBody) return refuse(400, "GET has no body\n");
    Translate(answer(Translate(request)), response);
    return httplib::Server::HandlerResponse::Handled;
  });
  server.Post(".*", [answer](const httplib::Request& request, httplib::Response& response) {
    Translate(answer(Translate(request)), response);
  });
  server.port = options.port > 0 ? server.bind_to_port(options.address, options.port) ? options.port : -1
                                 : server.bind_to_any_port(options.address);
  if (server.port <= 0) {
    throw session::Error(
        session::ErrorKind::Resource,
        fmt::format("cannot listen on {} port {}: it is taken, or no address of this machine; "
                    "choose another by --port",
                    options.address, options.port));
  }
  server.Widen();
  server.thread = std::thread([&server] { server.listen_after_bind(); });
  while (!server.is_running()) {
    std::this_thread::sleep_for(milliseconds(1));
  }
}

HttpServer::~HttpServer() {
  server_->ends = true;
  server_->stop();
  server_->thread.join();
}

int HttpServer::Port() const {
  return server_->port;
}

}  // namespace korimg::viewer
