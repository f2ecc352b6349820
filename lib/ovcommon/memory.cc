#include "ovcommon/memory.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<std::uint64_t> allocated{0};
std::atomic<std::uint64_t> freed{0};

}  // namespace

int checkMemoryTrackingEnabled() {
  const char* value = std::getenv("ORVEX_MEMORY_TRACKING");  // getenv does not allocate
  return value != nullptr && std::strcmp(value, "1") == 0;
}

std::uint64_t countMemoryAllocated(std::uint64_t bytes) {
  return allocated.fetch_add(bytes, std::memory_order_relaxed) + bytes;
}

std::uint64_t countMemoryFreed(std::uint64_t bytes) {
  return freed.fetch_add(bytes, std::memory_order_relaxed) + bytes;
}

std::uint64_t memoryAllocatedTotal() { return allocated.load(std::memory_order_relaxed); }
std::uint64_t memoryFreedTotal() { return freed.load(std::memory_order_relaxed); }

void ov_outOfMemory() {
  static const char message[] = "Out of memory: cannot allocate, aborting\n";
  (void)!write(STDERR_FILENO, message, sizeof message - 1);
  std::abort();
}
