#include "ovcommon/threads.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "ovcommon/EngineException.h"
#include "ovcommon/Platform.h"

namespace com::orvex {

namespace {

[[noreturn]] void fail(const std::string& what, int error) {
  throw EngineException(what + ": " + std::strerror(error));
}

// The helper goes back to the joining thread, which deletes it: a thread that never allocates nor
// frees spares its joiner the wait while the allocator sets up memory of the thread's own.
void* runHelper(void* helper) {
  static_cast<ThreadHelper*>(helper)->run();
  return helper;
}

}  // namespace

Mutex::Mutex(const char* name) : name(name) {
  const int rc = pthread_mutex_init(&native, nullptr);
  if (rc != 0) fail(std::string("cannot create mutex ") + name, rc);
}

Mutex::~Mutex() { pthread_mutex_destroy(&native); }

void Mutex::lock() {
  const int rc = pthread_mutex_lock(&native);
  if (rc != 0) fail(std::string("cannot lock mutex ") + name, rc);
}

void Mutex::unlock() { pthread_mutex_unlock(&native); }

Condition::Condition(Mutex& mutex) : mutex(mutex) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  const int rc = pthread_cond_init(&native, &attributes);
  pthread_condattr_destroy(&attributes);
  if (rc != 0) fail("cannot create condition", rc);
}

Condition::~Condition() { pthread_cond_destroy(&native); }

bool Condition::timedwait(std::uint64_t deadlineMs) {
  // A deadline that has passed needs no system call: a poller at interval 0 asks every poll.
  if (Platform::sysTime() >= deadlineMs) return false;
  timespec deadline;
  deadline.tv_sec = static_cast<time_t>(deadlineMs / 1000);
  deadline.tv_nsec = static_cast<long>(deadlineMs % 1000) * 1000000L;
  return pthread_cond_timedwait(&native, &mutex.native, &deadline) != ETIMEDOUT;
}

void Condition::broadcast() { pthread_cond_broadcast(&native); }

Semaphore::Semaphore(unsigned count) {
  if (sem_init(&native, 0, count) != 0) fail("cannot create semaphore", errno);
}

Semaphore::~Semaphore() { sem_destroy(&native); }

void Semaphore::post() { sem_post(&native); }

void Semaphore::wait() {
  while (sem_wait(&native) != 0 && errno == EINTR) {
  }
}

std::uint64_t Thread::createThread(ThreadHelper* helper, bool detached,
                                   const ThreadAttributes& attributes) {
  std::unique_ptr<ThreadHelper> owned(helper);
  if (detached) throw EngineException("threads of this library are always joinable");
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (attributes.stackSize != 0) pthread_attr_setstacksize(&attr, attributes.stackSize);
  pthread_t thread;
  const int rc = pthread_create(&thread, &attr, runHelper, owned.get());
  pthread_attr_destroy(&attr);
  if (rc != 0) fail("cannot start thread", rc);
  owned.release();  // the thread deletes it
  return static_cast<std::uint64_t>(thread);
}

void Thread::joinThread(std::uint64_t handle) {
  void* helper = nullptr;
  const int rc = pthread_join(static_cast<pthread_t>(handle), &helper);
  if (rc != 0) fail("cannot join thread", rc);
  delete static_cast<ThreadHelper*>(helper);
}

}  // namespace com::orvex
