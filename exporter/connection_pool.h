// The exporter's connections to engines, and the file descriptors they may use.
//
// Connections: one kept-alive connection per target, reused from one scrape to the next and
// closed after an idle time. A connection is used by one probe at a time: take() hands it over
// and endProbe() takes it back.
//
// Descriptors: a probe in flight holds `perProbe` of them (its connection and its name lookup's
// socket), an idle connection one. A probe that finds them all spent closes the longest idle
// connections for its own; it is refused only when probes in flight hold them all, so that a
// probe never fails for want of a descriptor, which would read as an engine that is down.
//
// Thread-safe; no call waits on an engine.
#ifndef VIGILO_EXPORTER_CONNECTION_POOL_H_
#define VIGILO_EXPORTER_CONNECTION_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "engine_connection.h"

namespace exporter {

using connection = std::unique_ptr<com::orvex::client::engine_connection>;

class connection_pool {
 public:
  static constexpr std::size_t perProbe = 2;

  // Engines may have `descriptors` in all; at most `maxIdle` idle connections are kept, each
  // closed once idle for `idleTime`.
  connection_pool(std::size_t descriptors, std::size_t maxIdle, std::chrono::milliseconds idleTime);
  ~connection_pool();  // closes every idle connection
  connection_pool(const connection_pool&) = delete;
  connection_pool& operator=(const connection_pool&) = delete;

  // Takes a probe's descriptors; false when probes in flight hold them all.
  bool startProbe();
  // The idle connection to `target`, now the probe's, or null.
  connection take(const std::string& target);
  // Gives the probe's descriptors back, keeping `kept` (when not null) for the next probe of
  // `target`; a second one to the same target is closed, and beyond `maxIdle` the longest idle
  // goes.
  void endProbe(const std::string& target, connection kept);

  std::size_t idleConnections() const;

 private:
  struct idle_connection {
    std::string target;
    connection kept;
    ovnet::clock_type::time_point since;
  };
  using idle_list = std::list<idle_connection>;
  // Removes the longest idle connection, for the caller to close outside the lock.
  connection removeOldest();
  void closeExpired();  // the janitor thread

  const std::size_t descriptors;
  const std::size_t maxIdle;
  const std::chrono::milliseconds idleTime;
  mutable std::mutex mutex;
  std::condition_variable stopping;
  bool stop = false;
  std::size_t probes = 0;  // in flight
  // Longest idle first, so that the one to close goes in constant time however many there are.
  idle_list idle;
  std::unordered_map<std::string, idle_list::iterator> byTarget;
  std::thread janitor;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_CONNECTION_POOL_H_
