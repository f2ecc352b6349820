#include "connection_pool.h"

#include <algorithm>

#include "ovcommon/EngineException.h"

namespace exporter {

connection_pool::connection_pool(std::size_t descriptors, std::size_t maxIdle,
                                 std::chrono::milliseconds idleTime)
    : descriptors(descriptors),
      maxIdle(maxIdle),
      idleTime(idleTime),
      janitor([this] { closeExpired(); }) {}

connection_pool::~connection_pool() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  stopping.notify_all();
  janitor.join();
  for (const idle_connection& entry : idle) close(entry.connection);
}

bool connection_pool::startProbe() {
  std::vector<EngineManagement*> unwanted;
  bool started = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    while (idle.size() + (probes + 1) * perProbe > descriptors && !idle.empty()) {
      unwanted.push_back(removeOldest());
    }
    started = idle.size() + (probes + 1) * perProbe <= descriptors;
    probes += started;
  }
  for (EngineManagement* connection : unwanted) close(connection);
  return started;
}

EngineManagement* connection_pool::take(const std::string& target) {
  std::lock_guard<std::mutex> lock(mutex);
  const auto found = byTarget.find(target);
  if (found == byTarget.end()) return nullptr;
  EngineManagement* connection = found->second->connection;
  idle.erase(found->second);
  byTarget.erase(found);
  return connection;
}

void connection_pool::endProbe(const std::string& target, EngineManagement* connection) {
  EngineManagement* unwanted = connection;
  {
    std::lock_guard<std::mutex> lock(mutex);
    --probes;
    if (connection != nullptr && maxIdle > 0 && !byTarget.contains(target)) {
      unwanted = idle.size() == maxIdle ? removeOldest() : nullptr;
      byTarget[target] = idle.insert(idle.end(), {target, connection, clock_type::now()});
    }
  }
  close(unwanted);
}

EngineManagement* connection_pool::removeOldest() {
  EngineManagement* connection = idle.front().connection;
  byTarget.erase(idle.front().target);
  idle.pop_front();
  return connection;
}

void connection_pool::close(EngineManagement* connection) {
  if (connection == nullptr) return;
  try {
    com::orvex::engine::disconnectFromEngine(connection);
  } catch (const com::orvex::EngineException&) {
    // Closing is all that was wanted; there is nobody to tell.
  }
}

std::size_t connection_pool::idleConnections() const {
  std::lock_guard<std::mutex> lock(mutex);
  return idle.size();
}

void connection_pool::closeExpired() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stop) {
    stopping.wait_for(lock, std::min<std::chrono::milliseconds>(idleTime, std::chrono::seconds(1)));
    std::vector<EngineManagement*> expired;
    const auto now = clock_type::now();
    while (!idle.empty() && now - idle.front().since >= idleTime) expired.push_back(removeOldest());
    lock.unlock();
    for (EngineManagement* connection : expired) close(connection);
    lock.lock();
  }
}

}  // namespace exporter
