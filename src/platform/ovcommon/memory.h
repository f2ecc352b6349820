// Memory accounting and the out-of-memory report of the common support library (libovcommon).
// Every operation here is safe before the process's allocator is known: none of them allocates.
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_MEMORY_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_MEMORY_H_

#include <cstdint>

// Non-zero when the environment variable ORVEX_MEMORY_TRACKING is "1".
extern "C" int checkMemoryTrackingEnabled();

// Add to the process's totals. Any thread may count, and no count is lost.
extern "C" void countMemoryAllocated(std::uint64_t bytes);
extern "C" void countMemoryFreed(std::uint64_t bytes);

// The totals so far: exact for every count that happened before the call, such as those of a
// thread that has been joined.
std::uint64_t memoryAllocatedTotal();
std::uint64_t memoryFreedTotal();

// Writes one line to stderr without allocating, then aborts. Never returns.
[[noreturn]] void ov_outOfMemory();

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_MEMORY_H_
