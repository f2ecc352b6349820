#include "watch/vigil_core_sighandler.h"

vigil_core_sighandler* SigHandler = nullptr;

vigil_core_sighandler::vigil_core_sighandler(com::orvex::Mutex* mutex,
                                             com::orvex::Condition* condition, bool* stopFlag)
    : mutex(mutex), condition(condition), semaphore(0), threadId(0), stopFlag(stopFlag) {
  auto* helper = new com::orvex::ThreadHelper(conditionBroadcastThread, this);
  threadId = com::orvex::Thread::createThread(helper, false, com::orvex::ThreadAttributes());
}

vigil_core_sighandler::~vigil_core_sighandler() = default;

void vigil_core_sighandler::invoke(int /*signal*/) { semaphore.post(); }

void vigil_core_sighandler::cleanup() {
  semaphore.post();
  com::orvex::Thread::joinThread(threadId);
}

// One pass: later posts are never consumed.
void* vigil_core_sighandler::conditionBroadcastThread(void* handler) {
  auto* self = static_cast<vigil_core_sighandler*>(handler);
  self->semaphore.wait();
  self->mutex->lock();
  *self->stopFlag = true;
  self->condition->broadcast();
  self->mutex->unlock();
  return nullptr;
}

void SigIntHandler(int signal) { SigHandler->invoke(signal); }
