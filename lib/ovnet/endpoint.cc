#include "endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace ovnet {

std::optional<address> address::parse(std::string_view text, unsigned short port) {
  // inet_pton reads up to a NUL: one inside the text would hide what follows it.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  const std::string copy(text);
  address a;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&a.storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&a.storage);
  if (inet_pton(AF_INET, copy.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    a.length = sizeof *v4;
    return a;
  }
  if (inet_pton(AF_INET6, copy.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    a.length = sizeof *v6;
    return a;
  }
  return std::nullopt;
}

address address::of(const sockaddr* socketAddress, socklen_t length) {
  address a;
  a.length = std::min<socklen_t>(length, sizeof a.storage);
  std::memcpy(&a.storage, socketAddress, a.length);
  return a;
}

unsigned short address::port() const {
  return ntohs(family() == AF_INET ? reinterpret_cast<const sockaddr_in&>(storage).sin_port
                                   : reinterpret_cast<const sockaddr_in6&>(storage).sin6_port);
}

std::string_view address::bytes() const {
  if (family() == AF_INET) {
    const auto& a = reinterpret_cast<const sockaddr_in&>(storage).sin_addr;
    return {reinterpret_cast<const char*>(&a), sizeof a};
  }
  const auto& a = reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr;
  return {reinterpret_cast<const char*>(&a), sizeof a};
}

std::string address::text() const {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family(), bytes().data(), text, sizeof text);
  return text;
}

std::optional<host_port> host_port::parse(std::string_view text, bool anyPort) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view host = text.substr(0, colon);
  const std::string_view portText = text.substr(colon + 1);
  unsigned port = 0;
  const auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
  if (portText.empty() || ec != std::errc() || end != portText.data() + portText.size() ||
      port > 65535 || (port == 0 && !anyPort)) {
    return std::nullopt;
  }
  if (host.starts_with('[')) {
    if (host.size() < 3 || !host.ends_with(']')) return std::nullopt;
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string_view::npos) {
    return std::nullopt;  // an IPv6 address needs its brackets
  }
  return host_port{std::string(host), static_cast<unsigned short>(port)};
}

std::string host_port::text() const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace ovnet
