// The exporter's connections to engines: one kept-alive connection per target, reused from one
// scrape to the next and closed after an idle time. A connection is used by one probe at a time:
// take() hands it over and giveBack() returns it. Thread-safe; no call waits on an engine.
#ifndef VIGILO_EXPORTER_CONNECTION_POOL_H_
#define VIGILO_EXPORTER_CONNECTION_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ovclient/engine_client.h"

namespace exporter {

using com::orvex::engine::EngineManagement;

class connection_pool {
 public:
  using clock_type = std::chrono::steady_clock;

  // Holds at most `capacity` idle connections; each closes once idle for `idleTime`.
  connection_pool(std::size_t capacity, std::chrono::milliseconds idleTime);
  ~connection_pool();  // closes every idle connection
  connection_pool(const connection_pool&) = delete;
  connection_pool& operator=(const connection_pool&) = delete;

  // The idle connection to `target`, now the caller's, or null.
  EngineManagement* take(const std::string& target);
  // Keeps a working connection for the next probe of `target`; a second one to the same target,
  // or one beyond capacity (then the longest idle goes), is closed.
  void giveBack(const std::string& target, EngineManagement* connection);
  // Closes a connection that failed or is not wanted.
  static void close(EngineManagement* connection);

  std::size_t idleConnections() const;

 private:
  struct idle_connection {
    EngineManagement* connection;
    clock_type::time_point since;
  };
  void closeExpired();  // the janitor thread

  const std::size_t capacity;
  const std::chrono::milliseconds idleTime;
  mutable std::mutex mutex;
  std::condition_variable stopping;
  bool stop = false;
  std::map<std::string, idle_connection> idle;
  std::thread janitor;
};

}  // namespace exporter

#endif  // VIGILO_EXPORTER_CONNECTION_POOL_H_
