// Memory accounting and the out-of-memory report of the common support library (libovcommon).
#ifndef VIGILO_PLATFORM_MEMORY_H_
#define VIGILO_PLATFORM_MEMORY_H_

// Writes one line to stderr without allocating, then aborts. Never returns.
[[noreturn]] void ov_outOfMemory();

#endif  // VIGILO_PLATFORM_MEMORY_H_
