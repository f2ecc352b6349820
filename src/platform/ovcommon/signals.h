// Signal routing of the common support library (libovcommon).
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_SIGNALS_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_SIGNALS_H_

namespace com::orvex {

// A logging service of the library's users; none exists in vigilo, which passes null.
class LoggingService;

// Base of the objects that turn a stop signal into an orderly stop.
class ShutdownSignalHandler {
 public:
  virtual ~ShutdownSignalHandler() = default;
  // Runs in signal context: may only do async-signal-safe work.
  virtual void invoke(int signal) = 0;
};

// Registers `handler` for the process: SIGTERM goes to its invoke() (a service manager's stop is
// a clean stop), SIGPIPE is ignored (a closed pipe or socket becomes a failed write), and a fatal
// signal (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT) writes `versionLine` and the signal to stderr
// before the process dies of it. `handler` and `versionLine` must live until the process ends.
void signals_initialize2(LoggingService* logger, ShutdownSignalHandler* handler,
                         const char* versionLine);

// Installs `function` for `signal`, with SA_RESTART so that an interrupted read or write goes on.
void setupHandler(int signal, void (*function)(int));

}  // namespace com::orvex

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_SIGNALS_H_
