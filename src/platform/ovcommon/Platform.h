// Process services of the common support library (libovcommon). All operations are static and
// safe to call from any thread unless a comment says otherwise.
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_PLATFORM_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_PLATFORM_H_

#include <cstddef>
#include <cstdint>
#include <fstream>

namespace com::orvex {

// The library's own allocator, for objects that must outlive ordinary ownership.
struct AllocatorTable {
  void* (*allocate)(std::size_t bytes);
  void* (*reallocate)(void* block, std::size_t bytes);
  void (*release)(void* block);
};

class Platform {
 public:
  // Flushes the standard streams (C and C++) and ends the process with `status`. The second
  // argument is reserved and ignored. Never returns.
  [[noreturn]] static void doExit(int status, unsigned long reserved);

  // Milliseconds of the monotonic clock: the clock of Condition::timedwait.
  static std::uint64_t sysTime();

  // Opens `name` (UTF-8) for writing and returns a new stream that the caller owns; a file that
  // cannot be opened gives a stream in the failed state. `truncate` empties an existing file
  // (otherwise output is appended); `binary` opens in binary mode (otherwise text).
  static std::ofstream* openOFStreamUTF8(const char* name, bool truncate, bool binary);

  // Usable once doDetermineAllocator() has run, which determined_optimal_allocator then tells.
  // doDetermineAllocator() runs before any thread that uses the table exists.
  static AllocatorTable tracking;
  static bool determined_optimal_allocator;
  static void doDetermineAllocator();
};

}  // namespace com::orvex

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_PLATFORM_H_
