// Requests and their answers, and the server that takes them off sockets. All that knows of its library is in
// Http.cpp.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace korimg::viewer {

struct Request {
  std::string method;                        ///< "GET" or "POST"
  std::string path;                          ///< from the first '/', without the query
  std::map<std::string, std::string> query;  ///< what is given twice is not told
  std::string host, origin;                  ///< headers; empty where there are none
  std::string body;
  /// True once nobody waits for the answer any more.
  std::function<bool()> isGone = [] { return false; };
};

/// Sends a piece of a stream of events; false once nobody listens.
using Send = std::function<bool(const std::string& piece)>;

struct Response {
  int status = 200;
  std::string type = "text/plain; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  /// In place of the body: sends pieces (of text/event-stream) until it returns, on the connection's thread.
  std::function<void(const Send& send)> stream;
};

struct HttpOptions {
  std::string address = "127.0.0.1";
  int port = 0;                        ///< 0: any that is free
  int connections = 64;                ///< that are served at once, each by a thread; as many may wait
  int seconds = 10;                    ///< that a request may take to arrive
  std::size_t largestHead = 32 << 10;  ///< bytes of the request line and the headers
  std::size_t largestBody = 1 << 20;   ///< bytes
};

/// Serves HTTP/1.1 on its own threads.
class HttpServer {
 public:
  /// Begins to listen. `answer` is called by many threads at once, and throws nothing.
  /// @throws session::Error where the port is taken
  HttpServer(const HttpOptions& options, const std::function<Response(const Request&)>& answer);
  /// Ends all connections: those waited for find their requests gone.
  ~HttpServer();

  int Port() const;

 private:
  struct Server;
  std::unique_ptr<Server> server_;
};

}  // namespace korimg::viewer
