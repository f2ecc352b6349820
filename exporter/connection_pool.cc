#include "connection_pool.h"

#include <algorithm>

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
}

bool connection_pool::startProbe() {
  std::vector<connection> unwanted;  // closed once the lock is let go
  std::lock_guard<std::mutex> lock(mutex);
  while (idle.size() + (probes + 1) * perProbe > descriptors && !idle.empty()) {
    unwanted.push_back(removeOldest());
  }
  const bool started = idle.size() + (probes + 1) * perProbe <= descriptors;
  probes += started;
  return started;
}

connection connection_pool::take(const std::string& target) {
  std::lock_guard<std::mutex> lock(mutex);
  const auto found = byTarget.find(target);
  if (found == byTarget.end()) return nullptr;
  connection taken = std::move(found->second->kept);
  idle.erase(found->second);
  byTarget.erase(found);
  return taken;
}

void connection_pool::endProbe(const std::string& target, connection kept) {
  connection unwanted;
  std::lock_guard<std::mutex> lock(mutex);
  --probes;
  if (kept == nullptr || maxIdle == 0 || byTarget.contains(target)) {
    unwanted = std::move(kept);
  } else {
    if (idle.size() == maxIdle) unwanted = removeOldest();
    byTarget[target] = idle.insert(idle.end(), {target, std::move(kept), ovnet::clock_type::now()});
  }
}

connection connection_pool::removeOldest() {
  connection oldest = std::move(idle.front().kept);
  byTarget.erase(idle.front().target);
  idle.pop_front();
  return oldest;
}

std::size_t connection_pool::idleConnections() const {
  std::lock_guard<std::mutex> lock(mutex);
  return idle.size();
}

void connection_pool::closeExpired() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stop) {
    stopping.wait_for(lock, std::min<std::chrono::milliseconds>(idleTime, std::chrono::seconds(1)));
    std::vector<connection> expired;
    const auto now = ovnet::clock_type::now();
    while (!idle.empty() && now - idle.front().since >= idleTime) expired.push_back(removeOldest());
    lock.unlock();
    expired.clear();
    lock.lock();
  }
}

}  // namespace exporter
