#include "resolver.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace ovnet {

namespace {

// One lookup, shared by its caller and the lookup thread: a caller that gives up leaves it to the
// thread, which frees it when getaddrinfo returns.
struct lookup {
  lookup(std::string host, std::string service)
      : host(std::move(host)), service(std::move(service)) {}
  ~lookup() {
    if (found != nullptr) freeaddrinfo(found);
  }
  const std::string host, service;
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  int rc = 0;
  int error = 0;
  addrinfo* found = nullptr;
};

// The one thread that asks the system's name service, lookup after lookup: a name service call
// cannot be given up, so it runs there and its caller waits only as long as it may. It starts when
// a name arrives and none runs, and ends once no name waits: a program that looks up its host once
// leaves no idle thread for the end of the process to stop.
class lookup_thread {
 public:
  static lookup_thread& instance() {
    static lookup_thread* const thread = new lookup_thread;
    return *thread;
  }
  void submit(std::shared_ptr<lookup> job) {
    std::lock_guard<std::mutex> lock(mutex);
    jobs.push_back(std::move(job));
    if (!running) {
      std::thread([this] { run(); }).detach();
      running = true;
    }
  }

 private:
  void run() {
    for (;;) {
      std::shared_ptr<lookup> job;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (jobs.empty()) {
          running = false;
          return;
        }
        job = std::move(jobs.front());
        jobs.pop_front();
      }
      addrinfo hints{};
      hints.ai_family = AF_UNSPEC;
      hints.ai_socktype = SOCK_STREAM;
      addrinfo* found = nullptr;
      const int rc = getaddrinfo(job->host.c_str(), job->service.c_str(), &hints, &found);
      const int error = errno;
      std::lock_guard<std::mutex> lock(job->mutex);
      job->rc = rc;
      job->error = error;
      job->found = found;
      job->finished = true;
      job->done.notify_one();
    }
  }

  std::mutex mutex;
  std::deque<std::shared_ptr<lookup>> jobs;
  bool running = false;
};

}  // namespace

lookup_result givenUp(wait_end end) {
  return {{}, end == wait_end::abandoned ? "abandoned" : "no answer in time", end};
}

lookup_result system_resolver::resolve(const std::string& host, unsigned short port, deadline until,
                                       const std::atomic<bool>* abandon) const {
  if (const auto numeric = address::parse(host, port)) return {{*numeric}, ""};
  const auto job = std::make_shared<lookup>(host, std::to_string(port));
  lookup_thread::instance().submit(job);
  std::unique_lock<std::mutex> lock(job->mutex);
  while (!job->finished) {
    if (abandoned(abandon)) return givenUp(wait_end::abandoned);
    if (clock_type::now() >= until) return givenUp(wait_end::timedOut);
    job->done.wait_until(
        lock, abandon != nullptr ? std::min(until, clock_type::now() + checkInterval) : until);
  }
  if (job->rc != 0) {
    return {{}, job->rc == EAI_SYSTEM ? std::strerror(job->error) : gai_strerror(job->rc)};
  }
  lookup_result found;
  for (const addrinfo* a = job->found; a != nullptr; a = a->ai_next) {
    found.addresses.push_back(address::of(a->ai_addr, a->ai_addrlen));
  }
  return found;
}

}  // namespace ovnet
