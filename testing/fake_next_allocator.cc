#include "testing/fake_next_allocator.h"

#include <atomic>
#include <cstdint>

// The C library's own allocator under its internal names, which no entry point of the program
// can shadow.
extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_calloc(std::size_t, std::size_t);
extern "C" void* __libc_realloc(void*, std::size_t);
extern "C" void __libc_free(void*);

namespace {

constexpr std::size_t logSize = 4096;
fake_next_call calls[logSize];
std::atomic<std::size_t> callCount{0};

void* record(int kind, std::size_t first, std::size_t second, void* result) {
  const std::size_t n = callCount.fetch_add(1);
  calls[n % logSize] = {kind, first, second, result};
  return result;
}

std::size_t number(void* block) { return reinterpret_cast<std::uintptr_t>(block); }

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return record(fakeMalloc, size, 0, __libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t unit) {
  return record(fakeCalloc, count, unit, __libc_calloc(count, unit));
}

void* realloc(void* old, std::size_t size) {
  return record(fakeRealloc, number(old), size, __libc_realloc(old, size));
}

void free(void* block) {
  record(fakeFree, number(block), 0, nullptr);
  __libc_free(block);
}

std::size_t fakeNextCallCount() { return callCount.load(); }
fake_next_call fakeNextCallAt(std::size_t index) { return calls[index % logSize]; }

}  // extern "C"
