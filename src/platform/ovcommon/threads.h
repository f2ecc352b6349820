// Locks, conditions, semaphores and threads of the common support library (libovcommon).
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_THREADS_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_THREADS_H_

#include <pthread.h>
#include <semaphore.h>

#include <cstddef>
#include <cstdint>

namespace com::orvex {

// A non-recursive mutex with a name, which its failures report. Not copyable.
class Mutex {
 public:
  explicit Mutex(const char* name);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock();
  void unlock();

 private:
  friend class Condition;
  pthread_mutex_t native;
  const char* name;  // not owned; a literal in practice
};

// A condition variable bound to one mutex. Deadlines are absolute times of Platform::sysTime(),
// the monotonic clock, so a step of the wall clock neither stalls nor hurries a wait.
class Condition {
 public:
  explicit Condition(Mutex& mutex);
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // The caller holds the mutex. Returns false when the deadline passed, true when woken (a wake
  // may be spurious).
  bool timedwait(std::uint64_t deadlineMs);
  void broadcast();

 private:
  Mutex& mutex;
  pthread_cond_t native;
};

// A counting semaphore. post() is safe to call from a signal handler.
class Semaphore {
 public:
  explicit Semaphore(unsigned count);
  ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void post();
  // Waits until the count is positive, then decrements it; an interrupting signal does not end
  // the wait.
  void wait();

 private:
  sem_t native;
};

// What a new thread runs: `function(argument)`.
class ThreadHelper {
 public:
  using function_type = void* (*)(void*);
  ThreadHelper(function_type function, void* argument) : function(function), argument(argument) {}
  virtual ~ThreadHelper() = default;
  virtual void* run() { return function(argument); }

 private:
  function_type function;
  void* argument;
};

struct ThreadAttributes {
  std::size_t stackSize = 0;  // 0: the system's default
};

class Thread {
 public:
  // Starts a joinable thread that runs `helper`; joinThread deletes it. Takes ownership of
  // `helper` in every case, also when it throws. `detached` must be false (every thread of the
  // library is joined). Throws EngineException when the thread cannot be started. Returns its
  // handle.
  static std::uint64_t createThread(ThreadHelper* helper, bool detached,
                                    const ThreadAttributes& attributes);
  // Waits for the thread to end. Throws EngineException for an unknown handle.
  static void joinThread(std::uint64_t handle);
};

}  // namespace com::orvex

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_THREADS_H_
