#include "testing/fake_next_allocator.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::size_t arenaBytes = std::size_t{1} << 30;  // untouched pages cost nothing
alignas(16) unsigned char arena[arenaBytes];
std::atomic<std::size_t> arenaUsed{0};

constexpr std::size_t logSize = 4096;
fake_next_call calls[logSize];
std::atomic<std::size_t> callCount{0};
std::atomic<int> failures{0};

// Each block is preceded by 16 bytes that hold its size, so blocks stay 16-aligned.
void* bump(std::size_t size) {
  if (size > arenaBytes) return nullptr;
  const std::size_t need = (size + 16 + 15) & ~std::size_t{15};
  const std::size_t at = arenaUsed.fetch_add(need);
  if (at + need > arenaBytes) return nullptr;
  unsigned char* block = arena + at + 16;
  std::memcpy(block - 16, &size, sizeof size);
  return block;
}

bool ours(void* block) {
  auto* p = static_cast<unsigned char*>(block);
  return p >= arena && p < arena + arenaBytes;
}

void* record(int kind, std::size_t first, std::size_t second, void* result) {
  const std::size_t n = callCount.fetch_add(1);
  calls[n % logSize] = {kind, first, second, result};
  return result;
}

bool failNow() {
  int left = failures.load();
  while (left > 0) {
    if (failures.compare_exchange_weak(left, left - 1)) return true;
  }
  return false;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  return record(fakeMalloc, size, 0, failNow() ? nullptr : bump(size));
}

void* calloc(std::size_t count, std::size_t unit) {
  void* block = nullptr;
  if (!failNow() && (unit == 0 || count <= SIZE_MAX / unit)) block = bump(count * unit);
  if (block != nullptr) std::memset(block, 0, count * unit);
  return record(fakeCalloc, count, unit, block);
}

void* realloc(void* old, std::size_t size) {
  const auto oldNumber = reinterpret_cast<std::uintptr_t>(old);
  if (old != nullptr && size == 0) return record(fakeRealloc, oldNumber, 0, nullptr);
  void* block = failNow() ? nullptr : bump(size);
  if (block != nullptr && old != nullptr && ours(old)) {
    std::size_t oldSize;
    std::memcpy(&oldSize, static_cast<unsigned char*>(old) - 16, sizeof oldSize);
    std::memcpy(block, old, oldSize < size ? oldSize : size);
  }
  return record(fakeRealloc, oldNumber, size, block);
}

void free(void* block) { record(fakeFree, reinterpret_cast<std::uintptr_t>(block), 0, nullptr); }

std::size_t fakeNextCallCount() { return callCount.load(); }
fake_next_call fakeNextCallAt(std::size_t index) { return calls[index % logSize]; }
void fakeNextFail(int n) { failures.store(n); }

}  // extern "C"
