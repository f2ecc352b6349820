// Every address of a host, within a deadline. Two resolvers stand behind one interface, because
// no one resolver gives both programs what they need:
// - system_resolver asks the system's name service as the machine is set up (/etc/nsswitch.conf:
//   files, DNS and whatever modules it names), as users of vigilo expect of a host name;
// - a program that looks up many names at once, and must leave nothing behind when it gives one
//   up at a probe's deadline, asks the name servers itself (vigilo-exporter, over c-ares), which
//   nsswitch modules cannot do.
#ifndef VIGILO_LIB_OVNET_RESOLVER_H_
#define VIGILO_LIB_OVNET_RESOLVER_H_

#include <atomic>
#include <string>
#include <vector>

#include "deadline.h"
#include "endpoint.h"

namespace ovnet {

struct lookup_result {
  std::vector<address> addresses;  // with the port asked for, in the order to try them
  std::string error;               // why there are none
  wait_end end = wait_end::ready;  // timedOut or abandoned when the lookup was given up
};

// The result of a lookup given up as `end` says, by its deadline or abandoned: every resolver's.
lookup_result givenUp(wait_end end);

class resolver {
 public:
  virtual ~resolver() = default;
  // The addresses of `host` (an address is its own answer), given up at `until` or once
  // `abandon` turns true. Thread-safe.
  virtual lookup_result resolve(const std::string& host, unsigned short port, deadline until,
                                const std::atomic<bool>* abandon) const = 0;
};

// The system's name service, asked by one thread of the process for every name in turn: the
// caller waits with its own deadline, and a lookup it gives up is left to finish there. (glibc's
// getaddrinfo_a would do the same on threads of glibc's own, which no thread sanitizer sees.)
class system_resolver : public resolver {
 public:
  lookup_result resolve(const std::string& host, unsigned short port, deadline until,
                        const std::atomic<bool>* abandon) const override;
};

}  // namespace ovnet

#endif  // VIGILO_LIB_OVNET_RESOLVER_H_
