// The process's allocation entry points over a fake next allocator that records every call. The
// route is chosen once per process, so ctest runs this program twice: with ORVEX_MEMORY_TRACKING=1
// (the TrackingRoute tests) and without (the PlainRoute tests).
#include "support/allocation.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <tuple>

#include "ovcommon/memory.h"
#include "testing/fake_next_allocator.h"

namespace {

std::uint64_t headerOf(void* block) { return static_cast<std::uint64_t*>(block)[-1]; }
std::size_t number(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

// What one call of the entry points asked of the next allocator first (kind, arguments), and
// what it counted as allocated and freed; `nextResult` is what the next allocator answered.
using observed = std::tuple<int, std::size_t, std::size_t, std::uint64_t, std::uint64_t>;
void* nextResult = nullptr;

template <typename Call>
observed observe(Call call) {
  const std::size_t mark = fakeNextCallCount();
  const std::uint64_t allocated = memoryAllocatedTotal(), freed = memoryFreedTotal();
  call();
  const fake_next_call first = fakeNextCallCount() > mark ? fakeNextCallAt(mark) : fake_next_call{};
  nextResult = first.result;
  return {first.kind, first.first, first.second, memoryAllocatedTotal() - allocated,
          memoryFreedTotal() - freed};
}

template <bool tracking>
class Route : public ::testing::Test {
 protected:
  void SetUp() override {
    if (checkMemoryTrackingEnabled() != tracking) GTEST_SKIP() << "the other route's run";
  }
};
using PlainRoute = Route<false>;
using TrackingRoute = Route<true>;

TEST_F(PlainRoute, ForwardsEveryCallUnchangedAndCountsNothing) {
  void *block = nullptr, *zeroed = nullptr, *moved = nullptr;
  EXPECT_EQ(observe([&] { block = malloc(100); }), (observed{fakeMalloc, 100, 0, 0, 0}));
  EXPECT_EQ(block, nextResult);
  EXPECT_EQ(observe([&] { zeroed = calloc(3, 10); }), (observed{fakeCalloc, 3, 10, 0, 0}));
  EXPECT_EQ(zeroed, nextResult);
  EXPECT_EQ(observe([&] { moved = realloc(block, 50); }),
            (observed{fakeRealloc, number(block), 50, 0, 0}));
  for (void* p : {moved, zeroed}) {
    EXPECT_EQ(observe([p] { free(p); }), (observed{fakeFree, number(p), 0, 0, 0}));
  }
  // The next allocator may release a block and answer null for a resize to 0: no exhaustion.
  EXPECT_EQ(realloc(malloc(10), 0), nullptr);
}

// Exhaustion is reported on both routes, on the tracking route also for a request that only the
// header makes too large. A nested lookup, or a name that resolves to the program itself, aborts.
TEST(AllocationDeathTest, ExhaustionAndABrokenLookupAbort) {
  const char* report = "^Out of memory: cannot allocate, aborting\n$";
  EXPECT_DEATH((void)!malloc(SIZE_MAX / 2), report);
  EXPECT_DEATH((void)!malloc(SIZE_MAX - 8), report);
  EXPECT_DEATH((sysmalloc = nullptr, recursing = 1, lookupNextMallocs()), "");
  EXPECT_DEATH((sysmalloc = &malloc, syscalloc = nullptr, lookupNextMallocs()), "");
}

// Each block carries an 8-byte header with its total; realloc counts the old block freed and the
// new one allocated, and keeps the bytes.
TEST_F(TrackingRoute, BlocksCarryAndCountTheHeader) {
  for (const std::size_t size : {0, 4096}) {
    void* block = nullptr;
    EXPECT_EQ(observe([&] { block = malloc(size); }),
              (observed{fakeMalloc, size + 8, 0, size + 8, 0}));
    EXPECT_EQ(static_cast<char*>(nextResult) + 8, block);
    EXPECT_EQ(observe([block] { free(block); }),
              (observed{fakeFree, number(block) - 8, 0, 0, size + 8}));
  }
  EXPECT_EQ(observe([] { free(nullptr); }), observed{});
  char* block = nullptr;
  EXPECT_EQ(observe([&] { block = static_cast<char*>(realloc(nullptr, 50)); }),
            (observed{fakeRealloc, 0, 58, 58, 0}));
  std::memcpy(block, "kept", 5);
  char* grown = nullptr;
  EXPECT_EQ(observe([&] { grown = static_cast<char*>(realloc(block, 200)); }),
            (observed{fakeRealloc, number(block) - 8, 208, 208, 58}));
  EXPECT_EQ(headerOf(grown), 208u);
  EXPECT_STREQ(grown, "kept");
  free(grown);
}

// calloc keeps its unit and adds whole units for the header.
TEST_F(TrackingRoute, CallocAddsWholeUnitsForTheHeader) {
  // {count, unit, units asked for, unit asked for}
  const std::size_t cases[][4] = {{1, 100, 108, 1}, {16, 10, 11, 16}, {3, 10, 13, 3},
                                  {8, 1, 2, 8},     {0, 10, 18, 1},   {2, 0, 4, 2}};
  for (const auto& c : cases) {
    unsigned char* block = nullptr;
    EXPECT_EQ(observe([&] { block = static_cast<unsigned char*>(calloc(c[0], c[1])); }),
              (observed{fakeCalloc, c[2], c[3], c[2] * c[3], 0}))
        << c[0] << " x " << c[1];
    EXPECT_EQ(headerOf(block), c[2] * c[3]);
    for (std::size_t i = 0; i < c[0] * c[1]; ++i) ASSERT_EQ(block[i], 0) << i;
    free(block);
  }
}

// A total that does not fit in 64 bits is refused quietly, before the next allocator is asked.
TEST_F(TrackingRoute, OverflowingSizesAreRefusedWithEnomem) {
  void* block = malloc(16);
  void* (*const attempts[])(void*) = {
      [](void*) { return malloc(SIZE_MAX - 7); },
      [](void*) { return calloc(2, SIZE_MAX / 2); },
      [](void*) { return calloc(0, SIZE_MAX - 4); },
      [](void* b) { return realloc(b, SIZE_MAX - 7); },
      [](void*) { return aligned_alloc(64, SIZE_MAX - 60); },
  };
  for (auto attempt : attempts) {
    errno = 0;
    void* result = &errno;
    EXPECT_EQ(observe([&] { result = attempt(block); }), observed{});
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(headerOf(block), 24u);  // the refused realloc left the block as it was
  free(block);
}

TEST_F(TrackingRoute, AlignedBlocksCarryAHeaderThatFreeAndReallocRecognise) {
  const std::uint64_t allocated = memoryAllocatedTotal(), freed = memoryFreedTotal();
  const std::size_t page = sysconf(_SC_PAGESIZE);
  void* posix = nullptr;
  ASSERT_EQ(posix_memalign(&posix, 64, 100), 0);
  EXPECT_NE(posix_memalign(&posix, 24, 8), 0);  // not a power of two
  char* object = new (std::align_val_t(128)) char[100];
  // {block, alignment, usable size}
  const std::tuple<void*, std::size_t, std::size_t> blocks[] = {
      {posix, 64, 100},
      {aligned_alloc(4096, 8192), 4096, 8192},
      {memalign(256, 10), 256, 10},
      {valloc(100), page, 100},
      {pvalloc(1), page, page},
      {object, 128, 100}};
  for (const auto& [block, alignment, usable] : blocks) {
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(number(block) % alignment, 0u);
    EXPECT_GE(malloc_usable_size(block), usable);
    std::memset(block, 0x5a, usable);
  }
  std::memcpy(std::get<0>(blocks[2]), "aligned", 8);
  auto* moved = static_cast<char*>(realloc(std::get<0>(blocks[2]), 5000));
  EXPECT_STREQ(moved, "aligned");
  EXPECT_EQ(headerOf(moved), 5008u);
  free(posix);  // the next allocator's own block start, or it aborts
  for (int i : {1, 3, 4}) free(std::get<0>(blocks[i]));
  free(moved);
  operator delete[](object, std::align_val_t(128));
  EXPECT_EQ(memoryAllocatedTotal() - allocated, memoryFreedTotal() - freed);
}

// The dynamic loader may call calloc while the lookup runs: it gets null, and no report. Later
// lookups change nothing.
TEST(AllocationTest, CallocDuringTheLookupAndLaterLookups) {
  const auto route = trackingmalloc;
  const std::size_t mark = fakeNextCallCount();
  recursing = 1;
  EXPECT_EQ(calloc(1, 1), nullptr);
  recursing = 0;
  ov_installOutOfMemoryCatcher();
  lookupNextMallocs();
  EXPECT_EQ(fakeNextCallCount(), mark);
  EXPECT_EQ(trackingmalloc, route);
}

}  // namespace
