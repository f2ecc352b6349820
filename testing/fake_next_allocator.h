// Test support: a next allocator that a test program loads ahead of the C library, so that the
// program's entry points find it through RTLD_NEXT. It records every call with its arguments and
// hands it to the C library's own allocator.
#ifndef VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_
#define VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_

#include <cstddef>

extern "C" {

enum fake_next_kind { fakeMalloc = 1, fakeCalloc, fakeRealloc, fakeFree };

struct fake_next_call {
  int kind;
  std::size_t first;   // size, count, or the block as a number
  std::size_t second;  // calloc's unit, realloc's size
  void* result;
};

// Calls recorded so far; entries older than the last 4096 are overwritten.
std::size_t fakeNextCallCount();
fake_next_call fakeNextCallAt(std::size_t index);

}  // extern "C"

#endif  // VIGILO_TESTING_FAKE_NEXT_ALLOCATOR_H_
