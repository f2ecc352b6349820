// SIGINT and SIGTERM, taken by a thread of their own: a stop runs outside signal context, and no
// signal that comes before the server serves is lost.
#include <pthread.h>
#include <signal.h>

#include <thread>

#include "bounded_server.h"

namespace ovhttp {

namespace {

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

void blockStopSignals() {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool serveUntilStopSignal(bounded_server& server, const std::function<void()>& onStop) {
  std::thread stopper([&server, &onStop] {
    const sigset_t signals = stopSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    if (onStop) onStop();
    server.shutdown();
  });
  const bool served = server.serve();
  pthread_kill(stopper.native_handle(), SIGTERM);  // wakes the stopper if no signal came
  stopper.join();
  return served;
}

}  // namespace ovhttp
