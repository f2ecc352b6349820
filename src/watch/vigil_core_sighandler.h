// Turns Control-C into a clean stop of the poll loop. The signal handler only posts a semaphore;
// a broadcast thread, asleep on it, then locks the poll mutex, sets the stop flag, broadcasts the
// poll condition and ends. The poll loop posts the same semaphore itself when it ends (cleanup),
// so the thread always finishes, and joins it.
#ifndef VIGILO_SRC_WATCH_VIGIL_CORE_SIGHANDLER_H_
#define VIGILO_SRC_WATCH_VIGIL_CORE_SIGHANDLER_H_

#include <cstdint>

#include "ovcommon/signals.h"
#include "ovcommon/threads.h"

class vigil_core_sighandler : public com::orvex::ShutdownSignalHandler {
 public:
  // Starts the broadcast thread, which waits at once. The mutex, condition and flag are the poll
  // loop's; they must outlive the thread. Throws when the thread cannot be started.
  vigil_core_sighandler(com::orvex::Mutex* mutex, com::orvex::Condition* condition, bool* stopFlag);
  // Neither posts nor joins; the program never destroys its handler.
  ~vigil_core_sighandler() override;

  // Posts the semaphore; the only operation that runs in signal context.
  void invoke(int signal) override;
  // Posts the semaphore and joins the broadcast thread. The caller must not hold the mutex.
  void cleanup();

  static void* conditionBroadcastThread(void* handler);

 private:
  com::orvex::Mutex* mutex;
  com::orvex::Condition* condition;
  com::orvex::Semaphore semaphore;
  std::uint64_t threadId;
  bool* stopFlag;
};

// The process's one shutdown handler; set before SIGINT is routed to it and never reset.
extern vigil_core_sighandler* SigHandler;

// The SIGINT handler: SigHandler->invoke(signal).
void SigIntHandler(int signal);

#endif  // VIGILO_SRC_WATCH_VIGIL_CORE_SIGHANDLER_H_
