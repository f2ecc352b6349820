// One kept-alive HTTP/1.1 connection to the engine, for GET requests only. It resolves the host
// to every address getaddrinfo gives (IPv6 and IPv4, in order) and connects to the first that
// answers; resolving and connecting share one deadline. Each response must arrive whole before
// its own deadline, however the bytes trickle in. A connection that the engine closed while idle
// is re-opened once, transparently. Not thread-safe: one user at a time.
#ifndef VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_
#define VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_

#include <chrono>
#include <string>

#include "http_response_reader.h"
#include "ovclient/engine_client.h"

namespace com::orvex::client {

using clock_type = std::chrono::steady_clock;

// The defaults, or OVCLIENT_CONNECT_TIMEOUT_MS and OVCLIENT_RESPONSE_TIMEOUT_MS when they hold a
// positive number of milliseconds.
engine::EngineLimits timeoutsFromEnvironment();

struct http_response {
  int status = 0;
  std::string reason;
  std::string body;
};

class http_connection {
 public:
  http_connection(std::string host, unsigned short port, engine::EngineLimits timeouts,
                  std::string userAgent);
  ~http_connection();
  http_connection(const http_connection&) = delete;
  http_connection& operator=(const http_connection&) = delete;

  // "host:port", with brackets around an IPv6 literal.
  const std::string& where() const { return location; }

  void setTimeouts(engine::EngineLimits limits) { timeouts = limits; }
  // Lets go of buffers grown past `bytes` by a large response; the next one grows them again.
  void shrink(std::size_t bytes);

  // Connects if not connected. Throws std::runtime_error with the cause ("Connection refused").
  void open();
  // Sends GET `path` and reads the whole response, of any status; it stays valid until the next
  // request. Throws std::runtime_error with the cause on a transport or framing failure.
  const http_response& get(const std::string& path);

 private:
  struct exchange_result;
  exchange_result exchange(const std::string& path, clock_type::time_point deadline);
  bool peerClosed() const;
  // Why a wait ended early: the caller abandoned it, or its limit of `limitMs` passed.
  std::string ended(int limitMs) const;
  void closeSocket();

  const std::string host;
  const unsigned short port;
  engine::EngineLimits timeouts;
  const std::string userAgent;
  const std::string location;
  int fd = -1;
  clock_type::time_point lastAnswer;
  // Kept from one request to the next, so that a poll reuses the buffers of the poll before.
  std::string requestPath;
  std::string request;
  http_response_reader reader;
  http_response response;
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_
