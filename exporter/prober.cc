#include "prober.h"

#include <algorithm>
#include <cstdio>

#include "ovcommon/EngineException.h"
#include "ovcommon/log.h"

namespace exporter {

namespace {

using com::orvex::EngineException;
using ovnet::clock_type;

constexpr std::chrono::minutes warningInterval{1};
constexpr std::size_t maxWarnedTargets = 4096;
const std::string userAgent = "vigilo-exporter";
// The buffers of a thread's last snapshot serve its next, unless a large answer grew them.
thread_local com::orvex::client::status_snapshot spare;

double secondsBetween(clock_type::time_point from, clock_type::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The steps of one probe with their times, for a debug answer; written only when one is asked
// for, since every probe would pay for the text.
class probe_steps {
 public:
  probe_steps(clock_type::time_point start, bool written)
      : start(start), since(start), written(written) {}
  void done(const char* step, const std::string& outcome) {
    if (!written) return;
    const auto now = clock_type::now();
    char times[64];
    std::snprintf(times, sizeof times, "%-8s at %.3f s, took %.3f s: ", step,
                  secondsBetween(start, since), secondsBetween(since, now));
    text += times + outcome + "\n";
    since = now;
  }
  std::string text;

 private:
  const clock_type::time_point start;
  clock_type::time_point since;
  const bool written;
};

}  // namespace

prober::prober(connection_pool& pool, const ovnet::resolver& names, const target_rules& rules,
               std::size_t maxProbes)
    : pool(pool), names(names), rules(rules), maxProbes(maxProbes) {
  totals.durationBuckets.assign(probeBuckets().size(), 0);
}

prober::answer prober::probe(const target& t, std::chrono::milliseconds limit, bool debug) {
  const auto refuse = [this](bool busy) -> answer {
    running.fetch_sub(1);
    std::lock_guard<std::mutex> lock(mutex);
    ++(busy ? totals.refusedBusy : totals.refusedDescriptors);
    return {503, busy ? "too many probes at once" : "no file descriptor left for a probe"};
  };
  if (running.fetch_add(1) >= maxProbes) return refuse(true);
  if (!pool.startProbe()) return refuse(false);
  const auto start = clock_type::now();
  const ovnet::deadline deadline = start + limit;
  // Whatever the connection does is over by the probe's deadline, or at a stop.
  const int left = std::max(1, ovnet::msLeft(deadline));
  const com::orvex::client::connection_limits limits{left, left, &stopping};
  const std::string where = t.text();
  probe_steps steps(start, debug);
  connection engine = pool.take(where);
  std::string metrics, cause;
  std::size_t unparsed = 0;
  bool allowed = true;
  bool holding = false;  // counted in connectionsInUse
  const char* step = "connect";
  try {
    if (engine != nullptr) {
      engine->setLimits(limits);
      steps.done(step, "kept connection");
    } else {
      step = "lookup";
      ovnet::lookup_result found = names.resolve(t.host, t.port, deadline, &stopping);
      if (found.addresses.empty()) throw EngineException("no address: " + found.error);
      if (debug) {
        std::string addresses;
        for (const ovnet::address& a : found.addresses) {
          addresses += (addresses.empty() ? "" : " ") + a.text();
        }
        steps.done(step, addresses);
      }
      allowed = rules.named(t) || rules.allowsAll(found.addresses);
      if (allowed) {
        // The connection goes to the addresses that were checked, not to what the name gives
        // next.
        step = "connect";
        engine = std::make_unique<com::orvex::client::engine_connection>(
            where, std::move(found.addresses), limits, userAgent);
        engine->open(deadline);
        steps.done(step, "new connection");
      }
    }
    if (allowed) {
      holding = true;
      ++connectionsInUse;
      step = "request";
      com::orvex::client::status_snapshot status = engine->status(std::move(spare));
      steps.done(step, "answered");
      step = "read";
      unparsed = appendEngineMetrics(metrics, status, std::chrono::system_clock::now());
      if (debug)
        steps.done(step, std::to_string(unparsed) + " texts that should hold numbers do not");
      if (status.capacity() <= com::orvex::client::keptCapacity) spare = std::move(status);
    }
  } catch (const std::exception& e) {
    cause = e.what();
    steps.done(step, "failed: " + cause);
  }
  const bool up = allowed && cause.empty();
  if (!up) engine.reset();
  if (holding) --connectionsInUse;
  pool.endProbe(where, std::move(engine));
  running.fetch_sub(1);
  if (!allowed) return {403, "target " + where + " is not allowed"};

  const double seconds = secondsBetween(start, clock_type::now());
  appendProbeResult(metrics, up, seconds);
  record(up, seconds, unparsed);
  if (!up && !stopping) warn(where, cause);
  if (!debug) return {200, std::move(metrics)};
  char heading[64];
  std::snprintf(heading, sizeof heading, " within %.3f s\n", limit.count() / 1000.0);
  return {200, "probe of " + where + heading + steps.text + (up ? "up" : "down: " + cause) +
                   "\n\nmetrics of the probe:\n" + metrics};
}

void prober::record(bool up, double seconds, std::size_t unparsed) {
  std::lock_guard<std::mutex> lock(mutex);
  ++(up ? totals.successes : totals.failures);
  totals.unparsedValues += unparsed;
  totals.durationSum += seconds;
  for (std::size_t i = 0; i < probeBuckets().size(); ++i) {
    if (seconds <= probeBuckets()[i]) ++totals.durationBuckets[i];
  }
}

void prober::warn(const std::string& where, const std::string& cause) {
  const auto now = clock_type::now();
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = lastWarning.find(where);
    if (found != lastWarning.end() && now - found->second < warningInterval) return;
    if (found == lastWarning.end() && lastWarning.size() >= maxWarnedTargets) {
      std::erase_if(lastWarning,
                    [now](const auto& e) { return now - e.second >= warningInterval; });
      if (lastWarning.size() >= maxWarnedTargets) return;
    }
    lastWarning[where] = now;
  }
  com::orvex::logLine(com::orvex::LogLevel::warning,
                      "probe of " + where + " failed: " + com::orvex::printable(cause));
}

exporter_figures prober::figures() const {
  exporter_figures figures;
  {
    std::lock_guard<std::mutex> lock(mutex);
    figures = totals;
  }
  figures.engineConnections = pool.idleConnections() + connectionsInUse;
  return figures;
}

}  // namespace exporter
