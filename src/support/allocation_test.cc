// The process's allocation entry points over a fake next allocator that records every call.
// The route is chosen once per process, so ctest runs this program twice: once with
// ORVEX_MEMORY_TRACKING=1 (the Tracking tests) and once without (the Plain tests); each suite
// checks that it runs on its own route.
#include "support/allocation.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <vector>

#include "ovcommon/memory.h"
#include "testing/fake_next_allocator.h"

namespace {

// The call that the fake recorded first after `mark`.
fake_next_call callAfter(std::size_t mark) {
  EXPECT_GT(fakeNextCallCount(), mark);
  return fakeNextCallAt(mark);
}

std::uint64_t headerOf(void* block) { return static_cast<std::uint64_t*>(block)[-1]; }

std::size_t number(void* p) { return reinterpret_cast<std::uintptr_t>(p); }

struct counters {
  std::uint64_t allocated = memoryAllocatedTotal();
  std::uint64_t freed = memoryFreedTotal();
  std::uint64_t allocatedSince() const { return memoryAllocatedTotal() - allocated; }
  std::uint64_t freedSince() const { return memoryFreedTotal() - freed; }
};

class PlainRoute : public ::testing::Test {
 protected:
  void SetUp() override {
    if (checkMemoryTrackingEnabled()) GTEST_SKIP() << "runs without ORVEX_MEMORY_TRACKING";
    ASSERT_EQ(trackingmalloc, sysmalloc);
  }
};

class TrackingRoute : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!checkMemoryTrackingEnabled()) GTEST_SKIP() << "runs with ORVEX_MEMORY_TRACKING=1";
    ASSERT_EQ(trackingmalloc, &track_malloc);
  }
};

TEST_F(PlainRoute, ForwardsEveryCallUnchangedAndCountsNothing) {
  const counters before;
  std::size_t mark = fakeNextCallCount();
  void* block = malloc(100);
  fake_next_call call = callAfter(mark);
  EXPECT_EQ(call.kind, fakeMalloc);
  EXPECT_EQ(call.first, 100u);
  EXPECT_EQ(call.result, block);

  mark = fakeNextCallCount();
  void* zeroed = calloc(3, 10);
  call = callAfter(mark);
  EXPECT_EQ(call.kind, fakeCalloc);
  EXPECT_EQ(call.first, 3u);
  EXPECT_EQ(call.second, 10u);
  EXPECT_EQ(call.result, zeroed);

  mark = fakeNextCallCount();
  void* moved = realloc(block, 50);
  call = callAfter(mark);
  EXPECT_EQ(call.kind, fakeRealloc);
  EXPECT_EQ(call.first, number(block));
  EXPECT_EQ(call.second, 50u);
  EXPECT_EQ(call.result, moved);

  for (void* p : {moved, zeroed, static_cast<void*>(nullptr)}) {
    mark = fakeNextCallCount();
    free(p);
    call = callAfter(mark);
    EXPECT_EQ(call.kind, fakeFree);
    EXPECT_EQ(call.first, number(p));
  }
  EXPECT_EQ(before.allocatedSince(), 0u);
  EXPECT_EQ(before.freedSince(), 0u);
}

// The next allocator may release a block and answer null for a resize to 0: that is no
// exhaustion.
TEST_F(PlainRoute, ReallocToZeroAnsweredWithNullIsNotReported) {
  void* block = malloc(10);
  EXPECT_EQ(realloc(block, 0), nullptr);
}

TEST_F(PlainRoute, ExhaustionIsReported) {
  EXPECT_DEATH(
      {
        fakeNextFail(1);
        (void)!malloc(10);
      },
      "^Out of memory: cannot allocate, aborting\n$");
}

TEST_F(TrackingRoute, MallocAndFreeCarryAndCountTheHeader) {
  struct malloc_case {
    std::size_t size;
    std::uint64_t total;
  };
  for (const malloc_case c : {malloc_case{0, 8}, malloc_case{100, 108}, malloc_case{4096, 4104}}) {
    SCOPED_TRACE(c.size);
    const counters before;
    std::size_t mark = fakeNextCallCount();
    void* block = malloc(c.size);
    const fake_next_call call = callAfter(mark);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(call.kind, fakeMalloc);
    EXPECT_EQ(call.first, c.total);
    EXPECT_EQ(static_cast<char*>(call.result) + 8, block);
    EXPECT_EQ(headerOf(block), c.total);
    EXPECT_EQ(before.allocatedSince(), c.total);

    mark = fakeNextCallCount();
    free(block);
    const fake_next_call freed = callAfter(mark);
    EXPECT_EQ(freed.kind, fakeFree);
    EXPECT_EQ(freed.first, number(block) - 8);
    EXPECT_EQ(before.freedSince(), c.total);
  }
}

TEST_F(TrackingRoute, FreeOfNullCountsNothing) {
  const counters before;
  const std::size_t mark = fakeNextCallCount();
  free(nullptr);
  EXPECT_EQ(fakeNextCallCount(), mark);
  EXPECT_EQ(before.freedSince(), 0u);
}

TEST_F(TrackingRoute, CallocAddsWholeUnitsForTheHeader) {
  struct calloc_case {
    std::size_t first, second;
    std::size_t units, unit;
    std::uint64_t total;
  };
  const calloc_case cases[] = {
      {1, 100, 108, 1, 108}, {16, 10, 11, 16, 176}, {4, 10, 12, 4, 48}, {3, 10, 13, 3, 39},
      {0, 10, 18, 1, 18},    {2, 0, 4, 2, 8},       {5, 3, 5, 5, 25},   {6, 1, 3, 6, 18},
      {7, 1, 3, 7, 21},      {8, 1, 2, 8, 16},      {9, 2, 3, 9, 27},
  };
  for (const calloc_case& c : cases) {
    SCOPED_TRACE(std::to_string(c.first) + " x " + std::to_string(c.second));
    const counters before;
    const std::size_t mark = fakeNextCallCount();
    auto* block = static_cast<unsigned char*>(calloc(c.first, c.second));
    const fake_next_call call = callAfter(mark);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(call.kind, fakeCalloc);
    EXPECT_EQ(call.first, c.units);
    EXPECT_EQ(call.second, c.unit);
    EXPECT_EQ(headerOf(block), c.total);
    EXPECT_EQ(before.allocatedSince(), c.total);
    for (std::size_t i = 0; i < c.first * c.second; ++i) ASSERT_EQ(block[i], 0) << i;
    free(block);
  }
}

TEST_F(TrackingRoute, ReallocCountsTheOldBlockFreedAndTheNewOneAllocated) {
  counters before;
  std::size_t mark = fakeNextCallCount();
  auto* block = static_cast<char*>(realloc(nullptr, 50));
  fake_next_call call = callAfter(mark);
  EXPECT_EQ(call.kind, fakeRealloc);
  EXPECT_EQ(call.first, 0u);
  EXPECT_EQ(call.second, 58u);
  EXPECT_EQ(before.allocatedSince(), 58u);
  EXPECT_EQ(before.freedSince(), 0u);
  std::memcpy(block, "kept across the move", 21);

  before = counters();
  mark = fakeNextCallCount();
  auto* grown = static_cast<char*>(realloc(block, 200));
  call = callAfter(mark);
  EXPECT_EQ(call.first, number(block) - 8);
  EXPECT_EQ(call.second, 208u);
  EXPECT_EQ(headerOf(grown), 208u);
  EXPECT_STREQ(grown, "kept across the move");
  EXPECT_EQ(before.freedSince(), 58u);
  EXPECT_EQ(before.allocatedSince(), 208u);
  free(grown);
}

// Sizes whose total would not fit are refused quietly, before the next allocator is asked.
TEST_F(TrackingRoute, OverflowingSizesAreRefusedWithEnomem) {
  void* block = malloc(16);
  const std::size_t mark = fakeNextCallCount();
  const counters before;
  struct attempt {
    const char* name;
    void* (*call)(void*);
  };
  const attempt attempts[] = {
      {"malloc", [](void*) { return malloc(SIZE_MAX - 3); }},
      {"malloc half", [](void*) { return malloc(SIZE_MAX / 2); }},
      {"calloc", [](void*) { return calloc(2, SIZE_MAX / 2); }},
      {"calloc unit 0", [](void*) { return calloc(0, SIZE_MAX - 4); }},
      {"realloc", [](void* b) { return realloc(b, SIZE_MAX - 7); }},
      {"aligned_alloc", [](void*) { return aligned_alloc(64, SIZE_MAX - 60); }},
  };
  for (const attempt& a : attempts) {
    errno = 0;
    EXPECT_EQ(a.call(block), nullptr) << a.name;
    EXPECT_EQ(errno, ENOMEM) << a.name;
  }
  EXPECT_EQ(fakeNextCallCount(), mark);
  EXPECT_EQ(before.allocatedSince(), 0u);
  EXPECT_EQ(before.freedSince(), 0u);
  EXPECT_EQ(headerOf(block), 24u);  // the refused realloc left the block as it was
  free(block);
}

TEST_F(TrackingRoute, AlignedBlocksCarryAHeaderThatFreeRecognises) {
  const counters before;
  const long page = sysconf(_SC_PAGESIZE);
  void* posix = nullptr;
  ASSERT_EQ(posix_memalign(&posix, 64, 100), 0);
  void* aligned = aligned_alloc(4096, 8192);
  void* mem = memalign(256, 10);
  void* pageAligned = valloc(100);
  void* pages = pvalloc(1);
  char* object = new (std::align_val_t(128)) char[100];
  struct expect {
    void* block;
    std::uintptr_t alignment;
    std::size_t usable;
  };
  for (const expect& e :
       {expect{posix, 64, 100}, expect{aligned, 4096, 8192}, expect{mem, 256, 10},
        expect{pageAligned, std::uintptr_t(page), 100},
        expect{pages, std::uintptr_t(page), std::size_t(page)}, expect{object, 128, 100}}) {
    ASSERT_NE(e.block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(e.block) % e.alignment, 0u);
    EXPECT_GE(malloc_usable_size(e.block), e.usable);
    std::memset(e.block, 0x5a, e.usable);
  }
  // A resize moves the block and keeps its bytes.
  std::memcpy(mem, "aligned", 8);
  auto* moved = static_cast<char*>(realloc(mem, 5000));
  EXPECT_STREQ(moved, "aligned");
  EXPECT_EQ(headerOf(moved), 5008u);

  const std::size_t mark = fakeNextCallCount();
  free(posix);
  const fake_next_call call = callAfter(mark);
  EXPECT_EQ(call.kind, fakeFree);
  EXPECT_LT(call.first, number(posix));  // the next allocator's own block start
  free(aligned);
  free(moved);
  free(pageAligned);
  free(pages);
  operator delete[](object, std::align_val_t(128));
  EXPECT_EQ(before.allocatedSince(), before.freedSince());
  EXPECT_NE(posix_memalign(&posix, 24, 8), 0);  // not a power of two
}

// Whatever mix of calls, the counters differ by exactly the totals of the blocks still held.
TEST_F(TrackingRoute, CountersBalanceAgainstTheBlocksHeld) {
  std::mt19937 random(7);
  // Reserved ahead, so that the bookkeeping itself allocates nothing while counting.
  std::vector<std::pair<void*, std::uint64_t>> held;
  held.reserve(4096);
  const counters before;
  auto keep = [&held](void* b) { held.emplace_back(b, headerOf(b) & ~(std::uint64_t{1} << 63)); };
  for (int i = 0; i < 2000; ++i) {
    const int op = static_cast<int>(random() % 5);
    const std::size_t size = random() % 3000;
    if (op == 0 || held.empty()) {
      keep(malloc(size));
    } else if (op == 1) {
      keep(calloc(random() % 20, size % 50));
    } else if (op == 2) {
      keep(aligned_alloc(std::size_t{16} << (random() % 6), size));
    } else {
      const std::size_t at = random() % held.size();
      void* b = held[at].first;
      held[at] = held.back();
      held.pop_back();
      if (op == 3) {
        free(b);
      } else {
        keep(realloc(b, size + 1));
      }
    }
  }
  std::uint64_t stillHeld = 0;
  for (const auto& [block, bytes] : held) stillHeld += bytes;
  EXPECT_EQ(before.allocatedSince() - before.freedSince(), stillHeld);
  for (const auto& [block, bytes] : held) free(block);
}

using AllocationDeathTest = ::testing::Test;

TEST(AllocationDeathTest, NestedLookupAborts) {
  EXPECT_DEATH(
      {
        sysmalloc = nullptr;
        recursing = 1;
        lookupNextMallocs();
      },
      "");
}

TEST(AllocationDeathTest, NameResolvingToTheProgramItselfAborts) {
  EXPECT_DEATH(
      {
        sysmalloc = &malloc;
        syscalloc = nullptr;
        lookupNextMallocs();
      },
      "");
}

// The dynamic loader may call calloc while the lookup runs: it gets null, and no report.
TEST(AllocationTest, CallocDuringTheLookupGetsNullWithoutReport) {
  const std::size_t mark = fakeNextCallCount();
  recursing = 1;
  void* block = calloc(1, 1);
  recursing = 0;
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(fakeNextCallCount(), mark);
}

TEST(AllocationTest, LaterLookupsChangeNothing) {
  const auto before = trackingmalloc;
  const std::size_t mark = fakeNextCallCount();
  ov_installOutOfMemoryCatcher();
  lookupNextMallocs();
  EXPECT_EQ(trackingmalloc, before);
  EXPECT_EQ(fakeNextCallCount(), mark);
}

}  // namespace
