// The processing core of ovengine: received events wait on the input queue, a router thread hands
// each to the context that owns its type, every context is a thread with its own input queue that
// processes events and emits one output event each, and a sender thread delivers output events to
// the engine's one receiver. One lock guards every queue and counter, so a snapshot is consistent:
// nothing is counted twice and nothing is processed before it was received. The events in flight
// are bounded as a whole, so no queue can grow past that bound.
#ifndef VIGILO_ENGINE_EVENT_ENGINE_H_
#define VIGILO_ENGINE_EVENT_ENGINE_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ovengine {

struct event {
  std::string type;
  std::string fields;
};

using status_pairs = std::vector<std::pair<std::string, std::string>>;

enum class submit_result { accepted, busy, tooManyTypes };
enum class user_status_result { set, badKey, badValue, full };

class event_engine {
 public:
  // Starts the router, `contextCount` context threads and the sender.
  explicit event_engine(int contextCount);
  // Stops and joins every thread; queued events are dropped.
  ~event_engine();
  event_engine(const event_engine&) = delete;
  event_engine& operator=(const event_engine&) = delete;

  // Queues all the events for processing, or none of them: `busy` when the events in flight
  // would pass their bound, `tooManyTypes` when their types would. Thread-safe.
  submit_result submit(std::vector<event> events);
  // Events that the load generator could not submit.
  void countDropped(std::uint64_t events) { dropped += events; }
  std::uint64_t droppedEvents() const { return dropped; }

  // Every standard status value, then "user-KEY" for each user value in the order set.
  status_pairs snapshot() const;

  // Sets a user value: a key of letters, digits, '_', '-' and '.', and UTF-8 text. An existing key
  // keeps its place. Thread-safe.
  user_status_result setUserStatus(const std::string& key, const std::string& value);
  // False when the key is not set.
  bool removeUserStatus(const std::string& key);

  std::uint64_t uptimeMs() const;

 private:
  struct context {
    std::string name;
    std::deque<event> queue;
    std::condition_variable wake;
    std::thread thread;
  };

  void routeEvents();
  void processEvents(context& self);
  void sendEvents();

  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  mutable std::mutex mutex;
  std::condition_variable routerWake;
  std::condition_variable senderWake;
  bool stopping = false;

  std::deque<event> input;
  std::size_t routing = 0;  // taken off the input queue by the router, not yet handed over
  std::vector<std::unique_ptr<context>> contexts;
  std::deque<event> output;
  std::set<std::string> types;
  status_pairs userValues;

  std::uint64_t received = 0;
  std::uint64_t routed = 0;
  std::uint64_t processed = 0;
  std::uint64_t emitted = 0;
  std::uint64_t sent = 0;
  std::atomic<std::uint64_t> dropped{0};

  std::thread router;
  std::thread sender;
};

}  // namespace ovengine

#endif  // VIGILO_ENGINE_EVENT_ENGINE_H_
