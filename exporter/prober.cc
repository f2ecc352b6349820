#include "prober.h"

#include <algorithm>
#include <cstdlib>

#include "ovcommon/EngineException.h"
#include "status/EngineStatus.h"

namespace exporter {

namespace {

using com::orvex::EngineException;

// What is left before `deadline`, at least a millisecond: a limit of 0 would mean none.
int remainingMs(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<long long>(1, left.count()));
}

}  // namespace

prober::prober(connection_pool& pool, std::size_t maxProbes) : pool(pool), maxProbes(maxProbes) {
  totals.durationBuckets.assign(probeBuckets().size(), 0);
}

std::optional<std::string> prober::probe(const target& t, const std::vector<std::string>& addresses,
                                         std::chrono::milliseconds timeout) {
  if (running.fetch_add(1) >= maxProbes) {
    running.fetch_sub(1);
    return std::nullopt;
  }
  const auto start = clock_type::now();
  std::string text;
  const bool up = fetch(t, addresses, start + timeout, text);
  const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
  appendProbeResult(text, up, seconds);
  record(up, seconds);
  running.fetch_sub(1);
  return text;
}

bool prober::fetch(const target& t, const std::vector<std::string>& addresses,
                   clock_type::time_point deadline, std::string& text) {
  const std::string key = t.host + ":" + std::to_string(t.port);
  EngineManagement* connection = pool.take(key);
  ++connectionsInUse;
  bool up = false;
  try {
    if (connection != nullptr) {
      com::orvex::engine::setEngineLimits(connection,
                                          {remainingMs(deadline), remainingMs(deadline)});
    }
    for (std::size_t i = 0; connection == nullptr && i < addresses.size(); ++i) {
      try {
        connection = com::orvex::engine::connectToEngineWithin(
            addresses[i].c_str(), t.port, {remainingMs(deadline), remainingMs(deadline)});
      } catch (const EngineException&) {
        if (i + 1 == addresses.size() || clock_type::now() >= deadline) throw;
      }
    }
    if (connection == nullptr) throw EngineException("no address to connect to");
    char* error = nullptr;
    StatusOpaque* status = engineManagement_getStatusOpaque(connection, &error);
    std::free(error);
    if (status != nullptr) {
      appendEngineMetrics(text, com::orvex::engine::EngineStatus(status));
      up = true;
    }
  } catch (const EngineException&) {
    // The probe answers orvex_up 0; why is the engine's business, not the scrape's.
  }
  if (up) {
    pool.giveBack(key, connection);
  } else {
    connection_pool::close(connection);
  }
  --connectionsInUse;
  return up;
}

void prober::record(bool up, double seconds) {
  std::lock_guard<std::mutex> lock(mutex);
  ++(up ? totals.successes : totals.failures);
  totals.durationSum += seconds;
  for (std::size_t i = 0; i < probeBuckets().size(); ++i) {
    if (seconds <= probeBuckets()[i]) ++totals.durationBuckets[i];
  }
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
