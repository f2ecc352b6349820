#include "ovcommon/signals.h"

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

namespace com::orvex {

namespace {

std::atomic<ShutdownSignalHandler*> shutdownHandler{nullptr};
std::atomic<const char*> fatalVersionLine{nullptr};

void routeToShutdownHandler(int signal) {
  if (ShutdownSignalHandler* handler = shutdownHandler.load()) handler->invoke(signal);
}

// Only async-signal-safe calls: write, signal, raise.
void reportFatalSignal(int signal) {
  const char* version = fatalVersionLine.load();
  if (version != nullptr) {
    (void)!write(STDERR_FILENO, version, strlen(version));
    (void)!write(STDERR_FILENO, ": ", 2);
  }
  const char* name = sigabbrev_np(signal);
  (void)!write(STDERR_FILENO, "fatal signal SIG", 16);
  if (name != nullptr) (void)!write(STDERR_FILENO, name, strlen(name));
  (void)!write(STDERR_FILENO, "\n", 1);
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void install(int signal, void (*function)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = function;
  sigemptyset(&action.sa_mask);
  action.sa_flags = flags;
  sigaction(signal, &action, nullptr);
}

}  // namespace

void signals_initialize2(LoggingService* /*logger*/, ShutdownSignalHandler* handler,
                         const char* versionLine) {
  shutdownHandler = handler;
  fatalVersionLine = versionLine;
  install(SIGTERM, routeToShutdownHandler, SA_RESTART);
  install(SIGPIPE, SIG_IGN, 0);
  for (const int fatal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
    install(fatal, reportFatalSignal, SA_NODEFER);
  }
}

void setupHandler(int signal, void (*function)(int)) { install(signal, function, SA_RESTART); }

}  // namespace com::orvex
