// Which engines the exporter may probe. An exporter that connects wherever a request says is an
// open relay into its network, so every target is checked against the allowed ones: names (any
// port, or one), and address ranges (CIDR), which a target's every address must lie in. Without
// rules only loopback targets are allowed. The probe then connects to the addresses that were
// checked, never to what a name resolves to by then.
#ifndef VIGILO_EXPORTER_TARGETS_H_
#define VIGILO_EXPORTER_TARGETS_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "endpoint.h"

namespace exporter {

// A target's host is an address, or a name in lower case without its final root dot: the same
// host whichever way a user writes it.
using target = ovnet::host_port;

struct target_parse {
  std::optional<target> parsed;
  std::string why;  // when not parsed
};

// "HOST:PORT" or "[IPv6]:PORT", a port of 1 to 65535. HOST is an address as inet_pton reads it
// or a DNS name: labels of letters, digits, '-' and '_', each 1 to 63 bytes, 253 in all, and an
// optional final root dot. Anything else, numbers that the C library would read as an address
// (127.1, 2130706433, 0x7f000001) among it, is refused with the reason, before any lookup.
target_parse parseTarget(std::string_view text);

class target_rules {
 public:
  // Adds one --allow-target value: "host", "host:port", or an address range "192.0.2.0/24",
  // "2001:db8::/32" (a bare address is a range of one). False when it is none of these.
  bool add(std::string_view rule);

  // Whether a name rule allows `t` as it is written, whatever its addresses.
  bool named(const target& t) const;
  // Whether there are `addresses` and every one lies in an allowed range.
  bool allowsAll(const std::vector<ovnet::address>& addresses) const;

 private:
  struct range {
    ovnet::address address;
    int prefix = 0;
  };
  bool inRanges(const ovnet::address& address) const;

  std::vector<target> names;  // port 0: any
  std::vector<range> ranges;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_TARGETS_H_
