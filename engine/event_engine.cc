#include "event_engine.h"

#include <algorithm>
#include <functional>

namespace ovengine {

namespace {

constexpr std::size_t routeBatch = 256;

// The work of processing one event: a digest of its content, so that the figures cost something
// real per event.
std::uint64_t digest(const event& e) {
  std::uint64_t h = 1469598103934665603ULL;
  for (const char c : e.type) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  for (const char c : e.fields) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  return h;
}

}  // namespace

event_engine::event_engine(int contexts) {
  for (int i = 0; i < contexts; ++i) {
    auto c = std::make_unique<context>();
    c->name = "context-" + std::to_string(i + 1);
    contexts_.push_back(std::move(c));
  }
  for (auto& c : contexts_) c->thread = std::thread([this, &self = *c] { processEvents(self); });
  router_ = std::thread([this] { routeEvents(); });
  sender_ = std::thread([this] { sendEvents(); });
}

event_engine::~event_engine() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  routerWake_.notify_all();
  senderWake_.notify_all();
  spaceFreed_.notify_all();
  for (auto& c : contexts_) c->wake.notify_all();
  router_.join();
  sender_.join();
  for (auto& c : contexts_) c->thread.join();
}

bool event_engine::submit(std::vector<event> events, bool waitForSpace) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto fits = [&] { return input_.size() + events.size() <= inputCapacity; };
  if (waitForSpace) spaceFreed_.wait(lock, [&] { return stopping_ || fits(); });
  if (stopping_ || !fits()) return false;
  for (auto& e : events) input_.push_back(std::move(e));
  received_ += events.size();
  routerWake_.notify_one();
  return true;
}

void event_engine::routeEvents() {
  const std::hash<std::string> hash;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    routerWake_.wait(lock, [&] { return stopping_ || !input_.empty(); });
    if (stopping_) return;
    std::vector<event> batch;
    while (!input_.empty() && batch.size() < routeBatch) {
      batch.push_back(std::move(input_.front()));
      input_.pop_front();
    }
    routing_ = batch.size();
    spaceFreed_.notify_all();
    for (auto& e : batch) {
      lock.unlock();
      context& target = *contexts_[hash(e.type) % contexts_.size()];
      lock.lock();
      if (stopping_) return;
      target.queue.push_back(std::move(e));
      --routing_;
      ++routed_;
      target.wake.notify_one();
    }
  }
}

void event_engine::processEvents(context& self) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    self.wake.wait(lock, [&] { return stopping_ || !self.queue.empty(); });
    if (stopping_) return;
    event e = std::move(self.queue.front());
    self.queue.pop_front();
    lock.unlock();
    const std::uint64_t d = digest(e);
    event out{"Processed", e.type + "," + std::to_string(d)};
    lock.lock();
    types_.insert(e.type);
    ++processed_;
    ++emitted_;
    output_.push_back(std::move(out));
    senderWake_.notify_one();
  }
}

void event_engine::sendEvents() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    senderWake_.wait(lock, [&] { return stopping_ || !output_.empty(); });
    if (stopping_) return;
    event e = std::move(output_.front());
    output_.pop_front();
    lock.unlock();
    volatile std::uint64_t delivered = digest(e);  // the receiver's work
    (void)delivered;
    lock.lock();
    ++sent_;
  }
}

std::uint64_t event_engine::uptimeMs() const {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - started_)
                                        .count());
}

status_pairs event_engine::snapshot() const {
  const std::uint64_t uptime = uptimeMs();
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t contextQueued = 0;
  const context* slowest = contexts_.front().get();
  for (const auto& c : contexts_) {
    contextQueued += c->queue.size();
    if (c->queue.size() > slowest->queue.size()) slowest = c.get();
  }
  auto n = [](std::uint64_t v) { return std::to_string(v); };
  status_pairs pairs = {
      {"uptime", n(uptime)},
      {"numContexts", n(contexts_.size())},
      {"numMonitors", n(types_.size())},  // one monitor per event type
      {"numProcesses", n(types_.size())},
      {"numJavaApplications", "0"},
      {"numListeners", "1"},  // the receiver's
      {"numSubListeners", "0"},
      {"numEventTypes", n(types_.size())},
      {"numQueuedInput", n(input_.size())},
      {"numReceived", n(received_)},
      {"numQueuedFastTrack", n(routing_)},
      {"numFastTracked", n(routed_)},
      {"numConsumers", "1"},
      {"numOutEventsQueued", n(output_.size())},
      {"numEmits", n(emitted_)},
      {"numOutEventsSent", n(sent_)},
      // ovengine keeps no persistent state.
      {"persistenceNumSnapshots", "0"},
      {"persistenceLastSnapshotTime", "never"},
      {"persistenceSnapshotWaitTimeEwmaMillis", "0.0"},
      {"persistenceCommitTimeEwmaMillis", "0.0"},
      {"persistenceLastSnapshotRowsChangedEwma", "0.0"},
      {"numProcessed", n(processed_)},
      {"mostBackedUpInputContext", slowest->name},
      {"mostBackedUpICQueueSize", n(slowest->queue.size())},
      {"slowestReceiver", "receiver-1"},
      {"slowestReceiverQueueSize", n(output_.size())},
      {"numInputQueuedInput", n(contextQueued)},
  };
  for (const auto& [key, value] : user_) pairs.emplace_back("user-" + key, value);
  return pairs;
}

void event_engine::setUserStatus(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [k, v] : user_) {
    if (k == key) {
      v = value;
      return;
    }
  }
  user_.emplace_back(key, value);
}

bool event_engine::removeUserStatus(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found =
      std::find_if(user_.begin(), user_.end(), [&](const auto& p) { return p.first == key; });
  if (found == user_.end()) return false;
  user_.erase(found);
  return true;
}

}  // namespace ovengine
