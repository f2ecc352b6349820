// One kept-alive HTTP/1.1 connection to the engine, for GET requests only. It connects to the
// first of its addresses that answers, each given its share of the connect limit. Each response
// must arrive whole before its own deadline, however the bytes trickle in. A connection that the
// engine closed while idle is re-opened once, transparently. Not thread-safe: one user at a time.
#ifndef VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_
#define VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_

#include <string>
#include <vector>

#include "engine_connection.h"
#include "http_response_reader.h"

namespace com::orvex::client {

struct http_response {
  int status = 0;
  std::string reason;
  std::string body;
};

class http_connection {
 public:
  // `where` is what the Host field names ("host:port").
  http_connection(std::string where, std::vector<ovnet::address> addresses,
                  connection_limits limits, std::string userAgent);
  ~http_connection();
  http_connection(const http_connection&) = delete;
  http_connection& operator=(const http_connection&) = delete;

  const std::string& where() const { return location; }
  void setLimits(connection_limits newLimits) { limits = newLimits; }
  // Lets go of buffers grown past `bytes` by a large response; the next one grows them again.
  void shrink(std::size_t bytes);

  // Connects by `until`, if not connected. Throws std::runtime_error with the cause
  // ("Connection refused").
  void open(ovnet::deadline until);
  // Sends GET `path` and reads the whole response, of any status; it stays valid until the next
  // request. Throws std::runtime_error with the cause on a transport or framing failure.
  const http_response& get(const std::string& path);

 private:
  struct exchange_result;
  exchange_result exchange(const std::string& path, ovnet::deadline until);
  bool peerClosed() const;
  // Whether `until` has passed or the caller has abandoned what the connection does.
  bool givenUp(ovnet::deadline until) const {
    return ovnet::clock_type::now() >= until || ovnet::abandoned(limits.abandon);
  }
  // Why a wait ended early: the caller abandoned it, or its limit of `limitMs` passed.
  std::string ended(int limitMs) const;
  void closeSocket();

  const std::string location;
  const std::vector<ovnet::address> addresses;
  connection_limits limits;
  const std::string userAgent;
  int fd = -1;
  ovnet::clock_type::time_point lastAnswer;
  // Kept from one request to the next, so that a poll reuses the buffers of the poll before.
  std::string requestPath;
  std::string request;
  http_response_reader reader;
  http_response response;
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_HTTP_CONNECTION_H_
