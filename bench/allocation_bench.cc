// malloc/free pairs per second through the process's entry points, beside the next allocator
// called directly, on the plain and on the tracking route. A third loop goes through a forwarder
// that does nothing but what every entry point must: one call level and a null check. It is the
// floor of any entry point, so "floor" shows how much of the gap is that call level alone. The
// route is fixed per process, so the program runs itself once per route and prints one table,
// then the time of the two counts that the tracking route adds to each pair.
//
//   build/bin/allocation_bench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "ovcommon/memory.h"
#include "support/allocation.h"

namespace {

void* volatile sink;

template <typename Alloc, typename Release>
double pairsPerSecond(Alloc allocate, Release release, std::size_t size) {
  constexpr int pairs = 5'000'000;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < pairs; ++i) {
    void* block = allocate(size);
    sink = block;
    release(block);
  }
  return pairs / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

[[gnu::noinline]] void* forwardMalloc(std::size_t size) {
  void* block = sysmalloc(size);
  if (block == nullptr) std::abort();
  return block;
}

[[gnu::noinline]] void forwardFree(void* block) { sysfree(block); }

struct figures {
  double entry = 0, forwarder = 0, next = 0;
};

// The best of several alternating rounds of each, so that a busy moment of the machine weighs
// on none of them.
figures bestOfRounds(std::size_t size) {
  figures f;
  for (int round = 0; round < 7; ++round) {
    f.entry = std::max(f.entry, pairsPerSecond([](std::size_t n) { return malloc(n); },
                                               [](void* b) { free(b); }, size));
    f.forwarder = std::max(f.forwarder, pairsPerSecond(forwardMalloc, forwardFree, size));
    f.next = std::max(f.next, pairsPerSecond([](std::size_t n) { return sysmalloc(n); },
                                             [](void* b) { sysfree(b); }, size));
  }
  return f;
}

// Nanoseconds of the two counts that the tracking route makes for each malloc/free pair, alone.
double countingNanoseconds() {
  constexpr int pairs = 50'000'000;
  double best = 1e9;
  for (int round = 0; round < 7; ++round) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < pairs; ++i) {
      countMemoryAllocated(24);
      countMemoryFreed(24);
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count() / pairs);
  }
  return best;
}

// Runs this program for one route and returns its figures.
bool measure(const char* self, const char* route, std::size_t size, figures& f) {
  const std::string command =
      std::string("VIGILO_BENCH_ROUTE=") + route +
      " ORVEX_MEMORY_TRACKING=" + (std::strcmp(route, "tracking") == 0 ? "1" : "0") + " " + self +
      " " + std::to_string(size);
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  const bool ok = std::fscanf(pipe, "%lf %lf %lf", &f.entry, &f.forwarder, &f.next) == 3;
  return pclose(pipe) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("VIGILO_BENCH_ROUTE") != nullptr && argc > 1) {
    const std::size_t size = std::strtoul(argv[1], nullptr, 10);
    ov_installOutOfMemoryCatcher();
    const figures f = bestOfRounds(size);
    std::printf("%.0f %.0f %.0f\n", f.entry, f.forwarder, f.next);
    return 0;
  }
  std::printf("%-9s %5s %14s %14s %14s %6s %6s\n", "route", "bytes", "entry pairs/s",
              "floor pairs/s", "next pairs/s", "ratio", "floor");
  for (const char* route : {"plain", "tracking"}) {
    for (const std::size_t size : {16, 64, 1024}) {
      figures f;
      if (!measure(argv[0], route, size, f)) return 1;
      std::printf("%-9s %5zu %14.0f %14.0f %14.0f %6.2f %6.2f\n", route, size, f.entry, f.forwarder,
                  f.next, f.entry / f.next, f.forwarder / f.next);
    }
  }
  std::printf("the two counts of a tracked pair, alone: %.2f ns\n", countingNanoseconds());
  return 0;
}
