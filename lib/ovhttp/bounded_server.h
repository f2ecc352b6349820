// The HTTP server of ovengine and vigilo-exporter: cpp-httplib's routing and responses over a
// connection handling that bounds what a client can make the server hold or wait for.
//
// - An idle kept-alive connection holds no thread: one watcher thread waits on all of them, and
//   reads each request head itself, so that a slow or oversized head never reaches a worker.
// - A complete head is served on a worker thread; workers are started as they are needed, so a
//   new client is served at once however many others are idle or slow.
// - Limits: connections open at once (503 with Retry-After beyond), request line (414), head
//   bytes, header lines and header fields (431), body bytes whatever the framing (413), encoded
//   bodies (415), the time from a request's first byte to its end (408), and idle time (the
//   connection closes). A request the HTTP library cannot read gets its 400, and the connection
//   closes: where that request ends is unknown.
// - shutdown() ends every connection, idle or busy, and serve() returns within a second.
#ifndef VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_
#define VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ovhttp {

struct server_limits {
  std::size_t maxConnections = 512;
  // A line of the head, its line end included. The HTTP library refuses longer request and
  // header lines itself, in words of its own, so these stay at its limits.
  std::size_t maxRequestLine = 8 * 1024;
  std::size_t maxFieldLine = 8 * 1024;
  std::size_t maxHeadBytes = 16 * 1024;
  std::size_t maxHeaderFields = 64;
  std::size_t maxBodyBytes = 1024 * 1024;
  std::chrono::milliseconds requestTimeout{5000};
  std::chrono::milliseconds idleTimeout{60000};
};

// A response whose whole body is `text` and a line end: every refusal says why in one line.
void reply(httplib::Response& res, int status, const std::string& text);

// Makes `pattern` answer every method but those in `allow` ("GET, PUT") with 405 and an Allow
// header: a known path refuses a method it does not serve, rather than being "not found".
void allowOnly(httplib::Server& server, const std::string& pattern, const std::string& allow);

// The connection closes once the response that this thread is making has been written: for a
// refusal that leaves a request body unread.
void closeAfterResponse();

// Reads the request body through `reader` into `body`, at most `limit` bytes of it (after any
// framing); false when it is longer or does not arrive, with the refusal already in `res`.
bool readBody(const httplib::ContentReader& reader, std::size_t limit, std::string& body,
              httplib::Response& res);

// Blocks SIGINT and SIGTERM in the calling thread and in every thread it starts afterwards, so
// that serveUntilStopSignal takes them: the first call of a server's main.
void blockStopSignals();

class bounded_server;

// Serves until SIGINT or SIGTERM, which a thread of its own turns into `onStop` and shutdown()
// outside signal context; false when serving failed. `onStop` ends what the handlers are waiting
// on, so that the stop is not held up by them.
bool serveUntilStopSignal(bounded_server& server, const std::function<void()>& onStop = {});

class bounded_server : public httplib::Server {
 public:
  explicit bounded_server(server_limits limits = {});
  ~bounded_server() override;

  // Binds to host:port, or to a free port when `port` is 0, with SO_REUSEADDR only: a port that
  // another process serves is refused, not shared with it. The port bound, or 0 with `error`
  // saying why ("address in use").
  int bindTo(const std::string& host, unsigned short port, std::string& error);
  // Serves on the bound socket until shutdown(); false when accepting failed.
  bool serve();
  // Stops accepting and ends every connection. Any thread, any number of times.
  void shutdown();
  // Client connections open now.
  std::size_t openConnections() const { return open; }

 private:
  struct connection;
  using connection_ptr = std::unique_ptr<connection>;

  bool process_and_close_socket(socket_t sock) override;
  void watch();
  void work();
  void serveRequests(connection_ptr conn);
  void handBack(connection_ptr conn);  // to the watcher, idle or closing
  void dispatch(connection_ptr conn);  // to a worker: its head is complete
  void closeConnection(connection_ptr conn);
  // Whether the connection's buffer holds a complete head, or a refusal was sent for it.
  enum class head_state { incomplete, complete, refused };
  head_state examineHead(connection& conn);

  const server_limits limits;
  int stopPipe[2] = {-1, -1};  // readable once shutdown() has begun; never drained
  int wakePipe[2] = {-1, -1};  // wakes the watcher for connections handed to it
  std::atomic<bool> stopping{false};
  std::atomic<bool> serving{false};
  std::atomic<std::size_t> open{0};
  // Orders serve()'s own use of the listening socket before a shutdown() that closes it: the
  // library's own flag for that is invisible to the thread sanitizer.
  std::mutex startMutex;

  std::mutex mutex;
  std::vector<connection_ptr> handedToWatcher;
  std::deque<connection_ptr> readyForWorkers;
  std::size_t idleWorkers = 0;
  std::condition_variable workAvailable;
  std::vector<std::thread> workers;
  std::thread watcher;
};

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_BOUNDED_SERVER_H_
