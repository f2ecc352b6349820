// Test support: a next allocator that a test program loads ahead of the C library, so that the
// program's entry points find it through RTLD_NEXT. It hands out blocks from a static arena,
// never reuses them, and records every call with its arguments; it allocates nothing itself.
#ifndef VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_
#define VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_

#include <cstddef>

extern "C" {

enum fake_next_kind { fake_malloc = 1, fake_calloc, fake_realloc, fake_free };

struct fake_next_call {
  int kind;
  std::size_t first;   // size, count, or the block as a number
  std::size_t second;  // calloc's unit, realloc's size
  void* result;
};

// Calls recorded so far; entries older than the last 4096 are overwritten.
std::size_t fake_next_call_count();
fake_next_call fake_next_call_at(std::size_t index);
// The next `calls` allocations return null.
void fake_next_fail(int calls);

}  // extern "C"

#endif  // VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_
