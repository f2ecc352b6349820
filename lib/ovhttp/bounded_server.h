// The HTTP server of ovengine and vigilo-exporter: a route table, and a connection handling that
// bounds what a client can make the server hold or wait for. Its users see plain requests and
// responses; what the server is built on stays inside lib/ovhttp.
//
// - Connections are served asynchronously by the thread that calls serve(): an idle or slow client
//   holds no thread, so a new client is served at once however many others are idle or slow.
// - A complete request goes to its route's handler: a quick one runs at once on the serving
//   thread, any other on a worker thread, started as needed, so that a handler that waits (a
//   probe) holds up no other client.
// - Limits: connections open at once (503 with Retry-After beyond), request line (414), head
//   bytes, header lines and header fields (431), body bytes whatever the framing (413), encoded
//   bodies (415), the time from a request's first byte to its end (408), and idle time (the
//   connection closes). A request that is not HTTP gets 400, and the connection closes: where that
//   request ends is unknown.
// - shutdown() ends every connection, idle or busy, and serve() returns once the handlers running
//   have returned.
#ifndef VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_
#define VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovhttp {

struct server_limits {
  std::size_t maxConnections = 512;
  // A line of the head, its line end included.
  std::size_t maxRequestLine = 8 * 1024;
  std::size_t maxFieldLine = 8 * 1024;
  std::size_t maxHeadBytes = 16 * 1024;
  std::size_t maxHeaderFields = 64;
  std::size_t maxBodyBytes = 1024 * 1024;  // after any framing; a route may take less
  std::chrono::milliseconds requestTimeout{5000};
  std::chrono::milliseconds idleTimeout{60000};
};

using header_list = std::vector<std::pair<std::string, std::string>>;

// A complete request, as a handler sees it.
struct request {
  std::string method;
  std::string path;      // percent-decoded
  std::string wildcard;  // what the final "*" of the route's path stood for, percent-decoded
  std::string query;     // as sent, without the "?"
  header_list headers;
  std::string body;

  // The first field named `name` (in any case), or "".
  std::string header(std::string_view name) const;
  // The first query parameter named `name`, percent-decoded ('+' reads as a blank).
  std::optional<std::string> param(std::string_view name) const;
};

struct response {
  int status = 200;
  std::string contentType = "text/plain";
  std::string body;
  // Besides Content-Type, Content-Length and Connection, and Retry-After, which every 503 carries:
  // this server's 503 always means busy for now.
  header_list headers;
  bool close = false;  // the connection ends after this response
};

// A response whose whole body is `text` and a line end: every refusal says why in one line.
void reply(response& res, int status, const std::string& text);

using handler = std::function<void(const request&, response&)>;

struct route_options {
  // Bytes of body the route takes; 0 for the server's maxBodyBytes, which also bounds this.
  std::size_t maxBody = 0;
  // Answers without waiting on anything: runs on the serving thread, with no hand-over.
  bool quick = false;
};

// Owned by the thread that sets it up and calls serve(); shutdown() and openConnections() may be
// called from any thread.
class bounded_server {
 public:
  explicit bounded_server(server_limits limits = {});
  ~bounded_server();
  bounded_server(const bounded_server&) = delete;
  bounded_server& operator=(const bounded_server&) = delete;

  // Serves `method` on `path`, before serve(). A path that ends in "*" stands for every path that
  // begins with what precedes it and has no further "/". A GET route answers HEAD too. A known
  // path answers other methods with 405 and the methods it takes; an unknown one with 404.
  void route(const std::string& method, const std::string& path, handler h,
             route_options options = {});

  // Binds to host:port, every interface when `host` is empty, or a free port when `port` is 0,
  // with SO_REUSEADDR only: a port that another process serves is refused, not shared with it.
  // The port bound, or 0 with `error` saying why ("address in use").
  int bindTo(const std::string& host, unsigned short port, std::string& error);
  // Where it is bound, as host:port (an IPv6 address in brackets), once bindTo has succeeded.
  std::string boundTo() const;
  // Serves on the bound socket until shutdown(); false when accepting failed.
  bool serve();
  // Stops accepting and ends every connection. Any thread, any number of times, before or during
  // serve().
  void shutdown();
  // Client connections open now.
  std::size_t openConnections() const;

  struct state;  // the server's workings, opaque

 private:
  std::unique_ptr<state> self;
};

// Blocks SIGINT and SIGTERM in the calling thread and in every thread it starts afterwards, so
// that serveUntilStopSignal takes them: the first call of a server's main.
void blockStopSignals();

// Serves until SIGINT or SIGTERM, which a thread of its own turns into `onStop` and shutdown()
// outside signal context; false when serving failed. `onStop` ends what the handlers are waiting
// on, so that the stop is not held up by them.
bool serveUntilStopSignal(bounded_server& server, const std::function<void()>& onStop = {});

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_
