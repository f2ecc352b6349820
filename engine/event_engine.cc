#include "event_engine.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <nlohmann/json.hpp>

#include "engine_limits.h"

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

event_engine::event_engine(int contextCount) {
  for (int i = 0; i < contextCount; ++i) {
    auto c = std::make_unique<context>();
    c->name = "context-" + std::to_string(i + 1);
    contexts.push_back(std::move(c));
  }
  for (auto& c : contexts) c->thread = std::thread([this, &self = *c] { processEvents(self); });
  router = std::thread([this] { routeEvents(); });
  sender = std::thread([this] { sendEvents(); });
}

event_engine::~event_engine() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  routerWake.notify_all();
  senderWake.notify_all();
  for (auto& c : contexts) c->wake.notify_all();
  router.join();
  sender.join();
  for (auto& c : contexts) c->thread.join();
}

submit_result event_engine::submit(std::vector<event> events) {
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping || received - sent + events.size() > limits::eventsInFlight) {
    return submit_result::busy;
  }
  std::set<std::string> newTypes;
  for (const event& e : events) {
    if (types.count(e.type) == 0) newTypes.insert(e.type);
  }
  if (types.size() + newTypes.size() > limits::eventTypes) return submit_result::tooManyTypes;
  types.merge(newTypes);
  for (auto& e : events) input.push_back(std::move(e));
  received += events.size();
  routerWake.notify_one();
  return submit_result::accepted;
}

void event_engine::routeEvents() {
  const std::hash<std::string> hash;
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    routerWake.wait(lock, [&] { return stopping || !input.empty(); });
    if (stopping) return;
    std::vector<event> batch;
    while (!input.empty() && batch.size() < routeBatch) {
      batch.push_back(std::move(input.front()));
      input.pop_front();
    }
    routing = batch.size();
    for (auto& e : batch) {
      lock.unlock();
      context& target = *contexts[hash(e.type) % contexts.size()];
      lock.lock();
      if (stopping) return;
      target.queue.push_back(std::move(e));
      --routing;
      ++routed;
      target.wake.notify_one();
    }
  }
}

void event_engine::processEvents(context& self) {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    self.wake.wait(lock, [&] { return stopping || !self.queue.empty(); });
    if (stopping) return;
    event e = std::move(self.queue.front());
    self.queue.pop_front();
    lock.unlock();
    const std::uint64_t d = digest(e);
    event out{"Processed", e.type + "," + std::to_string(d)};
    lock.lock();
    ++processed;
    ++emitted;
    output.push_back(std::move(out));
    senderWake.notify_one();
  }
}

void event_engine::sendEvents() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    senderWake.wait(lock, [&] { return stopping || !output.empty(); });
    if (stopping) return;
    event e = std::move(output.front());
    output.pop_front();
    lock.unlock();
    volatile std::uint64_t delivered = digest(e);  // the receiver's work
    (void)delivered;
    lock.lock();
    ++sent;
  }
}

std::uint64_t event_engine::uptimeMs() const {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - started)
                                        .count());
}

status_pairs event_engine::snapshot() const {
  const std::uint64_t uptime = uptimeMs();
  std::lock_guard<std::mutex> lock(mutex);
  std::size_t contextQueued = 0;
  const context* slowest = contexts.front().get();
  for (const auto& c : contexts) {
    contextQueued += c->queue.size();
    if (c->queue.size() > slowest->queue.size()) slowest = c.get();
  }
  auto n = [](std::uint64_t v) { return std::to_string(v); };
  status_pairs pairs = {
      {"uptime", n(uptime)},
      {"numContexts", n(contexts.size())},
      {"numMonitors", n(types.size())},  // one monitor per event type
      {"numProcesses", n(types.size())},
      {"numJavaApplications", "0"},
      {"numListeners", "1"},  // the receiver's
      {"numSubListeners", "0"},
      {"numEventTypes", n(types.size())},
      {"numQueuedInput", n(input.size())},
      {"numReceived", n(received)},
      {"numQueuedFastTrack", n(routing)},
      {"numFastTracked", n(routed)},
      {"numConsumers", "1"},
      {"numOutEventsQueued", n(output.size())},
      {"numEmits", n(emitted)},
      {"numOutEventsSent", n(sent)},
      // ovengine keeps no persistent state.
      {"persistenceNumSnapshots", "0"},
      {"persistenceLastSnapshotTime", "never"},
      {"persistenceSnapshotWaitTimeEwmaMillis", "0.0"},
      {"persistenceCommitTimeEwmaMillis", "0.0"},
      {"persistenceLastSnapshotRowsChangedEwma", "0.0"},
      {"numProcessed", n(processed)},
      {"mostBackedUpInputContext", slowest->name},
      {"mostBackedUpICQueueSize", n(slowest->queue.size())},
      {"slowestReceiver", "receiver-1"},
      {"slowestReceiverQueueSize", n(output.size())},
      {"numInputQueuedInput", n(contextQueued)},
  };
  for (const auto& [key, value] : userValues) pairs.emplace_back("user-" + key, value);
  return pairs;
}

user_status_result event_engine::setUserStatus(const std::string& key, const std::string& value) {
  const bool keyValid =
      !key.empty() && key.size() <= limits::userKeyLength &&
      std::all_of(key.begin(), key.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
      });
  if (!keyValid) return user_status_result::badKey;
  // The status document must always serialise: its JSON carries only UTF-8.
  try {
    (void)nlohmann::json(value).dump();
  } catch (const nlohmann::json::type_error&) {
    return user_status_result::badValue;
  }
  if (value.size() > limits::userValueLength) return user_status_result::badValue;
  std::lock_guard<std::mutex> lock(mutex);
  for (auto& [k, v] : userValues) {
    if (k == key) {
      v = value;
      return user_status_result::set;
    }
  }
  if (userValues.size() == limits::userValues) return user_status_result::full;
  userValues.emplace_back(key, value);
  return user_status_result::set;
}

bool event_engine::removeUserStatus(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex);
  const auto found = std::find_if(userValues.begin(), userValues.end(),
                                  [&](const auto& p) { return p.first == key; });
  if (found == userValues.end()) return false;
  userValues.erase(found);
  return true;
}

}  // namespace ovengine
