// Probes engines: each probe fetches one engine's status, over the connection kept from the last
// probe of that engine when there is one, and answers its metrics. A failed fetch is a probe's
// answer too (orvex_up 0). Probes run on their callers' threads, at most `maxProbes` at once.
#ifndef VIGILO_EXPORTER_PROBER_H_
#define VIGILO_EXPORTER_PROBER_H_

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connection_pool.h"
#include "exposition.h"
#include "targets.h"

namespace exporter {

class prober {
 public:
  prober(connection_pool& pool, std::size_t maxProbes);

  // The metrics of `t`, reached at `addresses` (in order), within `timeout`; nothing when
  // `maxProbes` probes are already running.
  std::optional<std::string> probe(const target& t, const std::vector<std::string>& addresses,
                                   std::chrono::milliseconds timeout);

  // The figures of every probe so far; http connections are the caller's to fill in.
  exporter_figures figures() const;

 private:
  using clock_type = std::chrono::steady_clock;
  bool fetch(const target& t, const std::vector<std::string>& addresses,
             clock_type::time_point deadline, std::string& text);
  void record(bool up, double seconds);

  connection_pool& pool;
  const std::size_t maxProbes;
  std::atomic<std::size_t> running{0};
  std::atomic<std::size_t> connectionsInUse{0};
  mutable std::mutex mutex;
  exporter_figures totals;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_PROBER_H_
