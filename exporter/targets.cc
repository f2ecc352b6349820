#include "targets.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>

namespace exporter {

namespace {

std::optional<unsigned short> portOf(std::string_view text) {
  unsigned port = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || port == 0 ||
      port > 65535) {
    return std::nullopt;
  }
  return static_cast<unsigned short>(port);
}

bool parseAddress(const std::string& text, sockaddr_storage& address) {
  address = {};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    address.ss_family = AF_INET;
    return true;
  }
  if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    address.ss_family = AF_INET6;
    return true;
  }
  return false;
}

// The bytes of an address, as far as its family has them.
std::string_view bytesOf(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    const auto& a = reinterpret_cast<const sockaddr_in&>(address).sin_addr;
    return {reinterpret_cast<const char*>(&a), sizeof a};
  }
  const auto& a = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  return {reinterpret_cast<const char*>(&a), sizeof a};
}

}  // namespace

std::optional<target> parseTarget(const std::string& text) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::string host = text.substr(0, colon);
  const auto port = portOf(std::string_view(text).substr(colon + 1));
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']') return std::nullopt;
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return std::nullopt;  // an IPv6 address needs its brackets
  }
  // No name or address is longer than 253 bytes, or holds a blank or a control byte: a NUL
  // would end the name early for the resolver.
  const bool plain = host.size() <= 253 && host.find_first_of("[]/") == std::string::npos &&
                     std::none_of(host.begin(), host.end(),
                                  [](unsigned char c) { return c <= 0x20 || c == 0x7f; });
  if (!port || !plain) return std::nullopt;
  return target{host, *port};
}

std::string targetText(const target& t) {
  const bool ipv6 = t.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + t.host + "]" : t.host) + ":" + std::to_string(t.port);
}

bool target_rules::add(const std::string& rule) {
  const auto slash = rule.find('/');
  range r;
  if (parseAddress(rule.substr(0, slash), r.address)) {
    const int bits = r.address.ss_family == AF_INET ? 32 : 128;
    r.prefix = bits;
    if (slash != std::string::npos) {
      const std::string_view prefix = std::string_view(rule).substr(slash + 1);
      const auto [end, ec] =
          std::from_chars(prefix.data(), prefix.data() + prefix.size(), r.prefix);
      if (prefix.empty() || ec != std::errc() || end != prefix.data() + prefix.size() ||
          r.prefix < 0 || r.prefix > bits) {
        return false;
      }
    }
    ranges.push_back(r);
    return true;
  }
  if (slash != std::string::npos || rule.empty()) return false;
  if (const auto t = parseTarget(rule)) {
    names.push_back({t->host, t->port});
    return true;
  }
  // A host name: letters, digits, dots, hyphens and underscores, and no leading hyphen.
  const bool hostName =
      rule.front() != '-' && std::all_of(rule.begin(), rule.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == '_';
      });
  if (!hostName) return false;
  names.push_back({rule, 0});
  return true;
}

bool target_rules::inRanges(const sockaddr_storage& address) const {
  static const target_rules loopback = [] {
    target_rules rules;
    rules.add("127.0.0.0/8");
    rules.add("::1");
    return rules;
  }();
  const auto& all = names.empty() && ranges.empty() ? loopback.ranges : ranges;
  const std::string_view bytes = bytesOf(address);
  for (const range& r : all) {
    if (r.address.ss_family != address.ss_family) continue;
    const std::string_view allowed = bytesOf(r.address);
    const int whole = r.prefix / 8;
    const int rest = r.prefix % 8;
    if (bytes.substr(0, whole) != allowed.substr(0, whole)) continue;
    const unsigned mask = (0xff00u >> rest) & 0xffu;
    if (rest == 0 ||
        ((static_cast<unsigned char>(bytes[whole]) ^ static_cast<unsigned char>(allowed[whole])) &
         mask) == 0) {
      return true;
    }
  }
  return false;
}

bool target_rules::named(const target& t) const {
  return std::any_of(names.begin(), names.end(), [&t](const name& n) {
    return strcasecmp(n.host.c_str(), t.host.c_str()) == 0 && (n.port == 0 || n.port == t.port);
  });
}

bool target_rules::allowsAll(const std::vector<std::string>& addresses) const {
  return !addresses.empty() &&
         std::all_of(addresses.begin(), addresses.end(), [this](const std::string& text) {
           sockaddr_storage address{};
           return parseAddress(text, address) && inRanges(address);
         });
}

}  // namespace exporter
