// Where a peer is: an address (IPv4 or IPv6, with a port) as the socket calls take it, and a host
// and port as people write them ("engine-1:15903", "10.0.0.5:15903", "[::1]:15903"). Addresses
// are turned into text and back here only; an address found by a lookup stays an address on its
// way to connect.
#ifndef VIGILO_LIB_OVNET_ENDPOINT_H_
#define VIGILO_LIB_OVNET_ENDPOINT_H_

#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>

namespace ovnet {

class address {
 public:
  // `text` as inet_pton reads it: a dotted quad or an IPv6 address, without brackets.
  static std::optional<address> parse(std::string_view text, unsigned short port = 0);
  // The address of a socket call's answer (getaddrinfo, getpeername); `length` bytes of it.
  static address of(const sockaddr* socketAddress, socklen_t length);

  int family() const { return storage.ss_family; }
  const sockaddr* data() const { return reinterpret_cast<const sockaddr*>(&storage); }
  socklen_t size() const { return length; }
  unsigned short port() const;
  // The address's own bytes: 4 for IPv4, 16 for IPv6.
  std::string_view bytes() const;
  // "127.0.0.1", "::1".
  std::string text() const;

 private:
  sockaddr_storage storage{};
  socklen_t length = 0;
};

struct host_port {
  std::string host;  // a name or an address, without brackets
  unsigned short port = 0;

  // "HOST:PORT" or "[IPv6]:PORT", a port of 1 to 65535 (or 0 with `anyPort`); the host is not
  // checked beyond that.
  static std::optional<host_port> parse(std::string_view text, bool anyPort = false);
  // As parse reads it: an IPv6 address in brackets.
  std::string text() const;
};

}  // namespace ovnet

#endif  // VIGILO_LIB_OVNET_ENDPOINT_H_
