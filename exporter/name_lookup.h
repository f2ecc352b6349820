// Name lookups for the probes, over c-ares: it reads the system's resolver configuration and hosts
// file and asks the name servers itself, over sockets that the calling thread polls. A lookup
// given up at its deadline, or abandoned, leaves nothing behind: destroying its channel closes its
// sockets and drops its queries, and no thread was ever started for it. (glibc's getaddrinfo_a
// would leave each abandoned lookup blocking one of glibc's own threads until the name server's
// time-out, and its request memory until then.)
#ifndef VIGILO_EXPORTER_NAME_LOOKUP_H_
#define VIGILO_EXPORTER_NAME_LOOKUP_H_

#include <string>

#include "resolver.h"

namespace exporter {

// Thread-safe: every lookup has a channel of its own.
class name_lookup : public ovnet::resolver {
 public:
  // Asks the system's name servers, or `servers` ("127.0.0.1:5300") when it is not empty.
  explicit name_lookup(std::string servers = "");

  ovnet::lookup_result resolve(const std::string& host, unsigned short port, ovnet::deadline until,
                               const std::atomic<bool>* abandon) const override;

 private:
  const std::string servers;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_NAME_LOOKUP_H_
