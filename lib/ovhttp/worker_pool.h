// The threads that run handlers which may wait. A thread is started when a job finds none idle,
// up to a bound; beyond it jobs wait their turn. Idle threads stay for the next jobs. Thread-safe.
#ifndef VIGILO_LIB_OVHTTP_WORKER_POOL_H_
#define VIGILO_LIB_OVHTTP_WORKER_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ovhttp {

class worker_pool {
 public:
  explicit worker_pool(std::size_t maxThreads) : maxThreads(maxThreads) {}
  ~worker_pool() { stop(); }
  worker_pool(const worker_pool&) = delete;
  worker_pool& operator=(const worker_pool&) = delete;

  void run(std::function<void()> job);
  // Waits for the jobs running; those still waiting are dropped. Later jobs are dropped too.
  void stop();

 private:
  void work();

  const std::size_t maxThreads;
  std::mutex mutex;
  std::condition_variable jobsWaiting;
  std::deque<std::function<void()>> jobs;
  std::size_t idle = 0;
  bool stopping = false;
  std::vector<std::thread> threads;
};

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_WORKER_POOL_H_
