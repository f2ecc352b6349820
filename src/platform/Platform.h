// Process services of the common support library (libovcommon). All operations are static and
// safe to call from any thread unless a comment says otherwise.
#ifndef VIGILO_PLATFORM_PLATFORM_H_
#define VIGILO_PLATFORM_PLATFORM_H_

namespace com::orvex {

class Platform {
 public:
  // Flushes the standard streams (C and C++) and ends the process with `status`. The second
  // argument is reserved and ignored. Never returns.
  [[noreturn]] static void doExit(int status, unsigned long reserved);
};

}  // namespace com::orvex

#endif  // VIGILO_PLATFORM_PLATFORM_H_
