#include "ovcommon/memory.h"

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// Counting is paid on every allocation of the process, and a locked add costs as much as the
// allocation it counts. So each thread counts in a slot of its own, which only it writes, with a
// plain load and store; the totals are the sums of the slots. Threads beyond the slots share the
// last one, counted with locked adds.
struct alignas(64) counter_slot {
  std::atomic<std::uint64_t> allocated{0};
  std::atomic<std::uint64_t> freed{0};
};

constexpr std::size_t ownSlots = 256;
counter_slot slots[ownSlots + 1];
counter_slot& sharedSlot = slots[ownSlots];
std::atomic<std::size_t> slotsTaken{0};

// Initial-exec: this library is loaded with the program, and a thread's slot is then one load
// away, with no call that could allocate.
[[gnu::tls_model("initial-exec")]] thread_local counter_slot* threadSlot = nullptr;

counter_slot* ownSlot() {
  counter_slot* slot = threadSlot;
  if (slot == nullptr) {
    const std::size_t taken = slotsTaken.fetch_add(1, std::memory_order_relaxed);
    slot = threadSlot = taken < ownSlots ? &slots[taken] : &sharedSlot;
  }
  return slot;
}

void add(counter_slot* slot, std::atomic<std::uint64_t> counter_slot::*counter,
         std::uint64_t bytes) {
  std::atomic<std::uint64_t>& c = slot->*counter;
  if (slot == &sharedSlot) {
    c.fetch_add(bytes, std::memory_order_relaxed);
  } else {
    c.store(c.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
  }
}

std::uint64_t total(std::atomic<std::uint64_t> counter_slot::*counter) {
  std::uint64_t sum = 0;
  for (const counter_slot& slot : slots) sum += (slot.*counter).load(std::memory_order_relaxed);
  return sum;
}

}  // namespace

int checkMemoryTrackingEnabled() {
  const char* value = std::getenv("ORVEX_MEMORY_TRACKING");  // getenv does not allocate
  return value != nullptr && std::strcmp(value, "1") == 0;
}

void countMemoryAllocated(std::uint64_t bytes) { add(ownSlot(), &counter_slot::allocated, bytes); }

void countMemoryFreed(std::uint64_t bytes) { add(ownSlot(), &counter_slot::freed, bytes); }

std::uint64_t memoryAllocatedTotal() { return total(&counter_slot::allocated); }
std::uint64_t memoryFreedTotal() { return total(&counter_slot::freed); }

void ov_outOfMemory() {
  static const char message[] = "Out of memory: cannot allocate, aborting\n";
  (void)!write(STDERR_FILENO, message, sizeof message - 1);
  std::abort();
}
