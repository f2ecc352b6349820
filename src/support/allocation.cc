#include "support/allocation.h"

#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ovcommon/memory.h"

extern "C" {

malloc_fn sysmalloc = nullptr;
calloc_fn syscalloc = nullptr;
realloc_fn sysrealloc = nullptr;
free_fn sysfree = nullptr;
malloc_fn trackingmalloc = nullptr;
calloc_fn trackingcalloc = nullptr;
realloc_fn trackingrealloc = nullptr;
free_fn trackingfree = nullptr;
int recursing = 0;

}  // extern "C"

namespace {

constexpr std::uint64_t headerBytes = 8;
// A header with this bit set belongs to an aligned block: the word before it holds the distance
// from the next allocator's block to the caller's address. User space lies below 2^63 on every
// 64-bit Linux, so the total of a real block never has this bit.
constexpr std::uint64_t alignedFlag = std::uint64_t{1} << 63;

std::uint64_t* header(void* block) { return static_cast<std::uint64_t*>(block) - 1; }

template <typename Fn>
void lookUp(Fn& variable, const char* name, Fn own) {
  if (variable == nullptr) variable = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
  if (variable == nullptr) variable = reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
  if (variable == own) std::abort();  // the search found this program itself
}

// A request whose total, header included, does not fit in 64 bits gets null and ENOMEM, and no
// report: no arithmetic can describe the block. Every other request is the next allocator's to
// grant or refuse.
void* refuse() {
  errno = ENOMEM;
  return nullptr;
}

bool headerOverflows(std::size_t size) { return size > SIZE_MAX - headerBytes; }

// calloc's unit, and the units the header adds: the fewest whole units that hold 8 bytes.
struct calloc_units {
  std::uint64_t unit;
  std::uint64_t extra;
};

calloc_units callocUnits(std::size_t first) {
  if (first == 0) return {1, headerBytes};
  return {first, (headerBytes + first - 1) / first};
}

bool callocOverflows(std::size_t first, std::size_t second) {
  const calloc_units u = callocUnits(first);
  return second > SIZE_MAX - u.extra || second + u.extra > SIZE_MAX / u.unit;
}

// The caller's address in a block of the next allocator that starts with a header of `total`,
// counted as allocated. A next allocator that claims a block no address space could hold is
// taken as having refused it.
void* headedBlock(void* start, std::uint64_t total) {
  if (start == nullptr) return nullptr;
  if ((total & alignedFlag) != 0) {
    sysfree(start);
    return nullptr;
  }
  *static_cast<std::uint64_t*>(start) = total;
  countMemoryAllocated(total);
  return static_cast<char*>(start) + headerBytes;
}

// The next allocator's own function of the aligned family, found at its first use: the plain route
// hands these calls over unchanged.
template <typename Fn>
class next_function {
 public:
  constexpr explicit next_function(const char* name) : name(name) {}
  Fn get() {
    Fn fn = cached.load(std::memory_order_relaxed);
    if (fn == nullptr) {
      fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
      cached.store(fn, std::memory_order_relaxed);
    }
    return fn;
  }

 private:
  const char* name;
  std::atomic<Fn> cached{nullptr};
};

// The implementation that an entry point calls; the first call of the process settles it.
template <typename Fn>
Fn resolved(Fn& implementation) {
  if (implementation == nullptr) lookupNextMallocs();
  return implementation;
}

bool tracking() { return resolved(trackingmalloc) == &track_malloc; }

// An aligned block on the tracking route: room for the alignment and two words before the
// caller's address, which is aligned and carries the flagged header.
void* trackAligned(std::size_t alignment, std::size_t size) {
  if (alignment < 16) alignment = 16;
  if (alignment > SIZE_MAX / 2 || size > SIZE_MAX - alignment - 2 * headerBytes) return refuse();
  const std::uint64_t total = size + alignment + 2 * headerBytes;
  void* start = sysmalloc(total);
  if (start == nullptr) return nullptr;
  if ((total & alignedFlag) != 0) {
    sysfree(start);
    return nullptr;
  }
  const auto base = reinterpret_cast<std::uintptr_t>(start) + 2 * headerBytes;
  const std::uintptr_t aligned = (base + alignment - 1) & ~(std::uintptr_t{alignment} - 1);
  void* block = reinterpret_cast<void*>(aligned);
  header(block)[0] = total | alignedFlag;
  header(block)[-1] = aligned - reinterpret_cast<std::uintptr_t>(start);
  countMemoryAllocated(total);
  return block;
}

// The next allocator's block under a caller's block, its total, and the caller's usable bytes.
struct block_info {
  void* start;
  std::uint64_t total;
  std::uint64_t usable;
};

block_info infoOf(void* block) {
  const std::uint64_t word = *header(block);
  if ((word & alignedFlag) == 0) {
    return {header(block), word, word - headerBytes};
  }
  const std::uint64_t total = word & ~alignedFlag;
  const std::uint64_t offset = header(block)[-1];
  return {static_cast<char*>(block) - offset, total, total - offset};
}

// The tracking route's malloc and free. The entry points run them in place rather than through
// their function pointers: every call level costs as much as the header and the count together.
[[gnu::always_inline]] inline void* trackMalloc(std::size_t size) {
  if (headerOverflows(size)) return refuse();
  return headedBlock(sysmalloc(size + headerBytes), size + headerBytes);
}

[[gnu::always_inline]] inline void trackFree(void* block) {
  if (block == nullptr) return;
  const block_info info = infoOf(block);
  countMemoryFreed(info.total);
  sysfree(info.start);
}

bool isPowerOfTwo(std::size_t n) { return n != 0 && (n & (n - 1)) == 0; }

// aligned_alloc and memalign on the tracking route: any power of two is a valid alignment.
void* trackPowerOfTwoAligned(std::size_t alignment, std::size_t size) {
  if (!isPowerOfTwo(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  return trackAligned(alignment, size);
}

void* entryResult(void* block) {
  if (block == nullptr) ov_outOfMemory();
  return block;
}

}  // namespace

extern "C" {

void lookupNextMallocs() {
  const int trackingEnabled = checkMemoryTrackingEnabled();
  if (sysmalloc != nullptr && sysrealloc != nullptr && syscalloc != nullptr && sysfree != nullptr) {
    return;
  }
  if (recursing) std::abort();
  recursing = 1;
  lookUp<calloc_fn>(syscalloc, "calloc", &calloc);
  lookUp<malloc_fn>(sysmalloc, "malloc", &malloc);
  lookUp<free_fn>(sysfree, "free", &free);
  lookUp<realloc_fn>(sysrealloc, "realloc", &realloc);
  recursing = 0;
  if (trackingEnabled) {
    trackingmalloc = &track_malloc;
    trackingfree = &track_free;
    trackingcalloc = &track_calloc;
    trackingrealloc = &track_realloc;
  } else {
    trackingmalloc = sysmalloc;
    trackingfree = sysfree;
    trackingcalloc = syscalloc;
    trackingrealloc = sysrealloc;
  }
  if (sysmalloc == nullptr || sysrealloc == nullptr || syscalloc == nullptr || sysfree == nullptr) {
    std::abort();
  }
}

void ov_installOutOfMemoryCatcher() { lookupNextMallocs(); }

void* track_malloc(std::size_t size) { return trackMalloc(size); }

// The first argument is the unit and the second the number of units.
void* track_calloc(std::size_t first, std::size_t second) {
  if (callocOverflows(first, second)) return refuse();
  const calloc_units u = callocUnits(first);
  const std::uint64_t units = second + u.extra;
  // The header is written after the next allocator has zeroed the block.
  return headedBlock(syscalloc(units, u.unit), units * u.unit);
}

void* track_realloc(void* block, std::size_t size) {
  if (headerOverflows(size)) return refuse();
  if (block != nullptr && (*header(block) & alignedFlag) != 0) {
    // The next allocator cannot resize from an address inside its block: move it.
    const block_info old = infoOf(block);
    void* moved = track_malloc(size);
    if (moved == nullptr) return nullptr;
    std::memcpy(moved, block, old.usable < size ? old.usable : size);
    track_free(block);
    return moved;
  }
  const std::uint64_t total = size + headerBytes;
  void* start = nullptr;
  if (block != nullptr) {
    start = header(block);
    countMemoryFreed(*header(block));
  }
  return headedBlock(sysrealloc(start, total), total);
}

void track_free(void* block) { trackFree(block); }

// The entry points.

void* malloc(std::size_t size) {
  const malloc_fn impl = resolved(trackingmalloc);
  void* block = impl == &track_malloc ? trackMalloc(size) : impl(size);
  if (block == nullptr && tracking() && headerOverflows(size)) return nullptr;
  return entryResult(block);
}

void* calloc(std::size_t first, std::size_t second) {
  if (recursing) return nullptr;  // the dynamic loader asks during the lookup; it copes
  void* block = resolved(trackingcalloc)(first, second);
  if (block == nullptr && tracking() && callocOverflows(first, second)) return nullptr;
  return entryResult(block);
}

void* realloc(void* block, std::size_t size) {
  void* resized = resolved(trackingrealloc)(block, size);
  if (resized == nullptr && size == 0) return nullptr;  // released, as realloc(block, 0) may
  if (resized == nullptr && tracking() && headerOverflows(size)) return nullptr;
  return entryResult(resized);
}

void free(void* block) {
  const free_fn impl = resolved(trackingfree);
  if (impl == &track_free) {
    trackFree(block);
  } else {
    impl(block);
  }
}

// The aligned family: forwarded unchanged on the plain route; on the tracking route they carry a
// header that free and realloc recognise, so that no block without one ever reaches free.

int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
  if (!isPowerOfTwo(alignment) || alignment % sizeof(void*) != 0) return EINVAL;
  static next_function<int (*)(void**, std::size_t, std::size_t)> next("posix_memalign");
  if (!tracking()) return next.get()(result, alignment, size);
  void* block = trackAligned(alignment, size);
  if (block == nullptr) return ENOMEM;
  *result = block;
  return 0;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  static next_function<void* (*)(std::size_t, std::size_t)> next("aligned_alloc");
  return tracking() ? trackPowerOfTwoAligned(alignment, size) : next.get()(alignment, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
  static next_function<void* (*)(std::size_t, std::size_t)> next("memalign");
  return tracking() ? trackPowerOfTwoAligned(alignment, size) : next.get()(alignment, size);
}

void* valloc(std::size_t size) {
  static next_function<void* (*)(std::size_t)> next("valloc");
  if (!tracking()) return next.get()(size);
  return trackAligned(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), size);
}

void* pvalloc(std::size_t size) {
  static next_function<void* (*)(std::size_t)> next("pvalloc");
  if (!tracking()) return next.get()(size);
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  if (size > SIZE_MAX - page) return refuse();
  return trackAligned(page, (size + page - 1) / page * page);
}

std::size_t malloc_usable_size(void* block) {
  if (block == nullptr) return 0;
  static next_function<std::size_t (*)(void*)> next("malloc_usable_size");
  if (!tracking()) return next.get()(block);
  return infoOf(block).usable;
}

}  // extern "C"
