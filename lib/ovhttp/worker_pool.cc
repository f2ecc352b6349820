#include "worker_pool.h"

namespace ovhttp {

void worker_pool::run(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping) return;
  jobs.push_back(std::move(job));
  if (jobs.size() > idle && threads.size() < maxThreads) {
    threads.emplace_back([this] { work(); });
  } else {
    jobsWaiting.notify_one();
  }
}

void worker_pool::stop() {
  std::vector<std::thread> ending;
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
    ending.swap(threads);
    dropped.swap(jobs);
    jobsWaiting.notify_all();
  }
  for (std::thread& thread : ending) thread.join();
}

void worker_pool::work() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    ++idle;
    jobsWaiting.wait(lock, [this] { return stopping || !jobs.empty(); });
    --idle;
    if (stopping) return;
    std::function<void()> job = std::move(jobs.front());
    jobs.pop_front();
    lock.unlock();
    job();
    job = nullptr;  // what it holds goes before the next wait
    lock.lock();
  }
}

}  // namespace ovhttp
