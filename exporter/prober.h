// Probes engines. A probe takes the connection kept from the last probe of its target, or looks
// the target up (within its time limit), checks the addresses found against the rules and
// connects to them, in order; then it fetches the status and answers its metrics. A failed probe
// is an answer too (orvex_up 0), and its cause is logged at warning, at most once a minute per
// target, so that a dead engine does not flood the log. Probes run on their callers' threads, at
// most `maxProbes` at once, each with the descriptors that the pool grants it.
#ifndef VIGILO_EXPORTER_PROBER_H_
#define VIGILO_EXPORTER_PROBER_H_

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "connection_pool.h"
#include "exposition.h"
#include "resolver.h"
#include "targets.h"

namespace exporter {

class prober {
 public:
  // The objects must outlive the prober.
  prober(connection_pool& pool, const ovnet::resolver& names, const target_rules& rules,
         std::size_t maxProbes);

  struct answer {
    int status = 200;  // 403: the rules refuse the target; 503: the probe could not start
    std::string body;  // the metrics, after the probe's steps with `debug`; or why not
  };
  // Probes `t` within `limit`. Thread-safe.
  answer probe(const target& t, std::chrono::milliseconds limit, bool debug);

  // Abandons the probes in flight, and every later one, within 50 ms: for a stop.
  void stop() { stopping = true; }

  // The figures of every probe so far; http connections are the caller's to fill in.
  exporter_figures figures() const;

 private:
  void record(bool up, double seconds, std::size_t unparsed);
  void warn(const std::string& where, const std::string& cause);

  connection_pool& pool;
  const ovnet::resolver& names;
  const target_rules& rules;
  const std::size_t maxProbes;
  std::atomic<bool> stopping{false};
  std::atomic<std::size_t> running{0};
  std::atomic<std::size_t> connectionsInUse{0};
  mutable std::mutex mutex;
  exporter_figures totals;
  std::map<std::string, ovnet::clock_type::time_point> lastWarning;  // by target, bounded
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_PROBER_H_
