// Which engines the exporter may probe. An exporter that connects wherever a request says is an
// open relay into its network, so every target is checked against the allowed ones: names (any
// port, or one), and address ranges (CIDR), which a target's every address must lie in. Without
// rules only loopback targets are allowed. The probe then connects to the addresses that were
// checked, never to what a name resolves to by then.
#ifndef VIGILO_EXPORTER_TARGETS_H_
#define VIGILO_EXPORTER_TARGETS_H_

#include <netinet/in.h>

#include <optional>
#include <string>
#include <vector>

namespace exporter {

struct target {
  std::string host;  // a name or an address, without brackets
  unsigned short port = 0;
};

// "HOST:PORT" or "[IPv6]:PORT", a host of at most 253 bytes without blanks or control bytes, port
// 1 to 65535; nothing else.
std::optional<target> parseTarget(const std::string& text);

// The target as parseTarget reads it: "HOST:PORT", an IPv6 address in brackets.
std::string targetText(const target& t);

class target_rules {
 public:
  // Adds one --allow-target value: "host", "host:port", or an address range "192.0.2.0/24",
  // "2001:db8::/32" (a bare address is a range of one). False when it is none of these.
  bool add(const std::string& rule);

  // Whether a name rule allows `t` as it is written, whatever its addresses.
  bool named(const target& t) const;
  // Whether there are `addresses` (numeric) and every one lies in an allowed range.
  bool allowsAll(const std::vector<std::string>& addresses) const;

 private:
  struct range {
    sockaddr_storage address{};
    int prefix = 0;
  };
  struct name {
    std::string host;
    unsigned short port = 0;  // 0: any
  };
  bool inRanges(const sockaddr_storage& address) const;

  std::vector<name> names;
  std::vector<range> ranges;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_TARGETS_H_
